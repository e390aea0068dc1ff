// Asks a node for its identity and for its IMA list: ask_node HOST:PORT
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <grpcpp/grpcpp.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include "remote_attestation_api.grpc.pb.h"

namespace api = remote_attestation_api;

namespace {

enum exit_status { GOOD = 0, NOT_GOOD = 1, NOT_ASKED = 2 };

int say(exit_status status, const std::string &line)
{
    std::puts(line.c_str());
    return status;
}

int call_failed(const grpc::Status &status)
{
    return say(NOT_ASKED, "the call failed: " + status.error_message());
}

const unsigned char *bytes_of(const std::string &text)
{
    return reinterpret_cast<const unsigned char *>(text.data());
}

// Whether the certificate's key signed the data: RSASSA-PKCS1-v1_5 with SHA-256.
bool is_signed(const std::string &certificate_der, const std::string &data, const std::string &signature)
{
    const unsigned char *der = bytes_of(certificate_der);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        d2i_X509(nullptr, &der, static_cast<long>(certificate_der.size())), X509_free);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> state(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return certificate && state &&
           EVP_DigestVerifyInit(state.get(), nullptr, EVP_sha256(), nullptr,
                                X509_get0_pubkey(certificate.get())) == 1 &&
           EVP_DigestVerify(state.get(), bytes_of(signature), signature.size(), bytes_of(data),
                            data.size()) == 1;
}

// The node itself comes first in an answer, then its management controller, where there is one that answers.
int check_record(const api::SystemCertificates &record, const std::string &nonce)
{
    if (record.certs_size() != 3 || record.nonce() != nonce || record.sig_alg() != 2)
        return say(NOT_GOOD, record.node_name() + ": not what was asked for");
    std::string data = nonce + std::string("\0\0\0\2", 4);
    for (const api::CERTIFICATE_ENTRY &entry : record.certs())
        data += entry.data();
    if (!is_signed(record.certs(2).data(), data, record.signature()))
        return say(NOT_GOOD, record.node_name() + ": the nonce is not signed by this device");
    // A verifier goes on here: the path from certs(2) over certs(1) to a root that it trusts.
    return say(GOOD, record.node_name() + ": " + record.certs(2).name() + " signed the nonce");
}

int ask_for_identity(api::RemoteAttestationApi::Stub &node)
{
    std::array<unsigned char, 32> fresh{};
    if (RAND_bytes(fresh.data(), static_cast<int>(fresh.size())) != 1)
        return say(NOT_ASKED, "no random bytes");
    const std::string nonce(fresh.begin(), fresh.end());
    api::get_certificate_request request;
    request.set_cert_name("Kestrin VOXA");
    request.set_nonce(nonce);

    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    api::get_certificate_response answer;
    if (const grpc::Status status = node.GetCertificate(&context, request, &answer); !status.ok())
        return call_failed(status);
    if (answer.node_data().empty()) // OK, and still no evidence
        return say(NOT_GOOD, "no certificates");
    for (const api::SystemCertificates &record : answer.node_data())
        if (const int result = check_record(record, nonce); result != GOOD)
            return result;
    return GOOD;
}

// Reads message by message: what has not been read waits at the node, however long the list is.
int ask_for_list(api::RemoteAttestationApi::Stub &node)
{
    grpc::ClientContext context;
    const auto stream = node.StreamPlatformImaEventLogs(&context, api::get_platform_ima_event_logs_request());
    api::NodeIMAData message;
    std::string name;
    std::uint64_t events = 0, duplicates = 0;
    bool is_whole = false;
    while (stream->Read(&message)) {
        is_whole = message.has_node_name(); // a node that gives a stream up ends it with an empty message
        if (message.node_name() != name)    // the list of another source
            events = 0;
        name = message.node_name();
        for (const api::IMA_EVENT &event : message.events()) {
            if (event.event_num() != ++events) {
                context.TryCancel();
                return say(NOT_GOOD, "event " + std::to_string(events) + " is missing");
            }
            duplicates += event.duplicate();
        }
    }
    if (const grpc::Status status = stream->Finish(); !status.ok())
        return call_failed(status);
    if (!is_whole)
        return say(NOT_GOOD, "no whole IMA list");
    return say(GOOD, name + ": " + std::to_string(events) + " events, " + std::to_string(duplicates) +
                         " of them repeated");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fputs("usage: ask_node HOST:PORT\n", stderr);
        return NOT_ASKED;
    }
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1); // a whole list at once would be more than gRPC's 4 MB
    const auto channel = grpc::CreateCustomChannel(argv[1], grpc::InsecureChannelCredentials(), arguments);
    const auto node = api::RemoteAttestationApi::NewStub(channel);
    const int result = ask_for_identity(*node);
    return result == GOOD ? ask_for_list(*node) : result;
}
