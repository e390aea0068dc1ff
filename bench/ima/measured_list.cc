#include "bench/ima/measured_list.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <set>
#include <sys/mman.h>
#include <unistd.h>

#include "ima/ima_record_reader.h"
#include "tests/support/ima_list.h"

namespace {

void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "ima_bench: %s\n", what);
        std::exit(1);
    }
}

std::string list_in_memory(std::size_t records)
{
    int file = memfd_create("list", 0);
    std::string bytes = ima_list(records, IMA_KIND_NG | IMA_KIND_SIG);
    for (std::string_view rest = bytes; !rest.empty();) {
        ssize_t written = write(file, rest.data(), rest.size());
        require(written > 0, "no memory for the list");
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    std::printf("list of %zu records, %zu bytes\n", records, bytes.size());
    return "/proc/self/fd/" + std::to_string(file);
}

void note_blocks(const IMA_EVENT &event, std::vector<std::uint32_t> &blocks)
{
    // In the order in which a record is read: the heap answers to it.
    auto text = [&](const char *copy) {
        blocks.push_back(static_cast<std::uint32_t>(std::strlen(copy) + 1));
    };
    auto bytes = [&](const message_bytes &copy) {
        if (copy.data != nullptr)
            blocks.push_back(static_cast<std::uint32_t>(copy.length));
    };
    bytes(event.template_hash);
    text(event.template_name);
    bytes(event.digest);
    text(event.digest_algo);
    text(event.event_name);
    bytes(event.signature);
    blocks.push_back(0);
}

std::size_t records_of_part(std::size_t records, std::size_t part)
{
    std::size_t whole = records / PARTS / CHUNK * CHUNK;
    return part + 1 < PARTS ? whole : records - whole * (PARTS - 1);
}

// At most `limit` events.
void parse_chunk(list_reading &reading, std::size_t limit, const std::function<void(IMA_EVENT &)> &each)
{
    std::span<IMA_EVENT> events = std::span(reading.events).first(limit);
    for (std::size_t index = 0; IMA_EVENT & event : events) {
        std::uint32_t status = 0;
        require(at_read_ima_record(reading.log, index++, &event, &status) == ima_record_outcome::read,
                "the list cannot be read");
        event.event_num = ++reading.event_number;
        each(event);
    }
    for (IMA_EVENT &event : events)
        message_release(event);
}

void parse_records(list_reading &reading, std::size_t records, const std::function<void(IMA_EVENT &)> &each)
{
    for (std::size_t limit = 0; records != 0; records -= limit) {
        limit = std::min(CHUNK, records);
        parse_chunk(reading, limit, each);
    }
}

void begin(list_reading &reading, const std::string &path)
{
    require(ima_log_open(reading.log, path.c_str()) == 0, "the list cannot be opened");
    reading.event_number = 0;
}

} // namespace

const measured_list &the_list()
{
    static const measured_list list = [] {
        const char *said = std::getenv("ATTEST_BENCH_RECORDS");
        std::size_t records = said != nullptr ? std::strtoul(said, nullptr, 10) : 1'000'000;
        measured_list made{records, list_in_memory(records), {}, {}, {}};
        std::set<std::string> keys;
        list_reading reading;
        begin(reading, made.path);
        for (std::size_t part = 0; part < PARTS; ++part) {
            std::size_t known = keys.size();
            made.parts[part].records = records_of_part(records, part);
            parse_records(reading, made.parts[part].records, [&](const IMA_EVENT &event) {
                note_blocks(event, made.blocks);
                keys.insert(event.event_name + std::string(reinterpret_cast<const char *>(event.digest.data),
                                                           event.digest.length));
            });
            made.parts[part].first_seen = keys.size() - known;
        }
        made.keys.assign(keys.begin(), keys.end());
        std::shuffle(made.keys.begin(), made.keys.end(), std::mt19937(1));
        return made;
    }();
    return list;
}

void parse_part(list_reading &reading, const std::function<void(IMA_EVENT &)> &each)
{
    std::size_t part = reading.next_part;
    if (part == 0)
        begin(reading, the_list().path);
    parse_records(reading, the_list().parts[part].records, each);
    reading.next_part = (part + 1) % PARTS;
}

void parse_list(const std::function<void(IMA_EVENT &)> &each)
{
    list_reading reading;
    for (std::size_t part = 0; part < PARTS; ++part)
        parse_part(reading, each);
}

void heap_and_read()
{
    static const std::vector<char> source(1 << 16, 's');
    std::vector<void *> held;
    std::size_t events = 0;
    auto release = [&] {
        for (void *block : held)
            std::free(block);
        held.clear();
    };
    for (std::uint32_t size : the_list().blocks) {
        if (size == 0) {
            if (++events % CHUNK == 0)
                release();
            continue;
        }
        void *block = std::malloc(size);
        std::memcpy(block, source.data(), size);
        held.push_back(block);
    }
    release();

    static std::vector<char> buffer(std::size_t{256} * 1024);
    int file = open(the_list().path.c_str(), O_RDONLY);
    while (read(file, buffer.data(), buffer.size()) > 0) {
    }
    close(file);
}
