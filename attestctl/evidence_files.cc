#include "attestctl/evidence_files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <type_traits>

#include <fcntl.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/util/delimited_message_util.h>
#include <sys/stat.h>
#include <unistd.h>

#include "attestctl/openssl_owners.h"
#include "attestctl/text.h"

using google::protobuf::Message;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::FileInputStream;

namespace {

constexpr const char *IMA_FILE = "ima-log.messages";

// Bytes of a file. What was taken from a node is less; a sparse file of any size costs nobody anything to
// make.
constexpr off_t LARGEST_LIST = off_t{64} << 30;
constexpr off_t LARGEST_ANSWER = off_t{16} << 20;
constexpr const char *SUMS_FILE = "SHA256SUMS";

// The kinds with one answer.
template <typename M>
struct saved_kind {
    const char *kind;
    const char *request_file; // nullptr: the request leaves no choice
    M *request;
    const char *answer_file;
    M *answer;
    arrival (*row)(const evidence &got);
};

template <typename Evidence>
auto kinds_of(Evidence &got)
{
    using message = std::conditional_t<std::is_const_v<Evidence>, const Message, Message>;
    return std::array<saved_kind<message>, 5>{{
        {IDENTITY_KIND, "identity.request", &got.identity_request, "identity.response", &got.identity,
         [](const evidence &e) { return arrival_of(IDENTITY_KIND, e.identity); }},
        {ATTESTATION_KEY_KIND, "attestation-key.request", &got.attestation_key_request,
         "attestation-key.response", &got.attestation_key,
         [](const evidence &e) { return arrival_of(ATTESTATION_KEY_KIND, e.attestation_key); }},
        {PCRS_KIND, "pcrs.request", &got.pcrs_request, "pcrs.response", &got.pcrs,
         [](const evidence &e) { return arrival_of(PCRS_KIND, e.pcrs); }},
        {BOOT_LOG_KIND, nullptr, nullptr, "boot-log.response", &got.boot_log,
         [](const evidence &e) { return arrival_of(BOOT_LOG_KIND, e.boot_log); }},
        {HW_INTEGRITY_KIND, "hw-integrity.request", &got.hw_integrity_request, "hw-integrity.response",
         &got.hw_integrity, [](const evidence &e) { return arrival_of(HW_INTEGRITY_KIND, e.hw_integrity); }},
    }};
}

constexpr std::array FILES = {"identity.request",        "identity.response",
                              "attestation-key.request", "pcrs.request",
                              "pcrs.response",           "attestation-key.response",
                              "boot-log.response",       "hw-integrity.request",
                              "hw-integrity.response",   IMA_FILE};

using file_owner = std::unique_ptr<FILE, int (*)(FILE *)>;

std::string path_of(const std::string &directory, const char *file)
{
    return directory + '/' + file;
}

std::string cannot(const char *what, const std::string &path)
{
    return std::string("cannot ") + what + ' ' + printable(path) + ": " + std::strerror(errno);
}

bool write_file(const std::string &path, const std::string &bytes, std::string &error)
{
    file_owner file(std::fopen(path.c_str(), "wxe"), std::fclose);
    bool good = file && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    if (file)
        good = std::fclose(file.release()) == 0 && good;
    if (!good)
        error = cannot("write", path);
    return good;
}

// A file of the directory for reading. What is none (a pipe, a device) is not waited for.
file_owner open_file(const std::string &path, std::string &error)
{
    const off_t largest = path.ends_with(IMA_FILE) ? LARGEST_LIST : LARGEST_ANSWER;
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    const bool is_open = descriptor >= 0 && fstat(descriptor, &status) == 0;
    const bool is_file = is_open && S_ISREG(status.st_mode);
    if (is_file && status.st_size > largest) {
        error = printable(path) + " is larger than what a node can have sent";
        close(descriptor);
        return {nullptr, std::fclose};
    }
    file_owner file(is_file ? fdopen(descriptor, "r") : nullptr, std::fclose);
    if (file)
        return file;
    error = is_open && !is_file ? printable(path) + " is no regular file" : cannot("read", path);
    if (descriptor >= 0)
        close(descriptor);
    return file;
}

// The file's SHA-256, in hexadecimal; empty, and `error` has one line, without one.
std::string sum_of(const std::string &path, std::string &error)
{
    const file_owner file = open_file(path, error);
    if (!file)
        return {};
    const md_ctx_owner state(EVP_MD_CTX_new());
    bool good = state && EVP_DigestInit_ex(state.get(), EVP_sha256(), nullptr) == 1;
    std::string block(1 << 16, '\0');
    for (std::size_t size = block.size(); good && size == block.size();) {
        size = std::fread(block.data(), 1, block.size(), file.get());
        good = std::ferror(file.get()) == 0 && EVP_DigestUpdate(state.get(), block.data(), size) == 1;
    }
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    unsigned size = 0;
    if (!good ||
        EVP_DigestFinal_ex(state.get(), reinterpret_cast<unsigned char *>(digest.data()), &size) != 1) {
        error = cannot("read", path);
        return {};
    }
    return hex(digest.substr(0, size));
}

using file_sums = std::map<std::string, std::string, std::less<>>; // hexadecimal, by name

// One line of SHA256SUMS, without its end; false when it is none of ours.
bool take_sum(std::string_view line, file_sums &sums)
{
    constexpr std::size_t DIGITS = 64;
    std::string digest;
    if (line.size() <= DIGITS + 2 || !from_hex(line.substr(0, DIGITS), digest) ||
        line.substr(DIGITS, 2) != "  ")
        return false;
    const std::string_view name = line.substr(DIGITS + 2);
    for (const char *known : FILES)
        if (name == known)
            return sums.emplace(name, hex(digest)).second;
    return false;
}

bool read_sums(const std::string &directory, file_sums &sums, std::string &error)
{
    constexpr std::size_t LARGEST = 4096; // ten lines of less than 100 bytes
    const std::string path = path_of(directory, SUMS_FILE);
    const file_owner file = open_file(path, error);
    if (!file)
        return false;
    std::string text(LARGEST + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (std::ferror(file.get()) != 0) {
        error = cannot("read", path);
        return false;
    }
    std::size_t at = 0;
    while (at < text.size() && text.size() <= LARGEST) {
        const std::size_t end = text.find('\n', at);
        if (end == std::string::npos || !take_sum(std::string_view(text).substr(at, end - at), sums))
            break;
        at = end + 1;
    }
    if (text.empty() || at != text.size())
        error = printable(path) + " is no list of files of evidence, or is cut";
    return error.empty();
}

// Every file that is listed is as listed, and every request is.
bool check_sums(const std::string &directory, const file_sums &sums, std::string &error)
{
    for (const auto &[name, expected] : sums) {
        const std::string path = path_of(directory, name.c_str());
        const std::string sum = sum_of(path, error);
        if (sum.empty())
            return false;
        if (sum != expected) {
            error = printable(path) + " is not the file that " + SUMS_FILE + " lists: it was changed or cut";
            return false;
        }
    }
    const evidence none;
    for (const auto &row : kinds_of(none)) {
        if (row.request_file != nullptr && !sums.contains(row.request_file)) {
            error = printable(path_of(directory, SUMS_FILE)) + " does not list " + row.request_file;
            return false;
        }
    }
    return true;
}

bool read_message(const std::string &directory, const char *name, Message &message, std::string &error)
{
    const std::string path = path_of(directory, name);
    const file_owner file = open_file(path, error);
    if (!file)
        return false;
    FileInputStream bytes(fileno(file.get()));
    if (!message.ParseFromZeroCopyStream(&bytes))
        error = printable(path) + " is no " + message.GetDescriptor()->name();
    return error.empty();
}

bool read_ima_log(const std::string &directory, const std::function<void(const api::NodeIMAData &)> &take_ima,
                  evidence &got, std::string &error)
{
    const std::string path = path_of(directory, IMA_FILE);
    const file_owner file = open_file(path, error);
    if (!file)
        return false;
    FileInputStream bytes(fileno(file.get()));
    ima_arrival state;
    api::NodeIMAData message;
    for (std::uint64_t number = 1;; ++number) {
        bool at_end = false;
        message.Clear();
        CodedInputStream one(&bytes);
        one.SetTotalBytesLimit(LARGEST_MESSAGE);
        if (!google::protobuf::util::ParseDelimitedFromCodedStream(&message, &one, &at_end)) {
            if (!at_end)
                error = printable(path) + ": message " + grouped(number) + " is no NodeIMAData";
            break;
        }
        note_message(state, message);
        take_ima(message);
    }
    got.arrivals.push_back(arrival_of(state));
    return error.empty();
}

arrival not_saved(const char *kind)
{
    return {kind, false, 0, "was not saved", false};
}

} // namespace

struct evidence_directory {
    std::string path;
    file_owner ima;
    std::string error; // the first; one line
    bool is_whole = false;
};

void evidence_directory_deleter::operator()(evidence_directory *directory) const noexcept
{
    if (!directory->is_whole) {
        for (const char *name : FILES)
            unlink(path_of(directory->path, name).c_str());
        unlink(path_of(directory->path, SUMS_FILE).c_str());
        rmdir(directory->path.c_str());
    }
    delete directory;
}

evidence_directory_owner make_evidence_directory(const std::string &path, std::string &error)
{
    constexpr mode_t MODE = 0777; // and the umask; nothing in it is secret
    if (mkdir(path.c_str(), MODE) != 0) {
        error = cannot("make", path);
        return nullptr;
    }
    evidence_directory_owner made(new evidence_directory{path, {nullptr, std::fclose}, {}, false});
    made->ima.reset(std::fopen(path_of(path, IMA_FILE).c_str(), "wxe"));
    if (made->ima)
        return made;
    error = cannot("write", path_of(path, IMA_FILE));
    return nullptr;
}

void save_ima_message(evidence_directory &directory, const api::NodeIMAData &message)
{
    std::string bytes;
    {
        google::protobuf::io::StringOutputStream out(&bytes);
        google::protobuf::util::SerializeDelimitedToZeroCopyStream(message, &out);
    }
    if (directory.error.empty() &&
        std::fwrite(bytes.data(), 1, bytes.size(), directory.ima.get()) != bytes.size())
        directory.error = cannot("write", path_of(directory.path, IMA_FILE));
}

bool save_evidence(evidence_directory &directory, const evidence &got, std::string &error)
{
    std::vector<const char *> saved;
    const auto save = [&](const char *name, const Message &message) {
        saved.push_back(name);
        return write_file(path_of(directory.path, name), message.SerializeAsString(), error);
    };
    const auto is_answered = [&got](const char *kind) {
        for (const arrival &row : got.arrivals)
            if (row.kind == kind)
                return row.answered;
        return false;
    };
    if (std::fclose(directory.ima.release()) != 0 && directory.error.empty())
        directory.error = cannot("write", path_of(directory.path, IMA_FILE));
    error = directory.error;
    if (!error.empty())
        return false;
    for (const auto &row : kinds_of(got))
        if ((row.request_file != nullptr && !save(row.request_file, *row.request)) ||
            (is_answered(row.kind) && !save(row.answer_file, *row.answer)))
            return false;
    if (is_answered(IMA_LOG_KIND))
        saved.push_back(IMA_FILE);
    else
        unlink(path_of(directory.path, IMA_FILE).c_str());

    std::string sums;
    for (const char *name : saved) {
        const std::string sum = sum_of(path_of(directory.path, name), error);
        if (sum.empty())
            return false;
        sums += sum + "  " + name + '\n';
    }
    directory.is_whole = write_file(path_of(directory.path, SUMS_FILE), sums, error);
    return directory.is_whole;
}

bool load_evidence(const std::string &path, const std::function<void(const api::NodeIMAData &)> &take_ima,
                   evidence &got, std::string &error)
{
    file_sums sums;
    if (!read_sums(path, sums, error) || !check_sums(path, sums, error))
        return false;
    for (const auto &row : kinds_of(got)) {
        if (row.request_file != nullptr && !read_message(path, row.request_file, *row.request, error))
            return false;
        const bool is_saved = sums.contains(row.answer_file);
        if (is_saved && !read_message(path, row.answer_file, *row.answer, error))
            return false;
        got.arrivals.push_back(is_saved ? row.row(got) : not_saved(row.kind));
    }
    if (sums.contains(IMA_FILE))
        return read_ima_log(path, take_ima, got, error);
    got.arrivals.push_back(not_saved(IMA_LOG_KIND));
    return true;
}
