// What attest-trace can do. Each returns its exit status: 0; 1 when there is nothing to work on, with one
// line on stderr.
#pragma once

#include <cstdio>
#include <string>

enum : int { EXIT_DONE = 0, EXIT_NOTHING = 1, EXIT_USAGE = 2 };

struct trace_place {
    std::string run_directory;
    std::string buffer;
};

// Prints the lines that are there.
int dump_lines(const trace_place &place);

// Prints the lines that are there and then those that come, until SIGINT or SIGTERM.
int follow_lines(const trace_place &place);

// Lists the flags with parent, own switch and what comes of it.
int list_flags(const trace_place &place);

// Switches a flag of the running agent.
int switch_flag(const trace_place &place, const std::string &name, bool on);

inline int complain(const std::string &problem)
{
    std::fprintf(stderr, "attest-trace: %s\n", problem.c_str());
    return EXIT_NOTHING;
}
