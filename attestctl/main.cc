#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "attestctl/client.h"
#include "attestctl/commands.h"
#include "attestctl/evidence.h"
#include "attestctl/options.h"
#include "attestctl/output.h"

namespace {

struct command_runner {
    command_id id;
    int (*run)(const settings &chosen, client &c);
};

constexpr auto RUNNERS = std::to_array<command_runner>({
    {command_id::certificate, run_certificate},
    {command_id::pcrs, run_pcrs},
    {command_id::boot_log, run_boot_log},
    {command_id::ima_log, run_ima_log},
    {command_id::hw_integrity, run_hw_integrity},
    {command_id::attest, run_attest},
});

int run(settings chosen)
{
    if (chosen.command == command_id::attest)
        chosen.largest_answer = LARGEST_MESSAGE;
    std::string error;
    const client_owner c = make_client(chosen, error);
    if (!c) {
        complain(error);
        return EXIT_USAGE;
    }
    for (const command_runner &row : RUNNERS)
        if (row.id == chosen.command)
            return row.run(chosen, *c);
    return EXIT_USAGE;
}

} // namespace

int main(int argc, char **argv)
{
    setenv("TSS2_LOG", "all+none", 0); // what the library has to say about bad structures, the checks say
    const std::vector<const char *> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    const parsed line = parse_command_line(arguments);
    switch (line.outcome) {
    case parse_outcome::run:
        return run(line.chosen);
    case parse_outcome::show:
        write_data(line.text);
        return flush_data() ? EXIT_DONE : EXIT_USAGE;
    case parse_outcome::usage:
        break;
    }
    complain(line.text + " (see attestctl --help)");
    return EXIT_USAGE;
}
