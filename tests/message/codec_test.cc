// The codec against the classes that protoc makes of the contract: the same bytes in both directions.
#include <gtest/gtest.h>

#include "api/remote_attestation_api.pb.h"
#include "tests/message/contract_messages.h"
#include "tests/message/counted_heap.h"

namespace pb = google::protobuf;

namespace {

bool kind_agrees(field_kind kind, const pb::FieldDescriptor &theirs)
{
    switch (kind) {
    case field_kind::u32:
        return theirs.type() == pb::FieldDescriptor::TYPE_UINT32 && theirs.has_optional_keyword();
    case field_kind::u64:
        return theirs.type() == pb::FieldDescriptor::TYPE_UINT64 && theirs.has_optional_keyword();
    case field_kind::string:
        return theirs.type() == pb::FieldDescriptor::TYPE_STRING && theirs.has_optional_keyword();
    case field_kind::name:
    case field_kind::bytes:
        return theirs.type() == pb::FieldDescriptor::TYPE_BYTES && theirs.has_optional_keyword();
    case field_kind::messages:
        return theirs.type() == pb::FieldDescriptor::TYPE_MESSAGE && theirs.is_repeated();
    case field_kind::u32_list:
        return theirs.type() == pb::FieldDescriptor::TYPE_UINT32 && theirs.is_packed();
    }
    return false;
}

TEST(MessageTables, AgreeWithTheContract)
{
    const pb::FileDescriptor &file = *remote_attestation_api::IMA_EVENT::descriptor()->file();
    EXPECT_EQ(contract_messages().size(), static_cast<std::size_t>(file.message_type_count()) + 1)
        << "every message of the contract, and the cache block";
    for (const contract_message &type : contract_messages()) {
        const pb::Descriptor &theirs = *type.theirs->GetDescriptor();
        EXPECT_EQ(type.ours->name, theirs.name());
        ASSERT_EQ(type.ours->fields.size(), static_cast<std::size_t>(theirs.field_count())) << theirs.name();
        for (int i = 0; i < theirs.field_count(); ++i) {
            const field_descriptor &field = type.ours->fields[static_cast<std::size_t>(i)];
            const pb::FieldDescriptor &their_field = *theirs.field(i);
            SCOPED_TRACE(their_field.full_name());
            EXPECT_EQ(field.name, their_field.name());
            EXPECT_EQ(field.number, their_field.number());
            EXPECT_TRUE(kind_agrees(field.kind, their_field));
            EXPECT_EQ(field.child != nullptr, their_field.message_type() != nullptr);
            if (field.child != nullptr) {
                EXPECT_EQ(field.child->name, their_field.message_type()->name());
            }
        }
    }
}

TEST(MessageCodec, BytesAreProtocsAndASecondReleaseFreesNothing)
{
    std::mt19937 random(1);
    for (const contract_message &type : contract_messages()) {
        SCOPED_TRACE(type.ours->name);
        for (int round = 0; round < 60; ++round) {
            std::string wire = random_message(type, random)->SerializeAsString();
            structure ours(*type.ours);
            ASSERT_TRUE(ours.decode(wire));
            ASSERT_EQ(ours.encode(), wire);
            message_release(*type.ours, ours.get());
            ASSERT_EQ(heap.live_blocks, 0);
            ASSERT_TRUE(ours.is_empty());
        } // where it is released again
    }
}

TEST(MessageCodec, NumbersThatAreNotPackedAreTaken)
{
    remote_attestation_api::attest_pcr_request theirs;
    for (std::uint32_t index : {0u, 300u, 7u})
        theirs.add_pcr_indices(index);
    std::string packed = theirs.SerializeAsString();
    structure ours(message_descriptor_of<attest_pcr_request>());
    // 0 and 300 on their own with an unknown field between them, then an empty packed run, then one of 7.
    ASSERT_TRUE(ours.decode(std::string("\x08\x00\x78\x05\x08\xac\x02\x0a\x00\x0a\x01\x07", 12)));
    EXPECT_EQ(ours.encode(), packed);

    owned_message<attest_pcr_request> empty;
    ASSERT_TRUE(message_decode(std::as_bytes(std::span("\x0a\x00", 2)), *empty));
    EXPECT_EQ(empty->present, 0u) << "a run without numbers";
}

TEST(MessageEncoder, WritesOnlyWithinItsRoom)
{
    std::mt19937 random(2);
    for (const contract_message &type : contract_messages()) {
        SCOPED_TRACE(type.ours->name);
        std::string wire = random_message(type, random)->SerializeAsString();
        structure ours(*type.ours);
        ASSERT_TRUE(ours.decode(wire));
        for (std::size_t room :
             {std::size_t{0}, wire.size() / 2, wire.size() - 1, wire.size(), wire.size() + 9}) {
            std::string out(wire.size() + 9, '?');
            std::string expected = out;
            if (room > wire.size() + 9)
                continue; // an empty message has no smaller room
            if (room >= wire.size())
                expected.replace(0, wire.size(), wire);
            auto span = std::as_writable_bytes(std::span(out)).first(room);
            EXPECT_EQ(message_encode(*type.ours, ours.get(), span), static_cast<std::int64_t>(wire.size()));
            EXPECT_EQ(out, expected) << "room " << room;
        }
    }
}

TEST(MessageEncoder, PresentEmptyListIsNotLikeAnAbsentOne)
{
    NodeIMAData list = {.present = NodeIMAData::has_events, .node_name = nullptr, .events = {}, .uptime = 9};
    EXPECT_EQ(message_encoded_size(list), 0);
    attest_pcr_request numbers = {};
    numbers.present = attest_pcr_request::has_pcr_indices | attest_pcr_request::has_nonce;
    std::array<std::byte, 8> out{};
    EXPECT_EQ(message_encode(numbers, std::span(out).last(4)), 2) << "the present empty nonce";
    EXPECT_EQ(std::to_integer<int>(out[4]), 0x12);
    EXPECT_EQ(std::to_integer<int>(out[2]), 0) << "before the room";
}

TEST(MessageEncoder, UnencodableIsRefused)
{
    std::uint8_t byte = 0;
    char latin1[] = "caf\xe9";
    using pcr = NodePCRData;
    constexpr std::uint32_t both = pcr::has_quote | pcr::has_quote_signature;
    struct {
        const char *why;
        NodePCRData message; // present, name, uptime, PCRs, quote, signature
    } cases[] = {
        {"null bytes", {pcr::has_quote, nullptr, 0, {}, {nullptr, 1}, {}}},
        {"null list", {pcr::has_pcrs, nullptr, 0, {nullptr, 1}, {}, {}}},
        {"null text", {pcr::has_node_name, nullptr, 0, {}, {}, {}}},
        {"string that is not UTF-8", {pcr::has_node_name, latin1, 0, {}, {}, {}}},
        {"bytes of 2 GiB", {pcr::has_quote, nullptr, 0, {}, {&byte, 1ull << 31}, {}}},
        {"bytes whose length overflows", {pcr::has_quote, nullptr, 0, {}, {&byte, ~0ull}, {}}},
        {"2 GiB in all", {both, nullptr, 0, {}, {&byte, 1ull << 30}, {&byte, (1ull << 30) - 12}}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.why);
        std::array<std::byte, 64> out{};
        EXPECT_EQ(message_encoded_size(row.message), -1);
        EXPECT_EQ(message_encode(row.message, out), -1);
    }
    IMA_EVENT bad_event = {};
    bad_event.present = IMA_EVENT::has_digest;
    bad_event.digest = {nullptr, 1};
    NodeIMAData nested = {};
    nested.present = NodeIMAData::has_events;
    nested.events = {&bad_event, 1};
    EXPECT_EQ(message_encoded_size(nested), -1) << "in an item of a list";
    cases[6].message.quote_signature.length -= 1;
    EXPECT_EQ(message_encoded_size(cases[6].message), (1ll << 31) - 1);
}

} // namespace
