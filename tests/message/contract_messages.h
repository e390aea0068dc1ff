// Every message twice: the descriptor of our structure and the class that protoc made, with random contents.
#pragma once

#include <google/protobuf/message.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/message/descriptors.h"

struct contract_message {
    const message_descriptor *ours;
    const google::protobuf::Message *theirs; // an empty one
};

// All of them. IMACacheBlock, which never travels, is not in the contract; its class is made up here.
const std::vector<contract_message> &contract_messages();

// A message with random fields, as a client's or another agent's library might fill it: texts have no NUL.
std::unique_ptr<google::protobuf::Message> random_message(const contract_message &type, std::mt19937 &random);

// What of a parsed message the agent keeps: no unknown fields, texts up to their first NUL.
void cut_to_what_we_keep(const message_descriptor &ours, google::protobuf::Message &theirs);

// Memory for one of our structures, released at the end.
class structure {
public:
    explicit structure(const message_descriptor &descriptor)
        : descriptor_(descriptor), memory_(descriptor.structure_size / 8 + 1)
    {
    }
    structure(const structure &) = delete;
    structure &operator=(const structure &) = delete;
    ~structure() { message_release(descriptor_, memory_.data()); }
    void *get() { return memory_.data(); }
    bool decode(const std::string &bytes)
    {
        return message_decode(descriptor_, std::as_bytes(std::span(bytes)), get());
    }
    std::string encode()
    {
        std::int64_t size = message_encoded_size(descriptor_, get());
        std::string bytes(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
        if (message_encode(descriptor_, get(), std::as_writable_bytes(std::span(bytes))) != size)
            return "(sizer and encoder disagree)";
        return size < 0 ? "(cannot be encoded)" : bytes;
    }
    bool is_empty() const { return memory_ == std::vector<std::uint64_t>(memory_.size()); }

private:
    const message_descriptor &descriptor_;
    std::vector<std::uint64_t> memory_;
};
