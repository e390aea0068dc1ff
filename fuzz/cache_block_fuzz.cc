// Block files and metadata of any bytes, found by the cache: it serves whole chunks in their places or
// nothing, recovers, and goes on.
//
// The input: how the metadata are made up (1 byte: 0, as a sound cache has them; else with bytes of the
// input), a count of blocks, the blocks (see add_block), then a byte an operation.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "platform/message_log.h"
#include "tests/ima_cache/source_list.h"

// Corrupt blocks are what this is about: the operator is not told of each.
void emit_errmsg(const message_record *, std::uint32_t, const char *) {}

namespace {

constexpr std::uint64_t CHUNKS = 3; // in a block
constexpr unsigned BLOCKS = 3;      // at most, that an input makes

// The directory, the metadata and their lock, for the life of the program.
struct fuzzed_cache {
    std::string directory = "/dev/shm/attest_fuzz_" + std::to_string(getpid());
    ima_cache_meta meta{};
    int semid = semget(IPC_PRIVATE, 2, IPC_CREAT | 0600);

    fuzzed_cache()
    {
        std::filesystem::create_directory(directory);
        at_ima_cache_limits = {CHUNKS * MAX_IMA_EVENTS, 100'000};
    }
    ~fuzzed_cache()
    {
        clear();
        std::filesystem::remove(directory);
        semctl(semid, 0, IPC_RMID);
    }
    void clear() const
    {
        for (const auto &entry : std::filesystem::directory_iterator(directory))
            remove_block(entry.path().c_str()); // also one that was made immutable
    }
};
fuzzed_cache fuzzed;

// The payload of the chunk that begins with this event; made once.
const std::string &good_payload(std::uint64_t first)
{
    static std::map<std::uint64_t, std::string> made;
    std::string &payload = made[first];
    if (payload.empty()) {
        const source_chunk chunk(first);
        auto *events = const_cast<IMA_EVENT *>(chunk.events.data());
        const IMACacheBlock message{IMACacheBlock::has_events, {events, MAX_IMA_EVENTS}};
        payload.resize(static_cast<std::size_t>(message_encoded_size(message)));
        message_encode(message, std::as_writable_bytes(std::span(payload)));
    }
    return payload;
}

void append_chunk(std::string &file, fuzz_input &input, std::uint64_t first)
{
    const std::uint8_t kind = input.u8();
    std::string payload;
    if (kind < 200)
        payload = good_payload(first);
    else if (kind < 220)
        payload = good_payload(1 + MAX_IMA_EVENTS * (input.u8() % 8)); // of another place
    else
        payload = input.text(input.u8());
    auto length = static_cast<std::uint32_t>(payload.size());
    if (kind >= 240)
        length += static_cast<std::uint32_t>(static_cast<std::int16_t>(input.u16()));
    file.append(reinterpret_cast<const char *>(&length), sizeof length).append(payload);
}

// Each field is a sound block's, with what the input adds to it.
cache_block_hdr make_header(fuzz_input &input, std::uint64_t first, std::uint64_t chunks, std::size_t size)
{
    auto off = [&input] { return static_cast<std::uint64_t>(static_cast<std::int8_t>(input.u8())); };
    const std::uint64_t events = chunks * MAX_IMA_EVENTS;
    cache_block_hdr header{};
    header.version = IMA_CACHE_BLOCK_VERSION + static_cast<std::uint32_t>(off());
    header.used_len = static_cast<std::uint32_t>(size + off());
    header.first_event = first + off();
    header.event_count = events + off() * MAX_IMA_EVENTS;
    header.start_offset = offset_behind(first - 1);
    header.end_offset = offset_behind(first - 1 + events);
    header.create_time = 1;
    header.end_time = chunks == CHUNKS ? 1 : static_cast<std::int64_t>(off());
    return header;
}

// A block behind the event: whether its header strays and its hash is right (1 byte), a count of chunks, the
// chunks, the header's strays, bytes that are changed before the hash is made (position, 2 bytes, and value).
// Returns the events that it claims.
std::uint64_t add_block(fuzz_input &input, unsigned index, std::uint64_t behind)
{
    const std::uint8_t how = input.u8();
    const std::uint64_t chunks = input.u8() % (CHUNKS + 1);
    std::string file(CACHE_BLOCK_HDR_LEN, '\0');
    for (std::uint64_t i = 0; i < chunks; ++i)
        append_chunk(file, input, behind + 1 + i * MAX_IMA_EVENTS);
    fuzz_input none;
    const cache_block_hdr header =
        make_header((how & 1) != 0 ? input : none, behind + 1, chunks, file.size());
    std::memcpy(file.data(), &header, sizeof header);
    if ((how & 2) != 0) {
        for (std::uint8_t changes = input.u8() % 8; changes != 0; --changes)
            file[input.u16() % file.size()] = static_cast<char>(input.u8());
    }
    const std::string path = block_path(fuzzed.meta, index).text;
    std::ofstream(path, std::ios::binary) << file;
    if ((how & 4) == 0) {
        sha256_digest hash{};
        std::uint32_t used = 0;
        std::memcpy(&used, file.data() + offsetof(cache_block_hdr, used_len), sizeof used);
        if (calculate_cache_block_hash(path.c_str(), static_cast<std::uint8_t>(index), used, hash) == 1) {
            ima_cache_ctx.block_hash_chain[index] = hash;
            std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
            out.write(reinterpret_cast<const char *>(hash.data()), hash.size());
        }
    }
    fuzzed.meta.blocks[index] = {header.first_event, header.event_count, header.start_offset};
    return chunks * MAX_IMA_EVENTS;
}

void make_cache(fuzz_input &input)
{
    fuzzed.clear();
    fuzzed.meta = {};
    ima_cache_ctx = {};
    ima_cache_ctx.meta = &fuzzed.meta;
    ima_cache_ctx.semid = fuzzed.semid;
    fuzzed.directory.copy(fuzzed.meta.cache_dir, CACHE_DIR_SIZE - 1);
    const std::uint8_t meta_bytes = input.u8();
    const unsigned blocks = input.u8() % (BLOCKS + 1);
    std::uint64_t events = 0;
    for (unsigned i = 0; i < blocks; ++i)
        events += add_block(input, i, events);
    ima_cache_meta &meta = fuzzed.meta;
    meta.cur_block = static_cast<std::uint8_t>(blocks == 0 ? 0 : blocks - (events % 3000 == 0 ? 0 : 1));
    meta.last_event = events;
    meta.tail_offset = offset_behind(events);
    // An object that is not sound is not used at all; of a sound one everything else may be wrong.
    const auto bytes = input.bytes(meta_bytes);
    if (!bytes.empty()) {
        std::memcpy(reinterpret_cast<std::uint8_t *>(&meta) + offsetof(ima_cache_meta, cur_block),
                    bytes.data(), bytes.size());
        meta.cur_block %= IMA_CACHE_MAX_BLOCKS;
    }
}

bool holds(const IMACacheBlock &message, std::uint64_t first)
{
    for (std::uint64_t i = 0; i < message.events.count; ++i) {
        if (message.events.items[i].event_num != first + i)
            return false;
    }
    return message.events.count == MAX_IMA_EVENTS;
}

// What is served is whole chunks, one behind the other within a block. The number of the first event behind
// what was served.
std::uint64_t read_from(std::uint64_t event)
{
    ima_cache_cursor at{};
    owned_message<IMACacheBlock> message;
    std::uint64_t next = 0;
    std::int32_t result = at_ima_cache_read_start(event, message.get(), &at.block, &at.offset, &at.fd);
    for (int block = -1; result == 1;) {
        if (at.block != block)
            next = message->events.items[0].event_num;
        block = at.block;
        require(holds(*message, next));
        next += MAX_IMA_EVENTS;
        message_release(*message);
        result = at_ima_cache_read_next(message.get(), &at.block, &at.offset, &at.fd);
    }
    at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
    return next;
}

void operate(std::uint8_t operation)
{
    std::uint64_t event = 0;
    std::uint64_t offset = 0;
    switch (operation % 4) {
    case 0:
        read_from(operation * std::uint64_t{50});
        break;
    case 1:
        at_ima_cache_find_file_offset(operation * std::uint64_t{50}, &event, &offset);
        break;
    case 2: {
        const std::int32_t known = at_ima_cache_get_last_offset(&offset, &event);
        source_chunk(known == 1 ? 1 + event % 100'000 : 1).add();
        break;
    }
    default:
        validate_all_blocks();
    }
}

// Whatever there was: a check leaves a cache that takes the next chunk.
void go_on()
{
    if (validate_all_blocks() != 1)
        return;
    const std::uint64_t last_event = fuzzed.meta.last_event;
    if (last_event % MAX_IMA_EVENTS != 0 || last_event > 10 * MAX_IMA_EVENTS)
        return; // of blocks whose hash was made right for what no agent writes
    if (source_chunk(last_event + 1).add() == 1)
        require(fuzzed.meta.last_event == last_event + MAX_IMA_EVENTS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input{{data, size}};
    make_cache(input);
    for (int operations = 0; !input.at_end() && operations < 16; ++operations)
        operate(input.u8());
    go_on();
    return 0;
}
