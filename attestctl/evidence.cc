#include "attestctl/evidence.h"

#include <algorithm>
#include <array>
#include <span>

#include "attestctl/certificate_names.h"
#include "attestctl/nonce.h"
#include "attestctl/state.h"
#include "attestctl/text.h"
#include "attestctl/verify/ima_list.h"
#include "attestctl/verify/pcr_set.h"

namespace {

constexpr const char *NO_NONCE = "no random bytes for a nonce";
constexpr const char *NO_EVIDENCE = "the node answered without evidence";

template <typename List>
std::size_t length_of(const List &list)
{
    return static_cast<std::size_t>(list.size());
}

std::string content(const api::SystemCertificates &record)
{
    return counted(length_of(record.certs()), "certificate") +
           (record.has_signature() ? " and a signature" : " without a signature");
}

std::string content(const api::NodePCRData &record)
{
    return counted(length_of(record.pcrs()), "PCR value") +
           (record.has_quote() ? " and a quote" : " without a quote");
}

std::string content(const api::NodeBootIntegrityLog &record)
{
    return counted(length_of(record.events()), "event");
}

std::string content(const api::tpm_hw_integrity &record)
{
    return counted(length_of(record.uid_digests_db1()), "digest") +
           (record.has_quote() ? " and a quote" : " without a quote");
}

template <typename Answer>
arrival row_of(const char *kind, const Answer &answer)
{
    std::string text;
    const std::size_t sources = length_of(answer.node_data());
    for (std::size_t i = 0; i < std::min(sources, MOST_SOURCES); ++i) {
        const auto &record = answer.node_data(static_cast<int>(i));
        text += (text.empty() ? "" : "; ") + printable(record.node_name(), 64) + ": " + content(record);
    }
    if (sources > MOST_SOURCES)
        text += "; and " + grouped(sources - MOST_SOURCES) + " more";
    return {kind, sources > 0, sources, sources > 0 ? text : NO_EVIDENCE};
}

arrival failed(const char *kind, const ask_result &result)
{
    return {kind, false, 0, result.text, false};
}

// Whether asking on makes sense after this result.
bool goes_on(const ask_result &result)
{
    return result.status == ask_status::answered || result.status == ask_status::failed;
}

template <typename Request, typename Answer>
ask_result fetch(client &c, const char *kind, const Request &request, Answer &answer, evidence &into)
{
    ask_result result = ask(c, request, answer);
    into.arrivals.push_back(result.status == ask_status::answered ? row_of(kind, answer)
                                                                  : failed(kind, result));
    return result;
}

bool is_too_late(const evidence &into)
{
    return into.deadline && std::chrono::steady_clock::now() >= *into.deadline;
}

ask_result stream_ima_log(client &c, const evidence &into, const message_taker &take, ima_arrival &state)
{
    api::get_platform_ima_event_logs_request request;
    if (into.start.asked_after != 0)
        request.set_start_event(into.start.asked_after);
    const message_taker count = [&](const api::NodeIMAData &message) {
        note_message(state, message);
        return take(message);
    };
    ask_result result = ask_stream(c, request, count, [&into] { return is_too_late(into); });
    if (result.status == ask_status::stopped && is_too_late(into))
        return {ask_status::timed_out, "the IMA list did not come to an end in time"};
    return result;
}

// Why the list is taken from its begin.
std::string break_of(const ima_list &list, std::uint64_t asked_after)
{
    const std::string verified = grouped(list.begun_after) + ", up to which it was verified before";
    if (!list.begun && list.begun_after < asked_after) // nothing came at all
        return "what follows event " + verified + ", was not asked for, only what follows event " +
               grouped(asked_after);
    return "it does not go on from event " + verified;
}

// Takes back the lists that do not lead from where they were asked for to the quote, and gives their names.
std::vector<std::string> take_back_broken_lists(evidence &into)
{
    std::vector<std::string> broken;
    for (const ima_list &list : into.ima_lists) {
        if (is_continued(list))
            continue;
        broken.push_back(list.source);
        if (into.start.positions.erase(list.source) != 0)
            into.start.notes[list.source] = break_of(list, into.start.asked_after);
    }
    std::erase_if(into.ima_lists, [](const ima_list &list) { return !is_continued(list); });
    into.start.asked_after = 0;
    return broken;
}

// Asks for the broken lists from their begin, and for no more of the stream than they need.
ask_result fetch_anew(client &c, const message_taker &take, const std::vector<std::string> &broken,
                      evidence &into, ima_arrival &state)
{
    std::vector<std::string> waited_for = broken;
    const message_taker take_broken = [&](const api::NodeIMAData &message) {
        std::erase(waited_for, message.node_name());
        if (std::find(broken.begin(), broken.end(), message.node_name()) != broken.end())
            return take(message);
        return !waited_for.empty() || !message.has_node_name();
    };
    ask_result result = stream_ima_log(c, into, take_broken, state);
    return result.status == ask_status::stopped ? ask_result{} : result;
}

ask_result fetch_ima_log(client &c, const message_taker &take, evidence &into)
{
    into.start = start_after(into.remembered, into);
    ima_arrival state;
    ask_result result = stream_ima_log(c, into, take, state);
    if (result.status == ask_status::answered && into.start.asked_after != 0 && !state.cut_short)
        if (const std::vector<std::string> broken = take_back_broken_lists(into); !broken.empty())
            result = fetch_anew(c, take, broken, into, state);
    into.arrivals.push_back(result.status == ask_status::answered ? arrival_of(state)
                                                                  : failed(IMA_LOG_KIND, result));
    return result;
}

ask_result fetch_certificates(client &c, const char *kind, const char *name,
                              api::get_certificate_request &request, api::get_certificate_response &answer,
                              evidence &into)
{
    request.set_cert_name(name);
    if (fresh_nonce(*request.mutable_nonce()))
        return fetch(c, kind, request, answer, into);
    ask_result result{ask_status::failed, NO_NONCE};
    into.arrivals.push_back(failed(kind, result));
    return result;
}

ask_result fetch_identity(client &c, evidence &into)
{
    return fetch_certificates(c, IDENTITY_KIND, IDENTITY_NAME, into.identity_request, into.identity, into);
}

ask_result fetch_attestation_key(client &c, evidence &into)
{
    return fetch_certificates(c, ATTESTATION_KEY_KIND, ATTESTATION_KEY_NAME, into.attestation_key_request,
                              into.attestation_key, into);
}

// Takes the steps until one says that asking on makes no sense, or the time is over.
ask_result take_steps(client &c, std::span<const std::function<ask_result()>> steps, const evidence &into)
{
    for (const auto &step : steps) {
        if (is_too_late(into))
            return {ask_status::timed_out, "the node did not come to an end in time"};
        if (into.deadline)
            wait_until(c, *into.deadline);
        if (ask_result result = step(); !goes_on(result))
            return result;
    }
    return {};
}

} // namespace

arrival arrival_of(const char *kind, const api::get_certificate_response &answer)
{
    return row_of(kind, answer);
}

arrival arrival_of(const char *kind, const api::attest_pcr_response &answer)
{
    return row_of(kind, answer);
}

arrival arrival_of(const char *kind, const api::get_platform_boot_integrity_event_logs_response &answer)
{
    return row_of(kind, answer);
}

arrival arrival_of(const char *kind, const api::get_platform_hw_integrity_response &answer)
{
    return row_of(kind, answer);
}

void note_message(ima_arrival &state, const api::NodeIMAData &message)
{
    state.events += length_of(message.events());
    state.cut_short = !message.has_node_name();
    if (message.has_node_name() && state.nodes.size() <= MOST_SOURCES &&
        std::find(state.nodes.begin(), state.nodes.end(), message.node_name()) == state.nodes.end())
        state.nodes.push_back(message.node_name());
}

arrival arrival_of(const ima_arrival &state)
{
    arrival row{IMA_LOG_KIND, !state.nodes.empty() && !state.cut_short, state.nodes.size(),
                counted(state.events, "event")};
    if (state.nodes.empty())
        row.text = NO_EVIDENCE;
    else if (state.cut_short)
        row.text += ", then the node ended the stream early";
    return row;
}

ask_result fetch_evidence(client &c, const message_taker &take_ima, evidence &into)
{
    for (std::uint32_t i = 0; i < PCR_COUNT; ++i)
        into.pcrs_request.add_pcr_indices(i);
    for (std::string *nonce : {into.pcrs_request.mutable_nonce(), into.hw_integrity_request.mutable_nonce()})
        if (!fresh_nonce(*nonce))
            return {ask_status::failed, NO_NONCE};
    const api::get_platform_boot_integrity_event_logs_request no_choice;

    const std::array<std::function<ask_result()>, 6> steps = {
        [&] { return fetch_identity(c, into); },
        [&] { return fetch_attestation_key(c, into); },
        [&] { return fetch(c, PCRS_KIND, into.pcrs_request, into.pcrs, into); },
        [&] { return fetch(c, BOOT_LOG_KIND, no_choice, into.boot_log, into); },
        [&] { return fetch_ima_log(c, take_ima, into); },
        [&] { return fetch(c, HW_INTEGRITY_KIND, into.hw_integrity_request, into.hw_integrity, into); },
    };
    return take_steps(c, steps, into);
}

ask_result fetch_signers(client &c, bool attestation_key_too, evidence &into)
{
    std::vector<std::function<ask_result()>> steps;
    if (!into.identity_request.has_nonce())
        steps.emplace_back([&] { return fetch_identity(c, into); });
    if (attestation_key_too && !into.attestation_key_request.has_nonce())
        steps.emplace_back([&] { return fetch_attestation_key(c, into); });
    return take_steps(c, steps, into);
}
