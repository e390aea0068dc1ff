// A whole request to the agent of a node, by gRPC and on a software TPM, beside the TPM commands that it
// needs, sent by ESYS to a second TPM with the same keys (a software TPM serves one connection at a time);
// and beside the same commands behind a bare gRPC service, which tells gRPC's part from the agent's. Then how
// many commands a request takes.
//
// Run by itself the program starts a node and runs again inside it. The ratios are for a machine with idle
// cores: a request crosses five threads of three processes, and each may have to wait for a core.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unistd.h>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "api/remote_attestation_api.grpc.pb.h"
#include "bench/ratio.h"
#include "bench/trust_anchor/bare_tpm.h"
#include "bench/trust_anchor/command_count.h"
#include "tests/tpm/software_tpm.h"

namespace {

namespace api = remote_attestation_api;
namespace fs = std::filesystem;

constexpr double GOAL = 1.15;
constexpr ratio_rounds ROUNDS = {101, 0.02}; // a few requests each

const std::string nonce(32, 'n');

using stub_ptr = std::unique_ptr<api::RemoteAttestationApi::Stub>;
stub_ptr agent;
stub_ptr raw; // of raw_service
std::optional<bare_tpm> bare;
std::string signed_data; // what the agent signs for `nonce`

std::span<const std::uint8_t> bytes_of(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

// What gRPC makes of the bare commands: no more than them behind a service as protoc's classes make it.
struct raw_service final : api::RemoteAttestationApi::Service {
    grpc::Status AttestPcrs(grpc::ServerContext *, const api::attest_pcr_request *request,
                            api::attest_pcr_response *response) override
    {
        const auto count = static_cast<std::uint32_t>(request->pcr_indices_size());
        if (!bare->read_and_quote(count, bytes_of(request->nonce())))
            return grpc::Status::CANCELLED;
        api::NodePCRData &record = *response->add_node_data();
        for (std::uint32_t i = 0; i < count; ++i)
            record.add_pcrs()->set_value(std::string(32, 'v'));
        record.set_quote(std::string(145, 'q')); // sizes as the TPM's
        record.set_quote_signature(std::string(262, 's'));
        return grpc::Status::OK;
    }
};

template <int COUNT>
void ask_pcrs(benchmark::State &state, const stub_ptr &server)
{
    api::attest_pcr_request request;
    request.set_nonce(nonce);
    for (int i = 0; i < COUNT; ++i)
        request.add_pcr_indices(static_cast<std::uint32_t>(i));
    while (state.KeepRunning()) {
        grpc::ClientContext context;
        api::attest_pcr_response response;
        if (!server->AttestPcrs(&context, request, &response).ok() || response.node_data_size() != 1 ||
            !response.node_data(0).has_quote() || response.node_data(0).pcrs_size() != COUNT)
            state.SkipWithError("no quote by gRPC");
    }
}

template <int COUNT>
void request_pcrs(benchmark::State &state)
{
    ask_pcrs<COUNT>(state, agent);
}

template <int COUNT>
void raw_pcrs(benchmark::State &state)
{
    ask_pcrs<COUNT>(state, raw);
}

template <int COUNT>
void command_pcrs(benchmark::State &state)
{
    while (state.KeepRunning()) {
        if (!bare->read_and_quote(COUNT, bytes_of(nonce)))
            state.SkipWithError("no quote from the bare TPM");
    }
}

bool ask_certificate(api::get_certificate_response &response)
{
    api::get_certificate_request request;
    request.set_nonce(nonce);
    grpc::ClientContext context;
    return agent->GetCertificate(&context, request, &response).ok() && response.node_data_size() == 1 &&
           response.node_data(0).has_signature() && response.node_data(0).certs_size() == 3;
}

void request_certificate(benchmark::State &state)
{
    while (state.KeepRunning()) {
        api::get_certificate_response response;
        if (!ask_certificate(response))
            state.SkipWithError("no signature from the agent");
    }
}

void command_signature(benchmark::State &state)
{
    while (state.KeepRunning()) {
        if (!bare->sign(bytes_of(signed_data)))
            state.SkipWithError("no signature from the bare TPM");
    }
}

RATIO_BENCHMARK("attest_pcrs, 1 PCR", GOAL, request_pcrs<1>, command_pcrs<1>, ROUNDS);
RATIO_BENCHMARK("attest_pcrs, 8 PCRs", GOAL, request_pcrs<8>, command_pcrs<8>, ROUNDS);
RATIO_BENCHMARK("attest_pcrs, 24 PCRs", GOAL, request_pcrs<24>, command_pcrs<24>, ROUNDS);
RATIO_BENCHMARK("get_certificate, with nonce", GOAL, request_certificate, command_signature, ROUNDS);
RATIO_BENCHMARK("attest_pcrs, 1 PCR, beside raw gRPC", GOAL, request_pcrs<1>, raw_pcrs<1>, ROUNDS);
RATIO_BENCHMARK("attest_pcrs, 24 PCRs, beside raw gRPC", GOAL, request_pcrs<24>, raw_pcrs<24>, ROUNDS);

// What is in a request besides the TPM commands that it is held against: the mean of many.
template <class Step>
void print_step(const char *what, Step step)
{
    constexpr int TIMES = 2000;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < TIMES; ++i)
        step();
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - begin;
    std::printf("%-44s %.0f us\n", what, taken.count() / TIMES);
}

void print_steps()
{
    print_step("the login's TPM command", [] { bare->read_clock(); });
    print_step("a call by gRPC that nobody serves", [] {
        grpc::ClientContext context;
        api::get_certificate_response response;
        raw->GetCertificate(&context, {}, &response);
    });
}

// Does not return but to say that there is no node to run in.
int run_in_node(int argc, char **argv)
{
    const std::string self = fs::read_symlink("/proc/self/exe");
    std::vector<const char *> command = {ATTEST_NODE, "--build", ATTEST_BUILD, "--", self.c_str()};
    command.insert(command.end(), argv + 1, argv + argc);
    command.push_back(nullptr);
    execv(command[0], const_cast<char *const *>(command.data()));
    std::perror(command[0]);
    return 1;
}

// The TPM of the node once more: keys and all, with a connection of its own.
std::string copy_of_node(const temporary_directory &into)
{
    const fs::path state = std::getenv("NODE_STATE");
    fs::create_directory(into.path() + "/node");
    fs::create_directory(into.path() + "/tpm");
    for (const auto &file : fs::directory_iterator(state / "tpm")) {
        if (file.path().filename() != ".lock")
            fs::copy(file.path(), into.path() + "/tpm");
    }
    return into.path();
}

stub_ptr connect(const std::string &address)
{
    return api::RemoteAttestationApi::NewStub(
        grpc::CreateChannel("dns:///" + address, grpc::InsecureChannelCredentials()));
}

bool learn_signed_data()
{
    api::get_certificate_response response;
    if (!ask_certificate(response))
        return false;
    signed_data = nonce + std::string("\0\0\0\2", 4);
    for (const auto &entry : response.node_data(0).certs())
        signed_data += entry.data();
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const char *node = std::getenv("NODE_ADDRESS");
    const char *manifest = std::getenv("ATTEST_TRUST_ANCHOR");
    if (node == nullptr || manifest == nullptr)
        return run_in_node(argc, argv);
    agent = connect(node);
    const temporary_directory staging;
    const software_tpm tpm(copy_of_node(staging));
    bare.emplace(tpm.address(), manifest);
    if (!learn_signed_data()) {
        std::fprintf(stderr, "the agent at %s does not sign\n", node);
        return 1;
    }
    raw_service service;
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    raw = connect("127.0.0.1:" + std::to_string(port));
    const int status = ratio_main(argc, argv);
    print_steps();
    server->Shutdown();
    bare.reset(); // the TPM is free for the next
    return print_command_counts() ? status : 1;
}
