#include "attestctl/client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <google/protobuf/stubs/logging.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/support/proto_buffer_reader.h>

#include "api/remote_attestation_api.grpc.pb.h"
#include "attestctl/small_file.h"
#include "attestctl/text.h"

using std::chrono::milliseconds;
using std::chrono::system_clock;

struct client {
    std::string target;
    milliseconds timeout;
    bool shows_certificate;
    std::shared_ptr<grpc::Channel> channel;
    std::unique_ptr<api::RemoteAttestationApi::Stub> stub;
};

void client_deleter::operator()(client *c) const noexcept
{
    delete c;
}

namespace {

// A node is one hop away: one that does not complete a connection within this time is taken as down.
constexpr milliseconds CONNECT_LIMIT{5000};

// How often a waiting stream looks whether it shall stop.
constexpr milliseconds GLANCE{100};

// What the node may send ahead of what has been read. gRPC's own estimate of a fast connection keeps growing
// while the reader is the slow side, and memory with it.
constexpr int LOOKAHEAD_BYTES = 4 << 20;

bool read_pem(const std::string &path, std::string &text, std::string &error)
{
    if (!read_small_file(path, text, error))
        return false;
    if (text.find("-----BEGIN ") == std::string::npos)
        error = printable(path) + " is no PEM file";
    return error.empty();
}

std::shared_ptr<grpc::ChannelCredentials> make_credentials(const settings &chosen, std::string &error)
{
    if (chosen.ca_file.empty())
        return grpc::InsecureChannelCredentials();
    grpc::SslCredentialsOptions tls;
    if (!read_pem(chosen.ca_file, tls.pem_root_certs, error) ||
        !read_pem(chosen.cert_file, tls.pem_cert_chain, error) ||
        !read_pem(chosen.key_file, tls.pem_private_key, error))
        return nullptr;
    return grpc::SslCredentials(tls);
}

const char *code_name(grpc::StatusCode code)
{
    static constexpr std::array<const char *, 17> NAMES = {
        "OK",        "CANCELLED",      "UNKNOWN",           "INVALID_ARGUMENT",   "DEADLINE_EXCEEDED",
        "NOT_FOUND", "ALREADY_EXISTS", "PERMISSION_DENIED", "RESOURCE_EXHAUSTED", "FAILED_PRECONDITION",
        "ABORTED",   "OUT_OF_RANGE",   "UNIMPLEMENTED",     "INTERNAL",           "UNAVAILABLE",
        "DATA_LOSS", "UNAUTHENTICATED"};
    return code >= 0 && static_cast<std::size_t>(code) < NAMES.size() ? NAMES[code] : "unknown status";
}

std::string seconds_text(milliseconds time)
{
    return format("%g s", static_cast<double>(time.count()) / 1000);
}

ask_result unreachable(const client &c, const std::string &reason)
{
    return {ask_status::unreachable, "cannot reach " + c.target + ": " + reason};
}

// The reason inside gRPC's words about why no connection came about.
std::string connect_reason(const std::string &message)
{
    static constexpr std::string_view MARK = "last error: ";
    const std::size_t at = message.find(MARK);
    std::string_view reason = message;
    if (at != std::string::npos)
        reason.remove_prefix(at + MARK.size());
    if (reason.starts_with("UNKNOWN: "))
        reason.remove_prefix(std::strlen("UNKNOWN: "));
    return reason.empty() ? "no reason given" : printable(reason, 300);
}

// A node that does not accept a certificate ends the connection; its reason comes too late for gRPC to see
// it.
bool is_cut_short(const std::string &reason)
{
    return reason.ends_with("Socket closed") || reason.ends_with("Connection reset by peer");
}

// Waits until the connection stands or has failed. `connected` stays false when it failed: then the call that
// comes next fails at once and has the reason.
ask_result connect(client &c, bool &connected)
{
    const milliseconds limit = std::min(CONNECT_LIMIT, c.timeout);
    const auto until = system_clock::now() + limit;
    for (;;) {
        const grpc_connectivity_state state = c.channel->GetState(true);
        connected = state == GRPC_CHANNEL_READY;
        if (connected || state == GRPC_CHANNEL_TRANSIENT_FAILURE || state == GRPC_CHANNEL_SHUTDOWN)
            return {};
        if (!c.channel->WaitForStateChange(state, until))
            return unreachable(c, "no connection within " + seconds_text(limit) +
                                      ": it is down, or busy; ask again");
    }
}

constexpr std::string_view NO_MESSAGE = "the answer is no message of the expected type";

ask_result call_result(const client &c, bool connected, const grpc::Status &status)
{
    if (status.ok())
        return {};
    if (!connected && status.error_code() == grpc::StatusCode::UNAVAILABLE) {
        const std::string reason = connect_reason(status.error_message());
        const bool refused = c.shows_certificate && is_cut_short(reason);
        return unreachable(c,
                           reason + (refused ? "; the node may not accept the certificate of --cert" : ""));
    }
    const std::string head = c.target + ": " + code_name(status.error_code()) + ": ";
    // gRPC's own words for this one do not say more than its name.
    if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED)
        return {ask_status::timed_out, head + "no answer within " + seconds_text(c.timeout)};
    // What gRPC makes of an answer that cannot be parsed.
    if (status.error_message() == "No message returned for unary request")
        return {ask_status::failed, c.target + ": " + std::string(NO_MESSAGE)};
    return {ask_status::failed, head + printable(status.error_message())};
}

template <typename Request, typename Answer>
using one_shot = grpc::Status (api::RemoteAttestationApi::Stub::*)(grpc::ClientContext *, const Request &,
                                                                   Answer *);

template <typename Request, typename Answer>
ask_result ask_once(client &c, one_shot<Request, Answer> method, const Request &request, Answer &answer)
{
    bool connected = false;
    if (ask_result result = connect(c, connected); result.status != ask_status::answered)
        return result;
    grpc::ClientContext context;
    context.set_deadline(system_clock::now() + c.timeout);
    ask_result result = call_result(c, connected, ((*c.stub).*method)(&context, request, &answer));
    if (result.status != ask_status::answered)
        answer.Clear();
    return result;
}

constexpr const char *STREAM_METHOD =
    "/remote_attestation_api.RemoteAttestationApi/StreamPlatformImaEventLogs";

enum class stream_state {
    going_on,
    ended, // by the node
    garbage,
    timed_out,
    stopped,
};

// One stream. Messages come as bytes and are parsed here: the generated reader takes one that it cannot parse
// for the end of the stream, and a list that ends there would look whole.
struct stream_call {
    const client &c;
    const std::function<bool()> &wants_to_stop;
    grpc::ClientContext context;
    grpc::CompletionQueue queue;
    std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call;
    grpc::ByteBuffer received; // a read may be under way into it until the queue has been drained
    grpc::Status status;
};

// Waits for the end of the one operation that is under way.
stream_state wait_for_event(stream_call &s)
{
    const auto until = system_clock::now() + s.c.timeout;
    for (;;) {
        void *tag = nullptr;
        bool ok = false;
        const auto next = std::min(until, system_clock::now() + GLANCE);
        if (s.queue.AsyncNext(&tag, &ok, next) == grpc::CompletionQueue::GOT_EVENT)
            return ok ? stream_state::going_on : stream_state::ended;
        if (s.wants_to_stop())
            return stream_state::stopped;
        if (system_clock::now() >= until)
            return stream_state::timed_out;
    }
}

stream_state send_request(stream_call &s, const api::get_platform_ima_event_logs_request &request)
{
    const grpc::Slice bytes(request.SerializeAsString());
    const grpc::ByteBuffer buffer(&bytes, 1);
    s.call->StartCall(nullptr);
    if (const stream_state state = wait_for_event(s); state != stream_state::going_on)
        return state;
    s.call->WriteLast(buffer, grpc::WriteOptions(), nullptr);
    return wait_for_event(s);
}

stream_state take_message(stream_call &s, api::NodeIMAData &message, const message_taker &take)
{
    if (s.wants_to_stop())
        return stream_state::stopped;
    s.call->Read(&s.received, nullptr);
    if (const stream_state state = wait_for_event(s); state != stream_state::going_on)
        return state;
    grpc::ProtoBufferReader bytes(&s.received);
    if (!bytes.status().ok() || !message.ParseFromZeroCopyStream(&bytes))
        return stream_state::garbage;
    s.received.Clear();
    return take(message) ? stream_state::going_on : stream_state::stopped;
}

// Fetches the status of a stream that the node ended, cancels any other, and waits until nothing is under
// way.
stream_state finish(stream_call &s, stream_state state)
{
    if (state == stream_state::ended) {
        s.call->Finish(&s.status, nullptr);
        if (const stream_state end = wait_for_event(s); end != stream_state::going_on)
            state = end;
    }
    if (state != stream_state::ended)
        s.context.TryCancel(); // whatever is under way then ends at once
    s.queue.Shutdown();
    void *tag = nullptr;
    bool ok = false;
    while (s.queue.Next(&tag, &ok)) {
    }
    return state;
}

// All but IMA lists are small: 4096 identifiers twice, by SHA-512, are half a megabyte, and firmware gives
// its boot log 64 KiB to 1 MiB. A message of empty records takes fifty times its bytes here.
constexpr const char *SMALL_ANSWERS = R"({"methodConfig": [{"name": [
    {"service": "remote_attestation_api.RemoteAttestationApi", "method": "GetCertificate"},
    {"service": "remote_attestation_api.RemoteAttestationApi", "method": "AttestPcrs"},
    {"service": "remote_attestation_api.RemoteAttestationApi", "method": "GetPlatformHwIntegrity"}],
    "maxResponseMessageBytes": 4194304}, {"name": [
    {"service": "remote_attestation_api.RemoteAttestationApi", "method": "GetPlatformBootIntegrityEventLogs"}],
    "maxResponseMessageBytes": 16777216}]})";

// Log lines of the libraries would stand between ours; what they say is in the status of the call.
void silence_libraries()
{
    setenv("GRPC_VERBOSITY", "NONE", 0);
    google::protobuf::SetLogHandler(nullptr);
}

} // namespace

void wait_until(client &c, std::chrono::steady_clock::time_point latest)
{
    const auto left = std::chrono::ceil<milliseconds>(latest - std::chrono::steady_clock::now());
    c.timeout = std::clamp(left, milliseconds(1), c.timeout);
}

client_owner make_client(const settings &chosen, std::string &error)
{
    static std::once_flag silenced;
    std::call_once(silenced, silence_libraries);
    const std::shared_ptr<grpc::ChannelCredentials> credentials = make_credentials(chosen, error);
    if (!credentials)
        return nullptr;
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(chosen.largest_answer);
    // Nodes stand on an internal network: evidence does not travel through whatever proxy the user's shell
    // names.
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    // What is unfolded is held to no size: a compressed answer could be a thousand times as large.
    arguments.SetInt(GRPC_COMPRESSION_CHANNEL_ENABLED_ALGORITHMS_BITSET, 1 << GRPC_COMPRESS_NONE);
    arguments.SetInt(GRPC_ARG_ENABLE_PER_MESSAGE_DECOMPRESSION, 0);
    arguments.SetServiceConfigJSON(SMALL_ANSWERS);
    arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    arguments.SetInt(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, LOOKAHEAD_BYTES);
    if (!chosen.server_name.empty())
        arguments.SetSslTargetNameOverride(chosen.server_name);

    client_owner c(new client{chosen.target, chosen.timeout, !chosen.cert_file.empty(), nullptr, nullptr});
    c->channel = grpc::CreateCustomChannel("dns:///" + chosen.target, credentials, arguments);
    c->stub = api::RemoteAttestationApi::NewStub(c->channel);
    return c;
}

ask_result ask(client &c, const api::get_certificate_request &request, api::get_certificate_response &answer)
{
    return ask_once(c, &api::RemoteAttestationApi::Stub::GetCertificate, request, answer);
}

ask_result ask(client &c, const api::attest_pcr_request &request, api::attest_pcr_response &answer)
{
    return ask_once(c, &api::RemoteAttestationApi::Stub::AttestPcrs, request, answer);
}

ask_result ask(client &c, const api::get_platform_boot_integrity_event_logs_request &request,
               api::get_platform_boot_integrity_event_logs_response &answer)
{
    return ask_once(c, &api::RemoteAttestationApi::Stub::GetPlatformBootIntegrityEventLogs, request, answer);
}

ask_result ask(client &c, const api::get_platform_hw_integrity_request &request,
               api::get_platform_hw_integrity_response &answer)
{
    return ask_once(c, &api::RemoteAttestationApi::Stub::GetPlatformHwIntegrity, request, answer);
}

ask_result ask(client &c, const api::get_platform_ima_event_logs_request &request,
               api::get_platform_ima_event_logs_response &answer)
{
    return ask_once(c, &api::RemoteAttestationApi::Stub::GetPlatformImaEventLogs, request, answer);
}

ask_result ask_stream(client &c, const api::get_platform_ima_event_logs_request &request,
                      const message_taker &take, const std::function<bool()> &wants_to_stop)
{
    bool connected = false;
    if (ask_result result = connect(c, connected); result.status != ask_status::answered)
        return result;

    stream_call s{c, wants_to_stop, {}, {}, nullptr, {}, {}};
    grpc::GenericStub stub(c.channel);
    s.call = stub.PrepareCall(&s.context, STREAM_METHOD, &s.queue);
    api::NodeIMAData message;
    stream_state state = send_request(s, request);
    while (state == stream_state::going_on)
        state = take_message(s, message, take);

    switch (finish(s, state)) {
    case stream_state::stopped:
        return {ask_status::stopped, {}};
    case stream_state::timed_out:
        return {ask_status::timed_out, c.target + ": no message within " + seconds_text(c.timeout)};
    case stream_state::garbage:
        return {ask_status::failed, c.target + ": " + std::string(NO_MESSAGE)};
    default:
        return call_result(c, connected, s.status);
    }
}
