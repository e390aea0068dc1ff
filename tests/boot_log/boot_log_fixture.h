// Boot event logs made to measure, and the reader run on them.
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "boot_log/event_log_reader.h"
#include "platform/messages.h"

// A file of the test's own, gone with it.
class temporary_file {
public:
    explicit temporary_file(const std::string &content);
    ~temporary_file();
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
    const char *path() const { return path_.c_str(); }

private:
    std::string path_;
};

// Records as their bytes. A digest is an identifier and its bytes.
using digest_list = std::vector<std::pair<std::uint16_t, std::string>>;
std::string sha1_record(std::uint32_t pcr, std::uint32_t type, const std::string &digest,
                        const std::string &data);
std::string agile_record(std::uint32_t pcr, std::uint32_t type, const digest_list &digests,
                         const std::string &data);
std::string spec_id_data(const std::vector<std::pair<std::uint16_t, std::uint16_t>> &algorithms,
                         const std::string &vendor_info);
std::string uefi_variable(const std::string &name, std::uint64_t name_length, const std::string &data,
                          std::uint64_t data_length);

using lines = std::vector<std::string>;

// Digests of the records below, and their text in the trace.
inline const std::string sha1(20, '\x11');
inline const std::string sha256(32, '\x22');
inline const std::string no_sha1(20, '\0');
inline const digest_list both = {{0x0004, sha1}, {0x000B, sha256}};
inline const std::string sha1_text(40, '1');
inline const std::string sha256_text(64, '2');

std::string secure_boot(std::uint64_t name_length = 10, std::uint64_t data_length = 1);
// One record of every kind of event data, both layouts.
lines small_log_records();
std::string joined(const lines &records);

// `expected` with the prefix of the reader's two layouts: "a:" crypto-agile, "1:" SHA-1-only, "h:" and "t:"
// dumps.
lines traced(const lines &expected);

// Frames and dumps a log in memory that ends where the log ends, so that the sanitizer sees what is read
// beyond it.
void frame_and_dump(const std::string &log);

// Starts every test with trace and switches as a fresh agent has them, and the node's name "node0".
class boot_log_test : public testing::Test {
protected:
    void SetUp() override;
    ~boot_log_test() override;

    // Runs the reader on a log of these bytes; the former message is released.
    std::uint32_t read(const std::string &log);
    std::uint32_t read_path(const char *path);

    // An event in one line: "num type pcr [hash_alg:digest ...] size:data", bytes in hexadecimal; a field
    // without its presence bit is "-".
    std::string event(std::uint32_t index);
    std::vector<std::string> events();
    // Whether nothing at all is in the message.
    bool is_empty();
    // What was traced after read_file's and the uptime's lines.
    std::vector<std::string> record_lines();

    owned_message<NodeBootIntegrityLog> log;
};

std::string hex(const std::string &bytes);
