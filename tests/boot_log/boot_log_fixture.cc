#include "tests/boot_log/boot_log_fixture.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "boot_log/event_log_dump.h"
#include "boot_log/event_log_framing.h"
#include "boot_log/trace_dump.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"

temporary_file::temporary_file(const std::string &content) : path_(testing::TempDir() + "boot_log_XXXXXX")
{
    close(mkstemp(path_.data()));
    std::ofstream(path_, std::ios::binary) << content;
}

temporary_file::~temporary_file()
{
    unlink(path_.c_str());
}

template <typename Integer>
static std::string little_endian(Integer value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

static std::string utf16(const std::string &text)
{
    std::string units;
    for (char c : text)
        units += {c, '\0'};
    return units;
}

std::string sha1_record(std::uint32_t pcr, std::uint32_t type, const std::string &digest,
                        const std::string &data)
{
    return little_endian(pcr) + little_endian(type) + digest +
           little_endian(static_cast<std::uint32_t>(data.size())) + data;
}

std::string agile_record(std::uint32_t pcr, std::uint32_t type, const digest_list &digests,
                         const std::string &data)
{
    std::string record =
        little_endian(pcr) + little_endian(type) + little_endian(static_cast<std::uint32_t>(digests.size()));
    for (const auto &[identifier, digest] : digests)
        record += little_endian(identifier) + digest;
    return record + little_endian(static_cast<std::uint32_t>(data.size())) + data;
}

std::string spec_id_data(const std::vector<std::pair<std::uint16_t, std::uint16_t>> &algorithms,
                         const std::string &vendor_info)
{
    std::string data("Spec ID Event03\0\0\0\0\0\0\2\0\2", 24);
    data += little_endian(static_cast<std::uint32_t>(algorithms.size()));
    for (const auto &[identifier, size] : algorithms)
        data += little_endian(identifier) + little_endian(size);
    return data + static_cast<char>(vendor_info.size()) + vendor_info;
}

std::string uefi_variable(const std::string &name, std::uint64_t name_length, const std::string &data,
                          std::uint64_t data_length)
{
    static const unsigned char guid[] = {0x61, 0xDF, 0xE4, 0x8B, 0xCA, 0x93, 0xD2, 0x11,
                                         0xAA, 0x0D, 0x00, 0xE0, 0x98, 0x03, 0x2B, 0x8C};
    return std::string(reinterpret_cast<const char *>(guid), sizeof guid) + little_endian(name_length) +
           little_endian(data_length) + utf16(name) + data;
}

std::string secure_boot(std::uint64_t name_length, std::uint64_t data_length)
{
    return uefi_variable("SecureBoot", name_length, "\1", data_length);
}

lines small_log_records()
{
    return {sha1_record(0, EV_NO_ACTION, no_sha1, spec_id_data({{0x04, 20}, {0x0B, 32}}, "V")),
            agile_record(7, EV_EFI_VARIABLE_DRIVER_CONFIG, both, secure_boot()),
            agile_record(4, EV_EFI_ACTION, {{0x000B, sha256}}, "Exit"),
            sha1_record(0, EV_EFI_VARIABLE_BOOT, no_sha1, secure_boot()),
            agile_record(5, 0x80000006, {{0x0012, ""}, {0x0004, sha1}}, "")};
}

std::string joined(const lines &records)
{
    std::string all;
    for (const std::string &record : records)
        all += record;
    return all;
}

lines traced(const lines &expected)
{
    lines all;
    for (const std::string &line : expected) {
        const char *name = line[0] == 'a'   ? "attestation_get_local_sb_event_logs(): "
                           : line[0] == '1' ? "populate_tpm_12_eventlog(): "
                           : line[0] == 'h' ? "print_hexstring(): \n "
                                            : "print_asciistring(): \n ";
        all.push_back(name + line.substr(2));
    }
    return all;
}

void frame_and_dump(const std::string &log)
{
    auto exact = std::make_unique<std::byte[]>(log.size());
    std::memcpy(exact.get(), log.data(), log.size());
    boot_log_framing framing;
    boot_log_misfit misfit = {};
    boot_record record = {};
    std::span<const std::byte> bytes(exact.get(), log.size());
    byte_cursor records(bytes);
    if (!find_boot_log_framing(bytes, framing, misfit))
        return;
    while (!records.at_end() && next_boot_record(records, framing, record, misfit))
        dump_event_data("dump", record);
}

void boot_log_test::SetUp()
{
    setenv("ATTEST_NODE_NAME", "node0", 1);
    verbose = 1;
    ascii = 0;
    uptime_file = nullptr;
    attest_dbg_init();
    trace_capture_switch_off(false);
    trace_captured.clear();
}

boot_log_test::~boot_log_test()
{
    trace_capture_switch_off(false);
}

std::uint32_t boot_log_test::read(const std::string &bytes)
{
    temporary_file file(bytes);
    return read_path(file.path());
}

std::uint32_t boot_log_test::read_path(const char *path)
{
    message_release(*log);
    trace_captured.clear();
    sb_log_name = path;
    return attestation_get_local_sb_event_logs(log.get());
}

std::string hex(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes)
        text += {digits[byte >> 4], digits[byte & 0xF]};
    return text;
}

static std::string hex(const message_bytes &bytes)
{
    return hex(std::string(reinterpret_cast<const char *>(bytes.data), bytes.length));
}

std::string boot_log_test::event(std::uint32_t index)
{
    const BOOT_EVENT &item = log->events.items[index];
    std::ostringstream text;
    auto put = [&](std::uint32_t flag, auto value) {
        if (item.present & flag)
            text << value;
        else
            text << '-';
    };
    put(BOOT_EVENT::has_event_num, item.event_num);
    text << ' ' << std::hex;
    put(BOOT_EVENT::has_event_type, item.event_type);
    text << ' ' << std::dec;
    put(BOOT_EVENT::has_pcr_index, item.pcr_index);
    text << " [";
    for (std::uint32_t i = 0; i < item.digests.count; ++i) {
        const BOOT_EVENT_DIGEST &digest = item.digests.items[i];
        text << (i ? " " : "") << digest.hash_alg << ':'
             << (digest.present & BOOT_EVENT_DIGEST::has_digest ? hex(digest.digest) : "-");
    }
    text << "] ";
    put(BOOT_EVENT::has_event_size, item.event_size);
    text << ':';
    put(BOOT_EVENT::has_event_data, hex(item.event_data));
    return text.str();
}

std::vector<std::string> boot_log_test::events()
{
    std::vector<std::string> all;
    const auto &list = log->events;
    for (std::uint32_t i = 0; i < list.count; ++i)
        all.push_back(event(i));
    return all;
}

bool boot_log_test::is_empty()
{
    return log->present == 0 && log->node_name == nullptr && log->events.items == nullptr &&
           log->events.count == 0 && log->uptime == 0;
}

std::vector<std::string> boot_log_test::record_lines()
{
    return {trace_captured.begin() + 2, trace_captured.end()};
}
