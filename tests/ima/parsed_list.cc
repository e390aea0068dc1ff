#include "tests/ima/parsed_list.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

list_file::list_file(std::string_view bytes) : file(memfd_create("list", MFD_CLOEXEC))
{
    while (!bytes.empty()) {
        ssize_t written = write(file.get(), bytes.data(), bytes.size());
        if (written <= 0)
            throw std::runtime_error("no memory for a list");
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string list_file::path() const
{
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.get());
}

parsed_list::parsed_list(const list_file &file)
{
    ima_log log;
    EXPECT_EQ(ima_log_open(log, file.path().c_str()), 0);
    while (end == ima_record_outcome::read) {
        IMA_EVENT event{};
        end = at_read_ima_record(log, events.size(), &event, &status);
        event.event_num = events.size() + 1;
        if (end != ima_record_outcome::end_of_log)
            events.push_back(event);
    }
}

parsed_list::~parsed_list()
{
    for (IMA_EVENT &event : events)
        message_release(event);
}

namespace {

std::string hex(const message_bytes &bytes)
{
    std::string text;
    for (std::uint8_t byte : std::span(bytes.data, bytes.length)) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

} // namespace

std::string parsed_list::listing(bool only_named_signatures) const
{
    std::string text;
    for (const IMA_EVENT &event : events) {
        std::string name = event.template_name;
        text += std::to_string(event.pcr) + " " + hex(event.template_hash) + " " + name + " ";
        if (name != "ima")
            text += std::string(event.digest_algo) + ":";
        text += hex(event.digest) + " " + event.event_name;
        bool shows_signature = !only_named_signatures || name == "ima-sig";
        if (shows_signature && (event.present & IMA_EVENT::has_signature) != 0)
            text += " " + hex(event.signature);
        text += "\n";
    }
    return text;
}

std::string file_bytes(const std::string &path)
{
    std::stringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

std::string text_of(const message_bytes &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data), bytes.length};
}
