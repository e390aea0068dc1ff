#include "tools/bmc_simulator/evidence_node.h"

#include <future>
#include <vector>

namespace {

constexpr std::chrono::seconds ANSWER_LIMIT{60}; // the patience of the simulator's clients is less

std::shared_ptr<grpc::Channel> make_channel(const std::string &target)
{
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1); // a whole IMA list
    return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

} // namespace

evidence_node::evidence_node(const std::string &target) : channel_(make_channel(target)), stub_(channel_) {}

bool evidence_node::wait_until_reached(std::chrono::seconds limit)
{
    return channel_->WaitForConnected(std::chrono::system_clock::now() + limit);
}

std::string evidence_node::ask(const std::string &method, const std::string &request, std::string &answer)
{
    const grpc::Slice slice(request);
    const grpc::ByteBuffer sent(&slice, 1);
    grpc::ByteBuffer received;
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + ANSWER_LIMIT);
    std::promise<grpc::Status> done;
    stub_.UnaryCall(&context, method, grpc::StubOptions(), &sent, &received,
                    [&done](grpc::Status status) { done.set_value(std::move(status)); });
    const grpc::Status status = done.get_future().get();
    if (!status.ok())
        return "gRPC status " + std::to_string(status.error_code());
    std::vector<grpc::Slice> slices;
    if (!received.Dump(&slices).ok())
        return "an answer that cannot be read";
    answer.clear();
    for (const grpc::Slice &one : slices)
        answer.append(reinterpret_cast<const char *>(one.begin()), one.size());
    return {};
}
