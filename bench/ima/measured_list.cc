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

void parse_file(const std::string &path, const std::function<void(IMA_EVENT &)> &each)
{
    ima_log log;
    require(ima_log_open(log, path.c_str()) == 0, "the list cannot be opened");
    std::vector<IMA_EVENT> events(CHUNK);
    std::uint64_t number = 0;
    std::uint32_t status = 0;
    ima_record_outcome outcome = ima_record_outcome::read;
    while (outcome == ima_record_outcome::read) {
        std::size_t held = 0;
        for (; held < CHUNK && outcome == ima_record_outcome::read; ++held) {
            outcome = at_read_ima_record(log, held, &events[held], &status);
            events[held].event_num = ++number;
            if (outcome == ima_record_outcome::read)
                each(events[held]);
        }
        for (IMA_EVENT &event : std::span(events).first(held))
            message_release(event);
    }
    require(outcome == ima_record_outcome::end_of_log, "the list cannot be read");
}

} // namespace

const measured_list &the_list()
{
    static const measured_list list = [] {
        const char *said = std::getenv("ATTEST_BENCH_RECORDS");
        std::size_t records = said != nullptr ? std::strtoul(said, nullptr, 10) : 1'000'000;
        measured_list made{records, list_in_memory(records), {}, {}, 0};
        std::set<std::string> keys;
        parse_file(made.path, [&](const IMA_EVENT &event) {
            note_blocks(event, made.blocks);
            ++made.checked;
            keys.insert(event.event_name +
                        std::string(reinterpret_cast<const char *>(event.digest.data), event.digest.length));
        });
        made.keys.assign(keys.begin(), keys.end());
        std::shuffle(made.keys.begin(), made.keys.end(), std::mt19937(1));
        return made;
    }();
    return list;
}

void parse_list(const std::function<void(IMA_EVENT &)> &each)
{
    parse_file(the_list().path, each);
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
