// A software TPM of the test's own (swtpm on a unix socket in a temporary directory), and what a test asks it
// directly. It serves one connection at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/owners.h"
#include "platform/tpm/connection.h"

// A directory that goes with its owner.
class temporary_directory {
public:
    temporary_directory();
    temporary_directory(const temporary_directory &) = delete;
    temporary_directory &operator=(const temporary_directory &) = delete;
    ~temporary_directory();
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// A unix socket that listens at the path, in the place of what was there. Empty on failure.
unique_fd listen_at(const std::string &path);

enum class tpm_start { started, not_started }; // whether TPM2_Startup was issued, as firmware does

class software_tpm {
public:
    // With a fresh TPM, or a copy of a directory that another one used. Running.
    explicit software_tpm(const std::string &copy_of = {}, tpm_start start = tpm_start::started);
    software_tpm(const software_tpm &) = delete;
    software_tpm &operator=(const software_tpm &) = delete;
    ~software_tpm();

    void start(tpm_start start = tpm_start::started);
    void kill();
    void pause();
    void resume();
    void reset() const; // in the middle of the connection, leaving it waiting for TPM2_Startup

    const std::string &directory() const { return directory_.path(); }
    std::string node() const { return directory() + "/node"; } // for manifest and certificates
    std::string manifest() const { return node() + "/trust_anchor.json"; }
    std::string address() const { return "swtpm:path=" + directory() + "/socket"; }

private:
    temporary_directory directory_;
    pid_t process_ = -1;
};

// A directory with a TPM that attest-provision has provisioned (once a test program), as node "card7".
const std::string &provisioned_tpm();

struct program_result {
    int status; // -1 when it was killed
    std::string output;
};
// Runs a shell command, stdout and stderr together.
program_result run_program(const std::string &command);

// A connection of the test's own: no other is open.
std::unique_ptr<tpm_connection> connect_to(const software_tpm &tpm);

std::uint32_t tpm_property(tpm_connection &tpm, std::uint32_t property);
// The handles of a kind, TPM2_TRANSIENT_FIRST, TPM2_LOADED_SESSION_FIRST, TPM2_PERSISTENT_FIRST, ...
std::vector<std::uint32_t> tpm_handles(tpm_connection &tpm, std::uint32_t first);

// The TPM keeps a SHA-1 bank alone; it is started anew for that. No connection is open.
void keep_sha1_bank_only(software_tpm &tpm);

std::vector<std::uint8_t> file_bytes(const std::string &path);
std::string file_text(const std::string &path);
void write_file(const std::string &path, const std::string &content);
