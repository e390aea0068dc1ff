#include "tests/attestctl/simulated_node.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include <grpcpp/grpcpp.h>
#include <sys/wait.h>

#include "api/remote_attestation_api.grpc.pb.h"

namespace {

constexpr std::uint64_t CHUNK = 1000;

class service final : public api::RemoteAttestationApi::Service {
public:
    explicit service(const node_model &node) : node_(node) {}

    std::vector<std::uint64_t> take_asked()
    {
        const std::lock_guard lock(mutex_);
        return std::exchange(asked_, {});
    }

    grpc::Status GetCertificate(grpc::ServerContext *, const api::get_certificate_request *request,
                                api::get_certificate_response *response) override
    {
        for_each_source([&](const source_model &source) {
            forged f = source.evidence;
            const bool identity = request->cert_name() == "Kestrin VOXA";
            (identity ? f.got.identity_request : f.got.attestation_key_request).set_nonce(request->nonce());
            sign_certificates(f);
            response->MergeFrom(identity ? f.got.identity : f.got.attestation_key);
        });
        return grpc::Status::OK;
    }

    grpc::Status AttestPcrs(grpc::ServerContext *, const api::attest_pcr_request *request,
                            api::attest_pcr_response *response) override
    {
        for_each_source([&](const source_model &source) {
            forged f = source.evidence;
            f.got.pcrs_request.set_nonce(request->nonce());
            f.got.pcrs.mutable_node_data(0)->mutable_pcrs(10)->set_value(
                replayed({source.list.begin(), source.list.end() - source.after_quote}));
            quote_pcrs(f, [&source](TPMS_ATTEST &quote) {
                quote.clockInfo.resetCount = source.resets;
                quote.clockInfo.restartCount = source.restarts;
            });
            response->MergeFrom(f.got.pcrs);
        });
        return grpc::Status::OK;
    }

    grpc::Status
    GetPlatformBootIntegrityEventLogs(grpc::ServerContext *,
                                      const api::get_platform_boot_integrity_event_logs_request *,
                                      api::get_platform_boot_integrity_event_logs_response *response) override
    {
        for_each_source(
            [&](const source_model &source) { response->MergeFrom(source.evidence.got.boot_log); });
        return grpc::Status::OK;
    }

    grpc::Status GetPlatformHwIntegrity(grpc::ServerContext *,
                                        const api::get_platform_hw_integrity_request *request,
                                        api::get_platform_hw_integrity_response *response) override
    {
        for_each_source([&](const source_model &source) {
            forged f = source.evidence;
            f.got.hw_integrity_request.set_nonce(request->nonce());
            quote_hardware(f);
            response->MergeFrom(f.got.hw_integrity);
        });
        return grpc::Status::OK;
    }

    // First what the management controller has in a message of its own. Begins with the chunk that holds the
    // start event, as a node with a cache does.
    grpc::Status StreamPlatformImaEventLogs(grpc::ServerContext *,
                                            const api::get_platform_ima_event_logs_request *request,
                                            grpc::ServerWriter<api::NodeIMAData> *writer) override
    {
        const std::uint64_t start = request->start_event();
        {
            const std::lock_guard lock(mutex_);
            asked_.push_back(start);
        }
        if (node_.meanwhile)
            node_.meanwhile();
        const std::uint64_t begin = start == 0 ? 0 : (start - 1) / CHUNK * CHUNK;
        for (const source_model &bmc : node_.bmc)
            writer->Write(events_of(bmc, begin, bmc.list.size()));
        for (std::uint64_t at = begin;; at += CHUNK) {
            api::NodeIMAData message = events_of(node_, at, at + CHUNK);
            if (node_.rewrite)
                node_.rewrite(message);
            writer->Write(message);
            while (node_.endless && writer->Write(message))
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (at + CHUNK >= node_.list.size())
                return grpc::Status::OK;
        }
    }

private:
    void for_each_source(const std::function<void(const source_model &)> &answer) const
    {
        answer(node_);
        for (const source_model &bmc : node_.bmc)
            answer(bmc);
    }

    static api::NodeIMAData events_of(const source_model &source, std::uint64_t begin, std::uint64_t end)
    {
        api::NodeIMAData message;
        message.set_node_name(source.name);
        for (std::uint64_t i = begin; i < std::min<std::uint64_t>(end, source.list.size()); ++i)
            *message.add_events() = source.list[i];
        return message;
    }

    const node_model &node_;
    std::mutex mutex_;
    std::vector<std::uint64_t> asked_;
};

} // namespace

struct simulated_node::parts {
    explicit parts(const node_model &node) : answers(node) {}

    service answers;
    std::vector<std::string> targets;
    std::unique_ptr<grpc::Server> server;
};

simulated_node::simulated_node(std::size_t addresses, grpc_compression_algorithm compression)
    : parts_(new parts(model))
{
    grpc::ServerBuilder builder;
    builder.SetDefaultCompressionAlgorithm(compression);
    builder.RegisterService(&parts_->answers);
    std::vector<int> ports(addresses);
    for (int &port : ports)
        builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    parts_->server = builder.BuildAndStart();
    for (const int port : ports)
        parts_->targets.push_back("127.0.0.1:" + std::to_string(port));
    grow(model.list, 2500);
}

simulated_node::~simulated_node()
{
    parts_->server->Shutdown(std::chrono::system_clock::now());
}

const std::vector<std::string> &simulated_node::targets() const
{
    return parts_->targets;
}

std::vector<std::uint64_t> simulated_node::asked()
{
    return parts_->answers.take_asked();
}

outcome attestctl(const std::string &words)
{
    outcome done{-1, {}};
    FILE *program = popen(("2>&1 \"$ATTESTCTL\" " + words).c_str(), "r");
    std::string piece(1 << 16, '\0');
    for (std::size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), program)) > 0;)
        done.text.append(piece, 0, got);
    const int status = pclose(program);
    done.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return done;
}

std::string content_of(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_content(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}
