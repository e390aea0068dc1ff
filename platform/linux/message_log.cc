#include "platform/message_log.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <syslog.h>

#include "platform/linux/log_sink.h"
#include "platform/operator_log.h"

namespace {

// What the message log makes of a record's state block. The first word is the length in seconds of an
// interval in which only a burst of the same message is let through: a verifier that asks again and again for
// a log that is not there must not fill the journal. The other words are the interval now running. Messages
// held back are counted, and the operator is told when holding back begins and how many they were.
enum : std::size_t { STATE_INTERVAL_S, STATE_WINDOW_START_S, STATE_COUNT, STATE_SUPPRESSED };

// More than one incident raises (a message a block of the cache that is damaged, ...), far less than a flood.
constexpr std::uint64_t BURST = 64;

// A message's id for the journal and its catalog is this and the eight digits of its code.
constexpr const char *MESSAGE_ID_BEGIN = "eecb9e8e9ee2408ebdd32457";

std::mutex state_lock;

std::uint64_t boot_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec);
}

// Whether the message may pass now.
bool admit(const message_record &record)
{
    std::uint64_t *state = record.state;
    if (state == nullptr || state[STATE_INTERVAL_S] == 0)
        return true;
    std::lock_guard guard(state_lock);
    std::uint64_t now = boot_seconds();
    if (state[STATE_COUNT] == 0 || now - state[STATE_WINDOW_START_S] >= state[STATE_INTERVAL_S]) {
        if (state[STATE_SUPPRESSED] > 0) {
            operator_log(LOG_NOTICE, "%" PRIu64 " messages %s were held back", state[STATE_SUPPRESSED],
                         record.mnemonic);
        }
        state[STATE_WINDOW_START_S] = now;
        state[STATE_COUNT] = 0;
        state[STATE_SUPPRESSED] = 0;
    }
    if (state[STATE_COUNT] < BURST) {
        ++state[STATE_COUNT];
        return true;
    }
    if (state[STATE_SUPPRESSED]++ == 0) {
        operator_log(LOG_NOTICE,
                     "more than %" PRIu64 " messages %s within %" PRIu64 " s: holding back the rest", BURST,
                     record.mnemonic, state[STATE_INTERVAL_S]);
    }
    return false;
}

} // namespace

void emit_errmsg(const message_record *record, std::uint32_t severity, const char *argument)
{
    if (!admit(*record))
        return;
    std::array<char, LOG_TEXT_MAX> text{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the record's constant format, one "%s"
    std::snprintf(text.data(), text.size(), record->format, argument);
#pragma GCC diagnostic pop
    std::array<char, 16> code{};
    std::snprintf(code.data(), code.size(), "0x%08" PRIX32, record->code);
    std::array<char, 40> id{};
    std::snprintf(id.data(), id.size(), "%s%08" PRIx32, MESSAGE_ID_BEGIN, record->code);
    std::array<char, 16> level{};
    std::snprintf(level.data(), level.size(), "%" PRIu32, severity);
    const std::array<log_field, 6> fields = {{{"MESSAGE_ID", id.data()},
                                              {"MESSAGE_FACILITY", record->facility},
                                              {"MESSAGE_MNEMONIC", record->mnemonic},
                                              {"MESSAGE_SEVERITY", level.data()},
                                              {"MESSAGE_CODE", code.data()},
                                              {"MESSAGE_PROCESS", record->process}}};
    std::array<char, 200> prefix{};
    std::snprintf(prefix.data(), prefix.size(), "%s-%s-%s %s: ", record->facility, level.data(),
                  record->mnemonic, code.data());
    log_sink_send(static_cast<int>(severity), record->process, text.data(), fields, prefix.data());
}
