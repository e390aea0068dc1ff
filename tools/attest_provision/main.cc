// attest-provision: gives a node its keys, certificates and reference list.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <getopt.h>
#include <optional>

#include "platform/node_identity.h"
#include "platform/tpm/linux_ipc.h"
#include "platform/tpm/manifest.h"
#include "tools/attest_provision/commands.h"
#include "tools/attest_provision/report.h"

namespace {

constexpr const char *HELP =
    R"(usage: attest-provision [--tpm TPM] [--dir DIR] [--ca-cert FILE --ca-key FILE] [--node-name NAME] [--force]
       attest-provision [--tpm TPM] [--dir DIR] --check
       attest-provision [--dir DIR] --show

Makes the node's keys in its TPM, has them certified, records the identifiers of the board's chips and extends PCR
15 with them.

  --tpm TPM         device:PATH or swtpm:path=SOCKET (default: ATTEST_TPM, or device:/dev/tpmrm0). A software TPM
                    serves one connection at a time: stop the agent first.
  --dir DIR         where certificates and manifest go (default: the folder of ATTEST_TRUST_ANCHOR, or
                    /etc/attestation_agent)
  --ca-cert FILE    PEM: the certificate that issues, then the root; one that is self-signed is both
  --ca-key FILE     PEM: the private key of the first. Without a CA one is made for demonstration, says so in its
                    names, and forgets its keys.
  --node-name NAME  for the certificates (default: ATTEST_NODE_NAME, or the host name)
  --force           replace the keys and certificates of a provisioned node
  --show            print what the node has been given
  --check           check it: keys, certificates, chains, board and PCR 15. Extends PCR 15 if that is due.
  --help            this text

Exit status: 0 done, all well; 1 already provisioned, not provisioned, or a check found a fault; 2 wrong usage, or it
could not be done. When interrupted, the node is as it was or as it shall be; the next run clears the rest away.
)";

enum class command { provision, show, check };

struct settings {
    provision_options options;
    command chosen = command::provision;
    bool node_name_given = false;
};

int usage_error(const std::string &problem)
{
    complain(problem + " (see attest-provision --help)");
    return EXIT_FAILED;
}

// One option; gives an exit status when it ends the program.
std::optional<int> take_option(int choice, settings &given)
{
    switch (choice) {
    case 't':
        setenv("ATTEST_TPM", optarg, 1);
        return {};
    case 'd':
        given.options.manifest_path = std::string(optarg) + "/trust_anchor.json";
        return {};
    case 'c':
        given.options.ca_certificate = optarg;
        return {};
    case 'k':
        given.options.ca_key = optarg;
        return {};
    case 'n':
        given.options.node_name = optarg;
        given.node_name_given = true;
        return {};
    case 'f':
        given.options.force = true;
        return {};
    case 's':
        given.chosen = command::show;
        return {};
    case 'v':
        given.chosen = command::check;
        return {};
    case 'h':
        std::fputs(HELP, stdout);
        return EXIT_DONE;
    case ':':
        return usage_error("an option lacks its value");
    default:
        return usage_error("unknown option");
    }
}

// The settings that the options leave open, and what does not go together.
std::optional<int> complete(settings &given)
{
    provision_options &options = given.options;
    tpm_address address;
    if (options.ca_certificate.empty() != options.ca_key.empty())
        return usage_error("--ca-cert and --ca-key go together");
    if (!tpm_address_parse(std::getenv("ATTEST_TPM"), address))
        return usage_error("the TPM is neither device:PATH nor swtpm:path=SOCKET");
    if (options.manifest_path.empty())
        options.manifest_path = manifest_path();
    // The client library, with which --check looks at the node, finds it there.
    setenv("ATTEST_TRUST_ANCHOR", options.manifest_path.c_str(), 1);
    if (given.node_name_given)
        setenv("ATTEST_NODE_NAME", options.node_name.c_str(), 1);
    char name[32]; // as long as the agent's
    if (platform_get_node_name(name, sizeof name) != 0)
        return usage_error("the node name is not 1 to 31 printable characters");
    options.node_name = name;
    return {};
}

int execute(int argc, char **argv)
{
    static const option options[] = {{"tpm", required_argument, nullptr, 't'},
                                     {"dir", required_argument, nullptr, 'd'},
                                     {"ca-cert", required_argument, nullptr, 'c'},
                                     {"ca-key", required_argument, nullptr, 'k'},
                                     {"node-name", required_argument, nullptr, 'n'},
                                     {"force", no_argument, nullptr, 'f'},
                                     {"show", no_argument, nullptr, 's'},
                                     {"check", no_argument, nullptr, 'v'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {}};
    settings given;
    opterr = 0;
    for (int choice = 0; (choice = getopt_long(argc, argv, ":", options, nullptr)) != -1;) {
        if (const std::optional<int> end = take_option(choice, given))
            return *end;
    }
    if (optind < argc)
        return usage_error(std::string("what is \"") + argv[optind] + "\"?");
    if (const std::optional<int> end = complete(given))
        return *end;
    setenv("TSS2_LOG", "all+none", 0); // its words come with the statuses
    switch (given.chosen) {
    case command::show:
        return show(given.options.manifest_path);
    case command::check:
        return check(given.options.manifest_path);
    case command::provision:
        break;
    }
    return provision(given.options);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return execute(argc, argv);
    } catch (const std::exception &error) {
        complain(error.what()); // out of memory
        return EXIT_FAILED;
    }
}
