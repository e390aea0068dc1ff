#include "tools/bmc_simulator/server.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>

#include <httplib.h>
#include <openssl/ssl.h>

#include "tools/bmc_simulator/base64.h"
#include "tools/bmc_simulator/blob_call.h"
#include "tools/bmc_simulator/connection.h"
#include "tools/bmc_simulator/credentials.h"
#include "tools/bmc_simulator/faults.h"
#include "tools/bmc_simulator/reply.h"
#include "tools/bmc_simulator/report.h"
#include "tools/bmc_simulator/sessions.h"

namespace {

constexpr char LOGIN_PATH[] = "/login-cert";
constexpr char CALL_PATH[] = "/xyz/openbmc_project/attestation/blob/action/get_blob";
constexpr std::size_t TRUNCATED_BY = 1;

struct rest_server {
    const server_settings &settings;
    evidence_node &node;
    session_store sessions;
    // A client has a connection for each transfer, and the call follows the login: so the next connection is
    // told before it has said what it wants.
    std::atomic<bool> call_is_next = false;
};

void note(const char *what, const std::string &outcome)
{
    std::fprintf(stderr, "%s: %s\n", what, outcome.c_str());
}

std::string login_refusal(const rest_server &server, const httplib::Request &request)
{
    // One that the CA has not issued has not come through the handshake.
    if (SSL_get0_peer_certificate(request.ssl) == nullptr)
        return "no client certificate";
    if (request.get_header_value("Content-Type") != "application/json")
        return "not JSON by its type";
    return login_problem(request.body, server.settings.authority, std::time(nullptr));
}

void take_login(rest_server &server, const httplib::Request &request, httplib::Response &response)
{
    const fault_kind wrong = fault_now(server.settings.fault_file, transfer::login);
    const std::string refusal = login_refusal(server, request);
    note("login", refusal.empty() ? "opened" : "refused: " + refusal);
    if (!refusal.empty())
        return send_reply(refused(401, refusal), wrong, request, response);
    rest_reply reply;
    if (wrong == fault_kind::none || wrong == fault_kind::no_cookie) {
        reply.cookie = server.sessions.open();
        server.call_is_next = true;
    }
    send_reply(reply, wrong, request, response);
}

rest_reply answer_call(rest_server &server, const httplib::Request &request, fault_kind wrong,
                       blob_call &call)
{
    if (!server.sessions.knows(request.get_header_value("Cookie")))
        return refused(401, "no session");
    if (request.get_header_value("Content-Type") != "application/json")
        return refused(400, "not JSON by its type");
    if (std::string problem = read_blob_call(request.body, call); !problem.empty())
        return refused(400, problem);
    std::string record;
    if (std::string problem = answer_blob_call(call, server.node, record); !problem.empty())
        return refused(200, problem);
    if (wrong == fault_kind::truncated_message)
        record.resize(record.size() - std::min(record.size(), TRUNCATED_BY));
    rest_reply reply;
    reply.data = base64_text(record);
    return reply;
}

void take_call(rest_server &server, const httplib::Request &request, httplib::Response &response)
{
    const fault_kind wrong = fault_now(server.settings.fault_file, transfer::call);
    server.call_is_next = false;
    blob_call call;
    const rest_reply reply = answer_call(server, request, wrong, call);
    note("call", "operation " + std::to_string(call.operation) + ", " + reply.message);
    send_reply(reply, wrong, request, response);
}

// Called with the first message of a handshake.
int take_hello(SSL *ssl, int *, void *context)
{
    rest_server &server = *static_cast<rest_server *>(context);
    const transfer next = server.call_is_next ? transfer::call : transfer::login;
    const fault_kind wrong = fault_now(server.settings.fault_file, next);
    if (wrong != fault_kind::tls_failure && wrong != fault_kind::reset_handshake &&
        wrong != fault_kind::stall_handshake)
        return SSL_CLIENT_HELLO_SUCCESS;
    note(next == transfer::call ? "call" : "login", "no handshake");
    server.call_is_next = false;
    if (wrong == fault_kind::reset_handshake)
        reset_connection(SSL_get_fd(ssl));
    else if (wrong == fault_kind::stall_handshake)
        stall_connection(SSL_get_fd(ssl));
    return SSL_CLIENT_HELLO_ERROR;
}

bool set_up_tls(SSL_CTX &context, const server_identity &identity, rest_server &server)
{
    // A client certificate is asked of everybody and demanded of those who log in.
    SSL_CTX_set_verify(&context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(&context, SSL_OP_NO_TICKET);
    SSL_CTX_set_client_hello_cb(&context, take_hello, &server);
    return SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION) == 1 &&
           SSL_CTX_use_certificate(&context, identity.certificate.get()) == 1 &&
           SSL_CTX_use_PrivateKey(&context, identity.key.get()) == 1 &&
           SSL_CTX_load_verify_locations(&context, server.settings.client_ca_file.c_str(), nullptr) == 1;
}

} // namespace

bool serve(const server_settings &settings, evidence_node &node)
{
    server_identity identity;
    if (!make_server_identity(identity))
        return false;
    rest_server server{settings, node, {}, false};
    httplib::SSLServer https([&](SSL_CTX &context) { return set_up_tls(context, identity, server); });
    if (!https.is_valid())
        return fail("TLS cannot be set up");
    https.set_tcp_nodelay(true);
    https.Post(LOGIN_PATH, [&server](const httplib::Request &request, httplib::Response &response) {
        take_login(server, request, response);
    });
    https.Post(CALL_PATH, [&server](const httplib::Request &request, httplib::Response &response) {
        take_call(server, request, response);
    });
    if (!https.bind_to_port(settings.host, settings.port))
        return fail_with_errno("cannot listen at " + settings.host + ':' + std::to_string(settings.port));
    return https.listen_after_bind();
}
