#include "tools/bmc_simulator/blob_call.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <nlohmann/json.hpp>

#include "platform/messages.h"
#include "tools/bmc_simulator/base64.h"

namespace {

constexpr std::size_t NODE_NAME_LONGEST = 31;

std::span<const std::byte> bytes_of(const std::string &text)
{
    return std::as_bytes(std::span(text));
}

template <class Request, class Response>
std::string answer(const std::string &method, const std::string &request, evidence_node &node,
                   std::string &record)
{
    owned_message<Request> asked;
    if (!message_decode(bytes_of(request), *asked))
        return "the request cannot be decoded";
    std::string encoded;
    if (std::string problem = node.ask(method, request, encoded); !problem.empty())
        return problem;
    owned_message<Response> response;
    if (!message_decode(bytes_of(encoded), *response))
        return "the evidence cannot be decoded";
    if ((response->present & Response::has_node_data) == 0 || response->node_data.count == 0)
        return "No evidence";
    const auto &first = response->node_data.items[0];
    const std::int64_t size = message_encoded_size(first);
    if (size < 0)
        return "the evidence cannot be encoded";
    record.resize(static_cast<std::size_t>(size));
    message_encode(first, std::as_writable_bytes(std::span(record)));
    return {};
}

struct operation_row {
    unsigned number;
    const char *method;
    std::string (*answer)(const std::string &method, const std::string &request, evidence_node &node,
                          std::string &record);
};

constexpr auto OPERATIONS = std::to_array<operation_row>({
    {1, "/remote_attestation_api.RemoteAttestationApi/GetPlatformBootIntegrityEventLogs",
     answer<get_platform_boot_integrity_event_logs_request, get_platform_boot_integrity_event_logs_response>},
    {2, "/remote_attestation_api.RemoteAttestationApi/AttestPcrs",
     answer<attest_pcr_request, attest_pcr_response>},
    {3, "/remote_attestation_api.RemoteAttestationApi/GetPlatformImaEventLogs",
     answer<get_platform_ima_event_logs_request, get_platform_ima_event_logs_response>},
    {4, "/remote_attestation_api.RemoteAttestationApi/GetCertificate",
     answer<get_certificate_request, get_certificate_response>},
    {5, "/remote_attestation_api.RemoteAttestationApi/GetPlatformHwIntegrity",
     answer<get_platform_hw_integrity_request, get_platform_hw_integrity_response>},
});

const operation_row *find_operation(unsigned number)
{
    const auto *row =
        std::find_if(OPERATIONS.begin(), OPERATIONS.end(),
                     [number](const operation_row &candidate) { return candidate.number == number; });
    return row == OPERATIONS.end() ? nullptr : row;
}

bool read_operation(const std::string &text, unsigned &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && std::to_string(number) == text &&
           find_operation(number) != nullptr;
}

bool is_node_name(const std::string &text)
{
    return !text.empty() && text.size() <= NODE_NAME_LONGEST &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

} // namespace

std::string read_blob_call(const std::string &body, blob_call &call)
{
    const nlohmann::json object = nlohmann::json::parse(body, nullptr, false);
    if (!object.is_object() || object.size() != 1 || !object.contains("data"))
        return "the body is no object of data alone";
    const nlohmann::json &data = object["data"];
    if (!data.is_array() || data.size() != 3 ||
        !std::all_of(data.begin(), data.end(), [](const nlohmann::json &item) { return item.is_string(); }))
        return "data is no array of three strings";
    if (!read_operation(data[0].get<std::string>(), call.operation))
        return "no such operation";
    call.node_name = data[1].get<std::string>();
    if (!is_node_name(call.node_name))
        return "not a node name";
    return base64_bytes(data[2].get<std::string>(), call.request) ? "" : "the request is no base64";
}

std::string answer_blob_call(const blob_call &call, evidence_node &node, std::string &record)
{
    const operation_row *row = find_operation(call.operation);
    return row == nullptr ? "no such operation" : row->answer(row->method, call.request, node, record);
}
