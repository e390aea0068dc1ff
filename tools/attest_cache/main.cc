// attest-cache: shows and verifies the cache of the kernel's measurement list, whether the agent runs or not.
#include <cstdio>
#include <getopt.h>
#include <optional>
#include <string>
#include <unistd.h>

#include "tools/attest_cache/commands.h"

namespace {

constexpr const char *HELP = R"(usage: attest-cache [--dir DIR] COMMAND

  list     print the blocks as a table, and how full the cache is
  verify   check the hashes, that every event of every block can be read and has the number that
           its place announces, that no block is missing, and that the metadata agree

  --dir DIR   the directory of a cache, by itself (a copy, or one of an earlier boot); default: the
              cache of this machine's agent
  --help      this text

Columns: first and last event of the block; where in the kernel's list they lie (from offset, to offset);
bytes of the file; sealed: yes, no, or "writable" where the file system knows no immutable files; hash: ok, or
what is wrong with the file.

Nothing is changed. Of the agent's lock only the reader's side is taken, while the metadata are copied; the
agent may go on appending.

Exit status: 0 done, and with verify: sound; 1 not sound; 2 wrong usage; 3 no cache.
)";

// What an agent that appends leaves behind its metadata for a moment is no fault: it is looked at again.
constexpr int TRIES = 3;
constexpr useconds_t PAUSE_US = 100'000;

int usage_error(const std::string &problem)
{
    std::fprintf(stderr, "attest-cache: %s (see attest-cache --help)\n", problem.c_str());
    return EXIT_USAGE;
}

// The options, in front of the command. Gives an exit status when that was all.
std::optional<int> read_options(int argc, char **argv, std::string &directory)
{
    static const option options[] = {
        {"dir", required_argument, nullptr, 'd'}, {"help", no_argument, nullptr, 'h'}, {}};
    opterr = 0;
    for (int choice = 0; (choice = getopt_long(argc, argv, "+:h", options, nullptr)) != -1;) {
        if (choice == 'd') {
            directory = optarg;
        } else if (choice == 'h') {
            std::fputs(HELP, stdout);
            return EXIT_SOUND;
        } else {
            return usage_error("option " + std::string(argv[optind - 1]) +
                               (choice == ':' ? " needs a value" : " is unknown or takes no value"));
        }
    }
    if (optind + 1 != argc)
        return usage_error(optind == argc ? "a command is missing" : "there is one command");
    return std::nullopt;
}

std::optional<cache_view> look(const std::string &directory)
{
    cache_view cache;
    cache.directory = directory;
    if (directory.empty()) {
        std::string problem;
        cache.meta = read_metadata(problem);
        if (!cache.meta) {
            std::fprintf(stderr, "attest-cache: %s\n", problem.c_str());
            return std::nullopt;
        }
        cache.directory = cache.meta->cache_dir;
    }
    if (access(cache.directory.c_str(), R_OK | X_OK) != 0) {
        std::perror(("attest-cache: " + cache.directory).c_str());
        return std::nullopt;
    }
    look_at_blocks(cache);
    return cache;
}

int list(const std::string &directory)
{
    std::optional<cache_view> cache = look(directory);
    if (!cache)
        return EXIT_NO_CACHE;
    print_table(*cache);
    return EXIT_SOUND;
}

int verify(const std::string &directory)
{
    std::vector<std::string> faults;
    for (int i = 0; i < TRIES; ++i) {
        if (i > 0)
            usleep(PAUSE_US);
        std::optional<cache_view> cache = look(directory);
        if (!cache)
            return EXIT_NO_CACHE;
        faults = find_faults(*cache);
        if (faults.empty()) {
            std::printf("sound: %zu blocks, %lu events\n", cache->blocks.size(),
                        static_cast<unsigned long>(
                            cache->blocks.empty() ? 0 : last_event_of(cache->blocks.back().header)));
            return EXIT_SOUND;
        }
        if (!cache->meta)
            break;
    }
    for (const std::string &fault : faults)
        std::printf("%s\n", fault.c_str());
    std::puts("NOT SOUND");
    return EXIT_NOT_SOUND;
}

} // namespace

int main(int argc, char **argv)
{
    std::string directory;
    if (std::optional<int> done = read_options(argc, argv, directory))
        return *done;
    const std::string command = argv[optind];
    int result = EXIT_USAGE;
    if (command == "list")
        result = list(directory);
    else if (command == "verify")
        result = verify(directory);
    else
        return usage_error("unknown command \"" + command + "\"");
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::perror("attest-cache: standard output");
        return EXIT_NOT_SOUND;
    }
    return result;
}
