// The node whose evidence the simulator gives: an agent, asked over gRPC with the bytes of messages.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>

class evidence_node {
public:
    // `target` as gRPC names it: HOST:PORT, unix:PATH.
    explicit evidence_node(const std::string &target);

    bool wait_until_reached(std::chrono::seconds limit);

    // Asks by the full name of a method; `answer` gets the encoded response. Why not; empty: done.
    std::string ask(const std::string &method, const std::string &request, std::string &answer);

private:
    std::shared_ptr<grpc::Channel> channel_;
    grpc::GenericStub stub_;
};
