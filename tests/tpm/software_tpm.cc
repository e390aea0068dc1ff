#include "tests/tpm/software_tpm.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

[[noreturn]] void become_tpm(const std::string &directory, int listening, tpm_start start)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string log = directory + "/swtpm.log";
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    const std::string state = "dir=" + directory + "/tpm";
    const std::string server = "type=unixio,fd=" + std::to_string(listening);
    const std::string control = "type=unixio,path=" + directory + "/socket.ctrl";
    const char *flags = start == tpm_start::started ? "not-need-init,startup-clear" : "not-need-init";
    execlp("swtpm", "swtpm", "socket", "--tpm2", "--tpmstate", state.c_str(), "--server", server.c_str(),
           "--ctrl", control.c_str(), "--flags", flags, nullptr);
    _exit(127);
}

} // namespace

unique_fd listen_at(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    unique_fd listening(socket(AF_UNIX, SOCK_STREAM, 0));
    if (bind(listening.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listening.get(), 4) != 0)
        listening.reset();
    return listening;
}

temporary_directory::temporary_directory()
{
    char name[] = "/tmp/attest-tpm-XXXXXX";
    if (mkdtemp(name) != nullptr)
        path_ = name;
}

temporary_directory::~temporary_directory()
{
    std::error_code ignored;
    if (!path_.empty())
        fs::remove_all(path_, ignored);
}

software_tpm::software_tpm(const std::string &copy_of, tpm_start how)
{
    if (copy_of.empty()) {
        fs::create_directory(directory() + "/tpm");
        fs::create_directory(node());
    } else {
        for (const char *part : {"tpm", "node"})
            fs::copy(copy_of + "/" + part, directory() + "/" + part, fs::copy_options::recursive);
    }
    start(how);
}

software_tpm::~software_tpm()
{
    kill();
}

void software_tpm::start(tpm_start how)
{
    // Before the TPM runs: who connects early waits for it instead of failing.
    const unique_fd listening = listen_at(directory() + "/socket");
    unlink((directory() + "/socket.ctrl").c_str());
    process_ = fork();
    if (process_ == 0)
        become_tpm(directory(), listening.get(), how);
    ASSERT_TRUE(listening && process_ > 0);
}

void software_tpm::kill()
{
    if (process_ <= 0)
        return;
    ::kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = -1;
}

void software_tpm::pause()
{
    ::kill(process_, SIGSTOP);
    int status = 0;
    waitpid(process_, &status, WUNTRACED);
}

void software_tpm::resume()
{
    ::kill(process_, SIGCONT);
}

void software_tpm::reset() const
{
    ASSERT_EQ(run_program("swtpm_ioctl --unix " + directory() + "/socket.ctrl -i").status, 0);
}

const std::string &provisioned_tpm()
{
    static const software_tpm tpm;
    static const bool provisioned = [] {
        const program_result result = run_program(std::string(ATTEST_PROVISION) + " --tpm " + tpm.address() +
                                                  " --dir " + tpm.node() + " --node-name card7");
        EXPECT_EQ(result.status, 0) << result.output;
        return result.status == 0;
    }();
    static_cast<void>(provisioned);
    return tpm.directory();
}

program_result run_program(const std::string &command)
{
    program_result result{-1, {}};
    FILE *pipe = popen((command + " 2>&1").c_str(), "re");
    if (pipe == nullptr)
        return result;
    char piece[4096];
    for (std::size_t count = 0; (count = fread(piece, 1, sizeof piece, pipe)) > 0;)
        result.output.append(piece, count);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::unique_ptr<tpm_connection> connect_to(const software_tpm &tpm)
{
    setenv("ATTEST_TPM", tpm.address().c_str(), 1);
    setenv("TSS2_LOG", "all+none", 0);
    std::unique_ptr<tpm_connection> connection;
    EXPECT_EQ(tpm_connection_open({kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                                   kov_linux_ipc_close, kov_linux_ipc_send, kov_linux_ipc_receive},
                                  1, connection),
              KOV_SUCCESS);
    return connection;
}

std::uint32_t tpm_property(tpm_connection &tpm, std::uint32_t property)
{
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA *answer = nullptr;
    EXPECT_EQ(Esys_GetCapability(tpm.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_TPM_PROPERTIES,
                                 property, 1, &more, &answer),
              TSS2_RC_SUCCESS);
    const esys_ptr<TPMS_CAPABILITY_DATA> owned(answer);
    return owned ? owned->data.tpmProperties.tpmProperty[0].value : ~0u;
}

std::vector<std::uint32_t> tpm_handles(tpm_connection &tpm, std::uint32_t first)
{
    std::vector<std::uint32_t> handles;
    EXPECT_EQ(tpm_connection_handles(tpm, first, handles), TSS2_RC_SUCCESS);
    return handles;
}

std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void keep_sha1_bank_only(software_tpm &tpm)
{
    TPML_PCR_SELECTION banks{};
    for (const tpm_algorithm &algorithm : tpm_algorithms)
        banks.pcrSelections[banks.count++] =
            pcr_selection(algorithm, algorithm.number == KOV_ALG_SHA1 ? 0xFFFFFF : 0);
    TPMI_YES_NO done = TPM2_NO;
    UINT32 ignored = 0;
    EXPECT_EQ(Esys_PCR_Allocate(connect_to(tpm)->esys, ESYS_TR_RH_PLATFORM, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                ESYS_TR_NONE, &banks, &done, &ignored, &ignored, &ignored),
              TSS2_RC_SUCCESS);
    tpm.kill();
    tpm.start();
}

std::vector<std::uint8_t> file_bytes(const std::string &path)
{
    const std::string text = file_text(path);
    return {text.begin(), text.end()};
}

void write_file(const std::string &path, const std::string &content)
{
    unlink(path.c_str()); // a file written over is flushed by some file systems, and that takes its time
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}
