// A server and a standard gRPC client of it; calls of raw bytes where the client's own checks are in the way.
#pragma once

#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "api/remote_attestation_api.grpc.pb.h"
#include "tests/rpc/server_harness.h"

// A call of raw bytes. Waits for each step on a queue of its own.
class raw_call {
public:
    raw_call(const std::shared_ptr<grpc::Channel> &channel, const std::string &path) : stub_(channel)
    {
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
    void connect(const std::shared_ptr<grpc::ChannelCredentials> &as = grpc::InsecureChannelCredentials())
    {
        channel = grpc::CreateCustomChannel(node.target(), as, arguments);
        stub = remote_attestation_api::RemoteAttestationApi::NewStub(channel);
    }
};
