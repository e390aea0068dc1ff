// A server and a standard gRPC client of it; calls of raw bytes where the client's own checks are in the way.
#pragma once

#include <algorithm>
#include <chrono>
#include <future>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/remote_attestation_api.grpc.pb.h"
#include "platform/rpc/server.h"
#include "tests/rpc/server_harness.h"

// A call of raw bytes. Waits for each step on a queue of its own.
class raw_call {
public:
    raw_call(const std::shared_ptr<grpc::Channel> &channel, const std::string &path) : stub_(channel)
    {
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(90));
        call_ = stub_.PrepareCall(&context, path, &queue_);
        call_->StartCall(tag());
        step();
    }
    ~raw_call()
    {
        context.TryCancel();
        queue_.Shutdown();
        void *ignored = nullptr;
        for (bool ok = false; queue_.Next(&ignored, &ok);) {
        }
    }
    bool write(const std::string &bytes)
    {
        const grpc::Slice slice(bytes);
        call_->Write(grpc::ByteBuffer(&slice, 1), tag());
        return step();
    }
    void writes_done()
    {
        call_->WritesDone(tag());
        step();
    }
    bool read(std::string *bytes)
    {
        grpc::ByteBuffer buffer;
        call_->Read(&buffer, tag());
        if (!step())
            return false;
        std::vector<grpc::Slice> slices;
        buffer.Dump(&slices);
        bytes->clear();
        for (const auto &slice : slices)
            bytes->append(reinterpret_cast<const char *>(slice.begin()), slice.size());
        return true;
    }
    grpc::Status finish()
    {
        grpc::Status status;
        call_->Finish(&status, tag());
        step();
        return status;
    }
    grpc::ClientContext context;

private:
    void *tag() { return this; }
    bool step()
    {
        void *ignored = nullptr;
        bool ok = false;
        return queue_.Next(&ignored, &ok) && ok;
    }
    grpc::GenericStub stub_;
    grpc::CompletionQueue queue_;
    std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call_;
};

// The answer to one message of raw bytes.
inline grpc::Status ask(const std::shared_ptr<grpc::Channel> &channel, const std::string &path,
                        const std::string &request, std::string *answer)
{
    raw_call call(channel, path);
    call.write(request);
    call.writes_done();
    call.read(answer);
    return call.finish();
}

// The loop stands still while this lives.
class held_loop {
public:
    explicit held_loop(server_harness &node)
        : held_(std::async(std::launch::async, [this, &node] {
              node.on_loop([this] {
                  const auto released = release_.get_future();
                  stands_.set_value();
                  released.wait();
              });
          }))
    {
        stands_.get_future().wait();
    }
    ~held_loop() { release_.set_value(); }
    held_loop(const held_loop &) = delete;
    held_loop &operator=(const held_loop &) = delete;

private:
    std::promise<void> stands_, release_;
    std::future<void> held_;
};

class Calls : public testing::Test {
protected:
    server_harness node;
    std::shared_ptr<grpc::Channel> channel;
    std::unique_ptr<remote_attestation_api::RemoteAttestationApi::Stub> stub;

    grpc::ChannelArguments arguments;

    Calls()
    {
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        arguments.SetMaxReceiveMessageSize(-1);
    }
    void serve()
    {
        ASSERT_EQ(node.start(), 0u);
        connect();
    }
    // So many questions, each from a thread of its own; all of them are answered.
    void ask_at_once(int questions)
    {
        std::vector<std::future<grpc::Status>> answers;
        for (int i = 0; i < questions; ++i)
            answers.push_back(std::async(std::launch::async, [this] {
                grpc::ClientContext context;
                remote_attestation_api::get_certificate_response response;
                return stub->GetCertificate(&context, {}, &response);
            }));
        for (auto &answer : answers)
            EXPECT_TRUE(answer.get().ok());
    }
    // Events in the server's inbox, of all kinds or of one.
    std::size_t waiting(std::optional<rpc_event::kind> kind = {})
    {
        rpc_shared &shared = *node.server->shared;
        const std::lock_guard guard(shared.lock);
        return static_cast<std::size_t>(
            std::count_if(shared.inbox.begin(), shared.inbox.end(),
                          [kind](const rpc_event &event) { return !kind || event.what == *kind; }));
    }
    void connect(const std::shared_ptr<grpc::ChannelCredentials> &as = grpc::InsecureChannelCredentials())
    {
        channel = grpc::CreateCustomChannel(node.target(), as, arguments);
        stub = remote_attestation_api::RemoteAttestationApi::NewStub(channel);
    }
};
