// The codec on a message of 1,000 IMA events, beside the classes that protoc makes: encoding into a buffer
// that is there, and decoding into a fresh message that is released again.
#include "bench/ratio.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "api/remote_attestation_api.pb.h"
#include "platform/messages.h"

namespace {

constexpr std::uint64_t EVENTS = 1000;

std::string random_bytes(std::size_t length, std::mt19937 &random)
{
    std::string bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

std::string random_path(std::mt19937 &random)
{
    std::string path = "/usr/lib/";
    std::size_t length = 20 + random() % 61;
    while (path.size() < length)
        path += static_cast<char>('a' + random() % 26);
    return path;
}

// As a node's list has them: template ima-ng, SHA-256, PCR 10.
remote_attestation_api::NodeIMAData make_events()
{
    std::mt19937 random(1);
    remote_attestation_api::NodeIMAData data;
    data.set_node_name("node0");
    data.set_uptime(86400);
    for (std::uint64_t i = 1; i <= EVENTS; ++i) {
        remote_attestation_api::IMA_EVENT &event = *data.add_events();
        event.set_event_num(i);
        event.set_template_name("ima-ng");
        event.set_event_name(random_path(random));
        event.set_digest(random_bytes(32, random));
        event.set_digest_algo("sha256");
        event.set_template_hash(random_bytes(20, random));
        event.set_pcr(10);
        event.set_duplicate(random() % 2);
    }
    return data;
}

const remote_attestation_api::NodeIMAData &their_events()
{
    static const auto events = make_events();
    return events;
}

const std::string &wire()
{
    static const auto bytes = their_events().SerializeAsString();
    return bytes;
}

void decode_wire(NodeIMAData &data)
{
    if (!message_decode(std::as_bytes(std::span(wire())), data)) {
        std::fprintf(stderr, "the events cannot be decoded\n");
        std::abort();
    }
}

void encode_ours(benchmark::State &state)
{
    owned_message<NodeIMAData> data;
    decode_wire(*data);
    std::string out(wire().size(), '\0');
    while (state.KeepRunning()) {
        if (message_encode(*data, std::as_writable_bytes(std::span(out))) < 0)
            state.SkipWithError("cannot be encoded");
        benchmark::DoNotOptimize(out.data());
    }
    if (out != wire())
        state.SkipWithError("not what protoc's classes write");
}

void fill(remote_attestation_api::NodeIMAData &theirs, const NodeIMAData &data)
{
    theirs.Clear();
    theirs.set_node_name(data.node_name);
    theirs.set_uptime(data.uptime);
    for (const IMA_EVENT &event : std::span(data.events.items, data.events.count)) {
        remote_attestation_api::IMA_EVENT &their_event = *theirs.add_events();
        their_event.set_event_num(event.event_num);
        their_event.set_template_name(event.template_name);
        their_event.set_event_name(event.event_name);
        their_event.set_digest(event.digest.data, event.digest.length);
        their_event.set_digest_algo(event.digest_algo);
        their_event.set_template_hash(event.template_hash.data, event.template_hash.length);
        their_event.set_pcr(event.pcr);
        their_event.set_duplicate(event.duplicate);
    }
}

void serialise(benchmark::State &state, const remote_attestation_api::NodeIMAData &data, std::string &out)
{
    if (!data.SerializeToArray(out.data(), static_cast<int>(out.size())))
        state.SkipWithError("cannot be serialised");
    benchmark::DoNotOptimize(out.data());
}

void encode_theirs(benchmark::State &state)
{
    owned_message<NodeIMAData> data;
    decode_wire(*data);
    remote_attestation_api::NodeIMAData theirs;
    std::string out(wire().size(), '\0');
    while (state.KeepRunning()) {
        fill(theirs, *data);
        serialise(state, theirs, out);
    }
    if (out != wire())
        state.SkipWithError("not the same content");
}

void serialise_theirs(benchmark::State &state)
{
    std::string out(wire().size(), '\0');
    while (state.KeepRunning())
        serialise(state, their_events(), out);
}

void decode_ours(benchmark::State &state)
{
    while (state.KeepRunning()) {
        owned_message<NodeIMAData> data;
        decode_wire(*data);
        benchmark::DoNotOptimize(data.get());
    }
}

void decode_theirs(benchmark::State &state)
{
    while (state.KeepRunning()) {
        remote_attestation_api::NodeIMAData data;
        if (!data.ParseFromString(wire()))
            state.SkipWithError("cannot be parsed");
        benchmark::DoNotOptimize(&data);
    }
}

RATIO_BENCHMARK("encode 1,000 IMA events", 0.35, encode_ours, encode_theirs);
RATIO_BENCHMARK("encode, beside serialising alone", 1.2, encode_ours, serialise_theirs);
RATIO_BENCHMARK("decode and release 1,000 IMA events", 0.8, decode_ours, decode_theirs);

} // namespace

int main(int argc, char **argv)
{
    return ratio_main(argc, argv);
}
