// How a request is answered: by the one rule of the four operations with a local source and the BMC, and what
// the operations with a nonce share.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "agent/debug_trace.h"
#include "agent/metrics.h"
#include "agent/status.h"
#include "platform/remote_attestation_api.h"

// Longest nonce that a handler echoes, and so the longest that a source is asked with.
inline constexpr std::size_t MAX_NONCE_SIZE = 64;

// The copy of a request's nonce that a response points to; it lives as long as the handler runs.
using nonce_buffer = std::array<std::uint8_t, MAX_NONCE_SIZE>;

// Copies the request's nonce and makes the response echo it; an empty one only where `echo_empty`. False when
// the nonce is too long: the response then has none, and no source may be asked.
template <class Request, class Response>
bool echo_nonce(const Request &request, Response &response, nonce_buffer &copy, bool echo_empty)
{
    if ((request.present & Request::has_nonce) == 0)
        return true;
    if (request.nonce.length > copy.size())
        return false;
    if (request.nonce.length == 0 && !echo_empty)
        return true;
    if (request.nonce.length != 0)
        std::memcpy(copy.data(), request.nonce.data, request.nonce.length);
    response.nonce = {copy.data(), request.nonce.length};
    response.present |= Response::has_nonce;
    return true;
}

// An operation answered from the node and the BMC, and nothing else.
template <class Request, class Record, class Response>
struct two_source_operation {
    const char *name;
    const char *method;  // as the contract names it
    bool traces_no_data; // whether an answer without evidence is traced
    std::uint32_t (*ask_bmc)(const Request *, Record *);
    std::uint32_t (*ask_local)(const Request *, Record *, remote_attestation_api_client,
                               std::uint32_t request_id);
    std::int32_t (*send)(remote_attestation_api_client, const Response *, int last, std::uint32_t rpc_status,
                         std::uint32_t request_id);
};

inline void trace_no_data(const char *operation, std::uint32_t status)
{
    attest_trace_as(operation, "No data available %s", status_strerror(status));
}

// The rule: the BMC is asked, then the node; the node's record comes first. `response` holds what the
// operation itself has put into it.
template <class Request, class Record, class Response>
void answer_from_two_sources(const two_source_operation<Request, Record, Response> &operation,
                             remote_attestation_api_client client, const Request *request,
                             std::uint32_t request_id, Response &response)
{
    Record records[2] = {}; // the node's, the BMC's
    std::uint32_t bmc_status = operation.ask_bmc(request, &records[1]);
    bool bmc_answered = bmc_status == ATTEST_OK;
    std::uint32_t local_status = operation.ask_local(request, &records[0], client, request_id);
    bool local_answered = local_status == ATTEST_OK;
    count_source(operation.method, SOURCE_BMC, bmc_status);
    count_source(operation.method, SOURCE_NODE, local_status);

    if (local_answered || bmc_answered) {
        std::uint32_t count = local_answered && bmc_answered ? 2 : 1;
        response.node_data = {local_answered ? &records[0] : &records[1], count};
        response.present |= Response::has_node_data;
    } else {
        count_empty_answer(operation.method);
        if (operation.traces_no_data)
            trace_no_data(operation.name, local_status);
    }
    operation.send(client, &response, 1, 0, request_id);
    // A source that failed has left its record empty, but for a list that memory did not suffice for.
    for (Record &record : records)
        message_release(record);
}
