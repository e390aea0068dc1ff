// bmc-simulator: stands in for a management controller that the agent relays requests to.
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <getopt.h>
#include <optional>

#include "tools/bmc_simulator/credentials.h"
#include "tools/bmc_simulator/faults.h"
#include "tools/bmc_simulator/report.h"
#include "tools/bmc_simulator/server.h"

namespace {

constexpr std::chrono::seconds NODE_LIMIT{60};

constexpr const char *HELP =
    R"(usage: bmc-simulator --node TARGET --authority FILE --credentials DIR [--listen HOST:PORT] [--fault-file FILE]
       bmc-simulator --list-faults

Answers relayed requests over HTTPS as a management controller does, with the evidence of a node of its own.

  --node TARGET      the agent that gives the evidence, as gRPC names it: HOST:PORT or unix:PATH
  --authority FILE   who certifies the nodes that may log in: issuing CA and root, in DER, one behind the other
  --credentials DIR  what the other end needs: DIR/cert.pem, its client certificate and key. Made, with DIR/ca.pem,
                     where they are missing
  --listen HOST:PORT default 169.254.0.17:443
  --fault-file FILE  while this file holds the name of a fault, the fault is in force
  --list-faults      the names

Each transfer is a line on stderr. Exit status: 0 listed; 2 wrong usage, or it cannot serve.
)";

struct options {
    server_settings server{"169.254.0.17", 443, {}, {}, {}};
    std::string node, authority, credentials;
};

bool take_address(const std::string &text, server_settings &into)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    into.host = text.substr(0, colon);
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, into.port);
    return error == std::errc() && rest == end && into.port > 0 && into.port <= 65535;
}

int list_faults()
{
    for (const fault &row : all_faults())
        std::printf("%-28s %s\n", std::string(row.name).c_str(), std::string(row.help).c_str());
    return EXIT_SUCCESS;
}

int usage_error(const std::string &problem)
{
    fail(problem + " (see bmc-simulator --help)");
    return EXIT_FAILED;
}

// One option; gives an exit status when it ends the program.
std::optional<int> take_option(int choice, options &given)
{
    switch (choice) {
    case 'n':
        given.node = optarg;
        return {};
    case 'a':
        given.authority = optarg;
        return {};
    case 'c':
        given.credentials = optarg;
        return {};
    case 'l':
        if (!take_address(optarg, given.server))
            return usage_error("--listen needs HOST:PORT");
        return {};
    case 'f':
        given.server.fault_file = optarg;
        return {};
    case 'i':
        return list_faults();
    case 'h':
        std::fputs(HELP, stdout);
        return EXIT_SUCCESS;
    default:
        return usage_error("an option that is unknown or lacks its value");
    }
}

int run(options &given)
{
    given.server.client_ca_file = given.credentials + '/' + CLIENT_CA_FILE;
    if (!check_fault_file(given.server.fault_file) || !make_client_credentials(given.credentials) ||
        !read_login_authority(given.authority, given.server.authority))
        return EXIT_FAILED;
    evidence_node node(given.node);
    if (!node.wait_until_reached(NODE_LIMIT)) {
        fail("no node answers at " + given.node);
        return EXIT_FAILED;
    }
    return serve(given.server, node) ? EXIT_SUCCESS : EXIT_FAILED;
}

int execute(int argc, char **argv)
{
    static const option table[] = {{"node", required_argument, nullptr, 'n'},
                                   {"authority", required_argument, nullptr, 'a'},
                                   {"credentials", required_argument, nullptr, 'c'},
                                   {"listen", required_argument, nullptr, 'l'},
                                   {"fault-file", required_argument, nullptr, 'f'},
                                   {"list-faults", no_argument, nullptr, 'i'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {}};
    options given;
    opterr = 0;
    for (int choice = 0; (choice = getopt_long(argc, argv, ":", table, nullptr)) != -1;)
        if (const std::optional<int> end = take_option(choice, given))
            return *end;
    if (optind < argc || given.node.empty() || given.authority.empty() || given.credentials.empty())
        return usage_error("--node, --authority and --credentials are needed");
    std::signal(SIGPIPE, SIG_IGN); // clients go away as they like
    return run(given);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return execute(argc, argv);
    } catch (const std::exception &error) {
        fail(error.what());
        return EXIT_FAILED;
    }
}
