#include "platform/linux/log_sink.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace {

constexpr const char *JOURNAL_SOCKET = "/run/systemd/journal/socket";

// The "NAME=value" texts of one entry, as the journal takes them. What does not fit is cut or left out.
class journal_entry {
public:
    void add(const char *name, std::string_view value)
    {
        std::span<char> room = std::span(text_).subspan(used_);
        if (count_ == parts_.size() || room.size() < 2)
            return;
        int wanted = std::snprintf(room.data(), room.size(), "%s=%.*s", name, static_cast<int>(value.size()),
                                   value.data());
        std::size_t length = std::min(static_cast<std::size_t>(std::max(wanted, 0)), room.size() - 1);
        parts_[count_++] = {room.data(), length};
        used_ += length;
    }

    // False when there is no journal: the library takes a missing one for success, so its socket is looked
    // for.
    bool send()
    {
        return access(JOURNAL_SOCKET, F_OK) == 0 &&
               sd_journal_sendv(parts_.data(), static_cast<int>(count_)) >= 0;
    }

private:
    std::array<char, LOG_TEXT_MAX + 1024> text_{};
    std::array<iovec, 12> parts_{};
    std::size_t used_ = 0;
    std::size_t count_ = 0;
};

// One write a line, so that lines of several processes on one stderr do not mix.
void print_line(const char *identifier, const char *prefix, std::string_view text)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::array<char, 4 * LOG_TEXT_MAX + 512> line{};
    int head = std::snprintf(line.data(), 500, "%s: %s", identifier, prefix);
    std::size_t used = static_cast<std::size_t>(std::clamp(head, 0, 499));
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7F) {
            line[used++] = c;
            continue;
        }
        for (char part : {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]})
            line[used++] = part;
    }
    line[used++] = '\n';
    std::fwrite(line.data(), 1, used, stderr);
}

} // namespace

void log_sink_send(int priority, const char *identifier, const char *text, std::span<const log_field> fields,
                   const char *stderr_prefix)
{
    std::string_view message = std::string_view(text).substr(0, LOG_TEXT_MAX);
    message = message.substr(0, message.find_last_not_of('\n') + 1);
    const std::array<char, 2> level = {static_cast<char>('0' + std::clamp(priority, 0, 7)), '\0'};
    journal_entry entry;
    entry.add("PRIORITY", level.data());
    entry.add("SYSLOG_IDENTIFIER", identifier);
    for (const log_field &field : fields)
        entry.add(field.name, field.value);
    entry.add("MESSAGE", message);
    if (!entry.send())
        print_line(identifier, stderr_prefix, message);
}
