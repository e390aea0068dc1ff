#include "agent/metrics.h"

#include <string>

#include "agent/status.h"
#include "platform/metrics.h"

namespace {

constexpr metric_family source_failures = {metric_kind::counter,
                                           "attest_source_failures_total",
                                           "Sources that gave no evidence, by the agent's status code.",
                                           {"operation", "source", "code"}};
constexpr metric_family empty_answers = {metric_kind::counter,
                                         "attest_answers_without_evidence_total",
                                         "Answers to which no source gave anything.",
                                         {"operation"}};
constexpr metric_family bmc_errors = {
    metric_kind::counter,
    "attest_bmc_errors_total",
    "Transfers with the management controller that failed, by libcurl's code.",
    {"code"}};
constexpr metric_family list_events = {metric_kind::gauge,
                                       "attest_ima_list_events",
                                       "Events in the kernel's IMA list when it was last read to its end.",
                                       {}};
constexpr metric_family system_messages = {metric_kind::counter,
                                           "attest_system_messages_total",
                                           "System messages raised, also those held back.",
                                           {"mnemonic"}};

} // namespace

void count_source(const char *operation, const char *source, std::uint32_t status)
{
    if (status == ATTEST_OK || !metrics_wanted())
        return;
    const bool own = status <= ATTEST_ERR_FLOW_PAUSED;
    metric_add(source_failures, {operation, source, own ? std::to_string(status) : std::string("other")});
}

void count_empty_answer(const char *operation)
{
    metric_add(empty_answers, {operation});
}

void count_bmc_error(int code)
{
    if (metrics_wanted())
        metric_add(bmc_errors, {std::to_string(code)});
}

void note_list_length(std::uint64_t events)
{
    metric_set(list_events, {}, static_cast<double>(events));
}

void count_system_message(const char *mnemonic)
{
    metric_add(system_messages, {mnemonic});
}
