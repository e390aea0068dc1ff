#include "attestctl/verify/boot_log.h"

#include <algorithm>
#include <optional>

#include "attestctl/event_types.h"
#include "attestctl/text.h"

namespace api = remote_attestation_api;

namespace {

// Data of the event that says from which locality the firmware started the TPM: this, and one byte.
constexpr std::string_view STARTUP_LOCALITY("StartupLocality\0", 16);

bool is_startup_locality(const api::BOOT_EVENT &event)
{
    return event.event_type() == event_type::NO_ACTION && event.pcr_index() == 0 &&
           event.event_data().starts_with(STARTUP_LOCALITY);
}

// 0 and 3 are those of TPM2_Startup; 4 stands for a measurement before it (H-CRTM).
bool is_locality(const std::string &data)
{
    const std::string_view value = std::string_view(data).substr(STARTUP_LOCALITY.size());
    return value.size() == 1 && (value[0] == 0 || value[0] == 3 || value[0] == 4);
}

// What is wrong with an event by itself; empty: nothing.
std::string event_problem(const api::BOOT_EVENT &event)
{
    if (!event.has_event_type() || !event.has_pcr_index())
        return "has no type or no PCR";
    if (!event.has_event_data() || event.event_size() != event.event_data().size())
        return "has not the data that it says";
    if (event.event_type() != event_type::NO_ACTION && event.pcr_index() >= PCR_COUNT)
        return format("is of PCR %u, which no TPM has", event.pcr_index());
    if (is_startup_locality(event) && !is_locality(event.event_data()))
        return "says a startup locality that there is not";
    return {};
}

finding check_events(const api::NodeBootIntegrityLog &log)
{
    if (log.events().empty())
        return failed("the log is empty");
    bool started = false;
    for (int i = 0; i < log.events_size(); ++i) {
        const api::BOOT_EVENT &event = log.events(i);
        const std::string which = "event " + grouped(static_cast<std::uint64_t>(i) + 1) + ' ';
        if (event.event_num() != static_cast<std::uint32_t>(i) + 1)
            return failed(which + "has number " + grouped(event.event_num()));
        if (std::string problem = event_problem(event); !problem.empty())
            return failed(which + problem);
        if (is_startup_locality(event) && started)
            return failed(which + "says a startup locality for the second time");
        started |= is_startup_locality(event);
    }
    return passed(counted(static_cast<std::uint64_t>(log.events_size()), "event") + ", whole and in order");
}

// The event's digest of the bank; none, or several: nullptr.
const std::string *digest_in(const api::BOOT_EVENT &event, const hash_algorithm &bank)
{
    const std::string *found = nullptr;
    for (const api::BOOT_EVENT_DIGEST &digest : event.digests()) {
        // Number 0 also stands for algorithms without a number: the length tells.
        if (!digest.has_hash_alg() || digest.hash_alg() != bank.number || digest.digest().size() != bank.size)
            continue;
        if (found != nullptr)
            return nullptr;
        found = &digest.digest();
    }
    return found;
}

// Without events.
pcr_replay reset_values(const hash_algorithm &bank)
{
    pcr_replay state;
    for (std::uint32_t i = 0; i < PCR_COUNT; ++i)
        state.values[i].assign(bank.size, static_cast<char>(pcr_reset_byte(i)));
    return state;
}

// "SHA-1, SHA-256": the banks of which the log has digests.
std::string banks_of(const api::NodeBootIntegrityLog &log)
{
    std::string out;
    for (std::uint32_t number = 0; const hash_algorithm *bank = hash_by_number(number); ++number)
        if (std::any_of(log.events().begin(), log.events().end(), [bank](const api::BOOT_EVENT &event) {
                return event.event_type() != event_type::NO_ACTION && digest_in(event, *bank) != nullptr;
            }))
            out += (out.empty() ? "" : ", ") + std::string(bank->name);
    return out.empty() ? "none" : out;
}

// What is to be said of the quoted PCRs that no event was extended into.
std::string untouched_text(const pcr_replay &replayed, const pcr_list &quoted)
{
    pcr_set initial;
    pcr_set other;
    for (std::uint32_t i = 0; i < PCR_COUNT; ++i) {
        const std::string *value = value_of(quoted, i);
        if (value != nullptr && !replayed.extended[i])
            (*value == replayed.values[i] ? initial : other).set(i);
    }
    std::string out;
    if (initial.any())
        out += "; without events and as after a reset: " + pcr_text(initial);
    if (other.any())
        out += "; extended after the log, not judged by it: " + pcr_text(other);
    return out;
}

finding check_replay(const api::NodeBootIntegrityLog &log, const pcr_list *quoted)
{
    const hash_algorithm &bank = quoted_bank();
    const pcr_replay replayed = replay(log, bank);
    if (!replayed.problem.empty())
        return failed(replayed.problem);
    if (quoted == nullptr)
        return not_made("there are no quoted values");
    pcr_set different;
    pcr_set absent;
    for (std::uint32_t i = 0; i < PCR_COUNT; ++i) {
        if (!replayed.extended[i] && !PCRS_OF_THE_LOG[i])
            continue;
        const std::string *value = value_of(*quoted, i);
        if (value == nullptr)
            absent.set(i);
        else if (*value != replayed.values[i])
            different.set(i);
    }
    if (absent.any())
        return failed("no quoted value of " + pcr_text(absent));
    if (different.any())
        return failed("does not give the quoted values of " + pcr_text(different));
    return passed("gives the quoted values of " + pcr_text(replayed.extended) + " (" + bank.name + " of " +
                  banks_of(log) + ')' + untouched_text(replayed, *quoted));
}

} // namespace

pcr_replay replay(const api::NodeBootIntegrityLog &log, const hash_algorithm &bank)
{
    pcr_replay state = reset_values(bank);
    const auto begin = std::find_if(log.events().begin(), log.events().end(), is_startup_locality);
    if (begin != log.events().end() && is_locality(begin->event_data()))
        state.values[0].back() = begin->event_data().back();
    std::uint64_t position = 0;
    for (const api::BOOT_EVENT &event : log.events()) {
        ++position;
        if (event.event_type() == event_type::NO_ACTION)
            continue;
        const std::string *digest = digest_in(event, bank);
        if (digest == nullptr || event.pcr_index() >= PCR_COUNT) {
            state.problem = "event " + grouped(position) + " has not one " + bank.name +
                            " digest and a PCR to extend (the log's banks: " + banks_of(log) + ')';
            return state;
        }
        std::string &value = state.values[event.pcr_index()];
        value = digest_of(bank, {value, *digest});
        state.extended.set(event.pcr_index());
    }
    if (state.extended.none())
        state.problem = std::string("no event was extended into a PCR of bank ") + bank.name;
    return state;
}

void check_boot_log(check_list &list, const api::NodeBootIntegrityLog &log, const pcr_list *quoted)
{
    add(list, "boot log events", check_events(log));
    add(list, "boot log replay", check_replay(log, quoted));
}
