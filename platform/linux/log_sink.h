// Where the platform's log entries go: the journal, or stderr where there is none.
#pragma once

#include <cstddef>
#include <span>

// Longer texts are cut.
inline constexpr std::size_t LOG_TEXT_MAX = 2048;

struct log_field {
    const char *name;
    const char *value;
};

// Sends one entry, without allocating. `fields` are journal fields beside PRIORITY, SYSLOG_IDENTIFIER and
// MESSAGE; where there is no journal one line "IDENTIFIER: stderr_prefix text" goes to stderr instead,
// control characters of the text as \xNN so that an entry stays a line. Trailing newlines of `text` are not
// sent.
void log_sink_send(int priority, const char *identifier, const char *text, std::span<const log_field> fields,
                   const char *stderr_prefix);
