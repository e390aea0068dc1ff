// The decoder on bytes that nobody meant: the same verdict and the same content as protoc's parser, and
// nothing left allocated.
#include <gmock/gmock.h>
#include <sys/mman.h>

#include "api/remote_attestation_api.pb.h"
#include "tests/message/contract_messages.h"
#include "tests/message/counted_heap.h"

namespace pb = google::protobuf;

namespace {

const contract_message &type_of(const message_descriptor &ours)
{
    for (const contract_message &type : contract_messages()) {
        if (type.ours == &ours)
            return type;
    }
    std::abort();
}

// Decodes with both and compares. True when both took the bytes.
bool agree(const contract_message &type, const std::string &wire)
{
    std::unique_ptr<pb::Message> theirs(type.theirs->New());
    bool taken = theirs->ParseFromString(wire);
    {
        structure ours(*type.ours);
        EXPECT_EQ(ours.decode(wire), taken) << type.ours->name << ": " << testing::PrintToString(wire);
        if (taken) {
            cut_to_what_we_keep(*type.ours, *theirs);
            EXPECT_EQ(ours.encode(), theirs->SerializeAsString()) << type.ours->name;
        } else {
            EXPECT_TRUE(ours.is_empty());
            EXPECT_EQ(heap.live_blocks, 0);
        }
    }
    EXPECT_EQ(heap.live_blocks, 0);
    return taken;
}

TEST(HostileBytes, PrefixIsRefusedWithoutALeak)
{
    pb::LogSilencer quiet;
    std::mt19937 random(4);
    for (const contract_message &type : contract_messages()) {
        for (int round = 0; round < 3; ++round) {
            std::string wire = random_message(type, random)->SerializeAsString();
            wire.resize(std::min<std::size_t>(wire.size(), 1500));
            for (std::size_t length = 0; length < wire.size(); ++length)
                agree(type, wire.substr(0, length));
        }
        if (testing::Test::HasFailure())
            break;
    }
}

void mutate(std::string &wire, std::mt19937 &random)
{
    for (std::size_t changes = 1 + random() % 3; changes > 0 && !wire.empty(); --changes) {
        std::size_t at = random() % wire.size();
        switch (random() % 5) {
        case 0:
            wire[at] = static_cast<char>(random());
            break;
        case 1: // a tag or a length, more often than not
            wire[at] = static_cast<char>(random() % 0x60);
            break;
        case 2:
            wire[at] = static_cast<char>(wire[at] ^ 1 << random() % 8);
            break;
        case 3:
            wire.erase(at, 1 + random() % 4);
            break;
        case 4: // repeats a part: fields and runs of a list come twice
            wire.insert(at, wire.substr(random() % wire.size(), 1 + random() % 40));
            break;
        }
    }
}

TEST(HostileBytes, DamagedMessageIsReadAsByProtoc)
{
    pb::LogSilencer quiet;
    std::mt19937 random(5);
    int taken = 0;
    int refused = 0;
    for (const contract_message &type : contract_messages()) {
        for (int round = 0; round < 400; ++round) {
            std::string wire = random_message(type, random)->SerializeAsString();
            wire.resize(std::min<std::size_t>(wire.size(), 60 + random() % 200));
            mutate(wire, random);
            ++(agree(type, wire) ? taken : refused);
        }
        if (testing::Test::HasFailure())
            break;
    }
    EXPECT_GT(taken, 1000) << "the damage must leave something to compare";
    EXPECT_GT(refused, 1000);
}

TEST(HostileBytes, HandMadeCases)
{
    pb::LogSilencer quiet;
    const std::string nine_ff(9, '\xff');
    const std::string group_start = "\x7b";
    const std::string group_end = "\x7c";
    auto groups = [&](int depth) {
        std::string wire;
        for (int i = 0; i < depth; ++i)
            wire += group_start;
        for (int i = 0; i < depth; ++i)
            wire += group_end;
        return wire;
    };
    struct {
        const char *what;
        std::string wire;
        bool taken;
    } cases[] = {
        {"last of two equal fields counts", {"\x0a\1a\x0a\2bc"}, true},
        {"text with a NUL", {"\x0a\3a\0b", 5}, true},
        {"string that is not UTF-8", {"\x0a\x02\xc3\x28"}, false},
        {"overlong UTF-8", {"\x0a\x02\xc0\x80"}, false},
        {"surrogate", {"\x0a\x03\xed\xa0\x80"}, false},
        {"known field with another wire type is unknown", {"\x08\x05\x15\1\2\3\4"}, true},
        {"number with a length is unknown", {"\x12\x02\x05\x06"}, true},
        {"varint of 10 bytes", "\x10" + nine_ff + "\x01", true},
        {"varint of 10 bytes with bits beyond 64", "\x10" + nine_ff + "\x7f", true},
        {"varint of 11 bytes", "\x10" + nine_ff + "\x81\x01", false},
        {"unknown varint of 11 bytes", "\x78" + nine_ff + "\x81\x01", false},
        {"length beyond the end", {"\x0a\177a"}, false},
        {"length of 2 GiB", {"\x0a\xff\xff\xff\xff\x07"}, false},
        {"length of 6 bytes", {"\x0a\x80\x80\x80\x80\x80\x00", 7}, false},
        {"length that is not minimal", {"\x0a\201\200\0a", 5}, true},
        {"tag of 6 bytes", {"\x88\x80\x80\x80\x80\x00\x01", 7}, false},
        {"field number 0", {"\x00\x01", 2}, false},
        {"field number 0 with a length", {"\x02\x00", 2}, false},
        {"wire type 6", {"\x7e"}, false},
        {"wire type 7", {"\x0f"}, false},
        {"group", groups(3), true},
        {"deep groups", groups(90), true},
        {"bottomless groups", groups(100000), false},
        {"group without an end", group_start, false},
        {"end without a group", group_end, false},
        {"group that another's end closes", {"\x7b\x74"}, false},
        {"field number 0 in a group", {"\x7b\x00\x7c", 3}, false},
        {"fixed64 cut", {"\x79\1\2\3\4\5\6\7"}, false},
        {"fixed32 cut", {"\x7d\1\2\3"}, false},
    };
    // Field 1 a string, field 2 a number.
    const contract_message &type = type_of(message_descriptor_of<get_platform_ima_event_logs_request>());
    for (const auto &row : cases) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(agree(type, row.wire), row.taken);
    }
    const contract_message &pcrs = type_of(message_descriptor_of<attest_pcr_request>());
    EXPECT_FALSE(agree(pcrs, "\x0a\x02\x05\x80")) << "packed number cut by the end of its run";
    EXPECT_FALSE(agree(pcrs, "\x0a\x01\x80\x01")) << "packed number that goes on behind its run";
    EXPECT_TRUE(agree(pcrs, "\x0a\x06\xff\xff\xff\xff\xff\x01")) << "packed number of more than 32 bits";
}

TEST(HostileBytes, Utf8IsJudgedAsByProtoc)
{
    pb::LogSilencer quiet;
    const contract_message &type =
        type_of(message_descriptor_of<get_platform_boot_integrity_event_logs_request>());
    for (const char *tail : {"", "\x80", "\xbf\x80", "\x80\xbf\x80", "\x80\xc0", "a"}) {
        for (int first = 0x80; first < 0x100; ++first) {
            for (int second = 0; second < 0x100; ++second) {
                std::string text = {static_cast<char>(first), static_cast<char>(second)};
                text += tail;
                agree(type, std::string{'\x0a', static_cast<char>(text.size())} + text);
            }
        }
    }
}

// The most memory that bytes can claim: an item of the widest structure, spelled out in two bytes. And the
// most work: a decoder that looks through the rest of the message at each item does not come to the end of
// this.
TEST(HostileBytes, FewBytesClaimLittleMemory)
{
    constexpr std::size_t WIRE = 256UL * 1024;
    for (const contract_message &type : contract_messages()) {
        for (const field_descriptor &field : type.ours->fields) {
            if (field.kind == field_kind::u32 || field.kind == field_kind::u64)
                continue;
            std::string wire;
            while (wire.size() < WIRE)
                wire += {static_cast<char>(field.tag), '\0'};
            structure ours(*type.ours);
            heap.peak_bytes = heap.live_bytes;
            ASSERT_TRUE(ours.decode(wire));
            EXPECT_LE(heap.peak_bytes, WIRE * 64 + 4096) << type.ours->name << "." << field.name;
        }
    }
}

// The same with a bound: the item too many is refused, and what came before it is given back.
TEST(HostileBytes, ListsTakeNoMoreThanAllowed)
{
    constexpr std::uint64_t ITEMS = 1000;
    std::string wire;
    for (std::uint64_t i = 0; i < ITEMS; ++i)
        wire += std::string("\x0a\0", 2);
    IMACacheBlock message;
    std::size_t before = heap.live_bytes;
    EXPECT_FALSE(message_decode(message_descriptor_of<IMACacheBlock>(), std::as_bytes(std::span(wire)),
                                &message, ITEMS * sizeof(IMA_EVENT) - 1));
    EXPECT_EQ(heap.live_bytes, before);
    ASSERT_TRUE(message_decode(message_descriptor_of<IMACacheBlock>(), std::as_bytes(std::span(wire)),
                               &message, ITEMS * sizeof(IMA_EVENT)));
    EXPECT_EQ(message.events.count, ITEMS);
    message_release(message);
}

TEST(HostileBytes, MessageBeyondTheLimitIsRefusedUnread)
{
    constexpr std::size_t size = MESSAGE_SIZE_MAX + std::size_t{1};
    void *unreadable = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);
    IMACacheBlock message;
    EXPECT_FALSE(message_decode(message_descriptor_of<IMACacheBlock>(),
                                {static_cast<const std::byte *>(unreadable), size}, &message));
    EXPECT_EQ(message.events.count, 0u);
    munmap(unreadable, size);
}

TEST(HostileBytes, FailedAllocationLeavesNothing)
{
    std::mt19937 random(6);
    for (const contract_message &type : contract_messages()) {
        SCOPED_TRACE(type.ours->name);
        std::string wire;
        while (wire.size() < 20)
            wire = random_message(type, random)->SerializeAsString();
        for (long refuse_count : {1L, 1L << 30}) {
            bool decoded = false;
            for (long n = 1; !decoded; ++n) {
                structure ours(*type.ours);
                heap.allocations = 0;
                heap.refuse_from = n;
                heap.refuse_count = refuse_count;
                decoded = ours.decode(wire);
                heap.refuse_from = 0;
                EXPECT_EQ(decoded, heap.allocations < n) << "allocation " << n;
                if (!decoded) {
                    EXPECT_TRUE(ours.is_empty());
                    ASSERT_EQ(heap.live_blocks, 0) << "allocation " << n;
                }
            }
        }
    }
}

} // namespace
