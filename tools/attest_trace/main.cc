// attest-trace: reads the agent's debug trace and switches its flags, whether the agent runs or not.
#include <cstdio>
#include <getopt.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/run_directory.h"
#include "tools/attest_trace/commands.h"

namespace {

constexpr const char *HELP = R"(usage: attest-trace [--run-dir DIR] [--buffer NAME] COMMAND

  dump       print the lines of the debug trace, oldest first
  follow     print them, then go on as lines come, until interrupted
  flags      list the flags: parent, own switch, effective
  on FLAG    switch a flag of the running agent on
  off FLAG   ... and off

  --run-dir DIR   where the agent keeps the trace (default: ATTEST_RUN_DIR, or /run/attestation_agent)
  --buffer NAME   the trace buffer (default: attestation)
  --help          this text

A line is printed as: time (UTC), process id (with /thread id for other threads), text. Further lines of a
text are indented; control characters and bytes beyond ASCII are shown as \xNN.

Exit status: 0 done; 1 no buffer, no such flag or no running agent; 2 wrong usage.
)";

int usage_error(const std::string &problem)
{
    std::fprintf(stderr, "attest-trace: %s (see attest-trace --help)\n", problem.c_str());
    return EXIT_USAGE;
}

// The options, in front of the command. Gives an exit status when that was all.
std::optional<int> read_options(int argc, char **argv, trace_place &place)
{
    static const option options[] = {{"run-dir", required_argument, nullptr, 'r'},
                                     {"buffer", required_argument, nullptr, 'b'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {}};
    opterr = 0;
    for (int choice = 0; (choice = getopt_long(argc, argv, "+:h", options, nullptr)) != -1;) {
        switch (choice) {
        case 'r':
            place.run_directory = optarg;
            break;
        case 'b':
            place.buffer = optarg;
            break;
        case 'h':
            std::fputs(HELP, stdout);
            return EXIT_DONE;
        case ':':
            return usage_error("option " + std::string(argv[optind - 1]) + " needs a value");
        default:
            return usage_error("option " + std::string(argv[optind - 1]) + " is unknown or takes no value");
        }
    }
    if (place.buffer.empty() || place.buffer.find('/') != std::string::npos)
        return usage_error("\"" + place.buffer + "\" is no buffer name");
    return std::nullopt;
}

int run_command(std::span<char *const> words, const trace_place &place)
{
    if (words.empty())
        return usage_error("a command is missing");
    const std::string command = words[0];
    const bool switches = command == "on" || command == "off";
    if (!switches && command != "dump" && command != "follow" && command != "flags")
        return usage_error("unknown command \"" + command + "\"");
    if (words.size() != (switches ? 2 : 1))
        return usage_error(command + (switches ? " takes one flag" : " takes no arguments"));
    if (switches)
        return switch_flag(place, words[1], command == "on");
    if (command == "flags")
        return list_flags(place);
    return command == "dump" ? dump_lines(place) : follow_lines(place);
}

} // namespace

int main(int argc, char **argv)
{
    trace_place place{run_directory(), "attestation"};
    int result = 0;
    if (std::optional<int> done = read_options(argc, argv, place))
        result = *done;
    else
        result = run_command(std::span(argv, argc).subspan(static_cast<std::size_t>(optind)), place);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::perror("attest-trace: standard output");
        return EXIT_NOTHING;
    }
    return result;
}
