#include "attestctl/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "attestctl/checks_help.h"
#include "attestctl/text.h"

namespace {

// Takes the value into the settings; false when it is none, for which the row's `value_rule` has the words.
using taker = bool (*)(settings &into, std::string_view value);

template <typename T>
bool to_number(std::string_view text, T &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool take_target(settings &into, std::string_view value)
{
    into.target = value;
    return is_target(value);
}

template <auto Member>
bool take_seconds(settings &into, std::string_view value)
{
    constexpr double LONGEST_S = 86400;
    double seconds = 0;
    if (!to_number(value, seconds) || !std::isfinite(seconds) || seconds < 0.001 || seconds > LONGEST_S)
        return false;
    into.*Member = std::chrono::milliseconds(std::llround(seconds * 1000));
    return true;
}

bool take_jobs(settings &into, std::string_view value)
{
    constexpr std::size_t MOST = 256; // a thread each
    return to_number(value, into.jobs) && into.jobs > 0 && into.jobs <= MOST;
}

bool take_nonce(settings &into, std::string_view value)
{
    return from_hex(value, into.nonce.emplace());
}

bool take_pcrs(settings &into, std::string_view value)
{
    constexpr std::size_t MOST = 255; // what a request may list
    into.pcrs.clear();
    for (;;) {
        const std::size_t comma = value.find(',');
        std::uint32_t index = 0;
        if (!to_number(value.substr(0, comma), index) || into.pcrs.size() == MOST)
            return false;
        into.pcrs.push_back(index);
        if (comma == std::string_view::npos)
            return true;
        value.remove_prefix(comma + 1);
    }
}

bool take_format(settings &into, std::string_view value)
{
    if (value != "cel-json" && value != "raw")
        return false;
    into.format = value == "raw" ? log_format::raw : log_format::cel_json;
    return true;
}

template <auto Member>
bool take_text(settings &into, std::string_view value)
{
    into.*Member = std::string(value);
    return !value.empty();
}

template <auto Member>
bool take_integer(settings &into, std::string_view value)
{
    return to_number(value, (into.*Member).emplace());
}

template <auto Member>
bool take_flag(settings &into, std::string_view)
{
    return into.*Member = true;
}

constexpr unsigned EVERY = ~0U;
constexpr unsigned LOGS = of(command_id::boot_log) | of(command_id::ima_log);

struct option_row {
    std::string_view name;
    std::string_view value; // what stands behind it; empty: nothing does
    unsigned commands;
    taker take;
    std::string_view help;
    std::string_view value_rule; // of a value that is refused: "must be ..."
};

constexpr std::string_view NEEDS_TEXT = "must not be empty";
constexpr std::string_view NEEDS_SECONDS = "must be a number of seconds from 0.001 to 86400";
constexpr std::string_view NEEDS_NUMBER = "must be a number from 0 to 18446744073709551615";

constexpr auto OPTIONS = std::to_array<option_row>({
    {"--target", "HOST:PORT", EVERY, take_target, "the node to ask (default 127.0.0.1:50551)",
     "must be HOST:PORT, an IPv6 address in brackets"},
    {"--ca", "FILE", EVERY, take_text<&settings::ca_file>, "certificates that vouch for the node, PEM",
     NEEDS_TEXT},
    {"--cert", "FILE", EVERY, take_text<&settings::cert_file>, "own certificate, PEM", NEEDS_TEXT},
    {"--key", "FILE", EVERY, take_text<&settings::key_file>, "own private key, PEM", NEEDS_TEXT},
    {"--server-name", "NAME", EVERY, take_text<&settings::server_name>,
     "name in the node's certificate, where it is not HOST", NEEDS_TEXT},
    {"--timeout", "SECONDS", EVERY, take_seconds<&settings::timeout>,
     "longest wait for an answer, or between the messages of a stream (default 30); for a connection 5 at "
     "most",
     NEEDS_SECONDS},
    {"--json", "", EVERY, take_flag<&settings::json>, "one JSON object a line", ""},

    {"--root", "FILE", CERTIFICATES, take_text<&settings::root_file>,
     "the root certificates that are trusted: one in DER, or several in PEM", NEEDS_TEXT},
    {"--bmc-root", "FILE", CERTIFICATES, take_text<&settings::bmc_root_file>,
     "the BMC's, whose evidence then has to come (default: those of --root)", NEEDS_TEXT},
    {"--state", "FILE", of(command_id::attest), take_text<&settings::state_file>,
     "how far IMA lists were verified: asks only for what is new (made if absent)", NEEDS_TEXT},
    {"--pin", "FILE", of(command_id::attest), take_text<&settings::pin_file>,
     "keep what the node is like at first, and demand it later (made if absent)", NEEDS_TEXT},
    {"--targets", "FILE", of(command_id::attest), take_text<&settings::targets_file>,
     "attest many nodes: HOST:PORT a line, '#' begins a comment; a result a line", NEEDS_TEXT},
    {"--jobs", "N", of(command_id::attest), take_jobs, "nodes that are asked at the same time (default 32)",
     "must be a number from 1 to 256"},
    {"--node-timeout", "SECONDS", of(command_id::attest), take_seconds<&settings::node_timeout>,
     "longest time for all of one node, with --targets (default 600)", NEEDS_SECONDS},
    {"--html", "FILE", of(command_id::attest), take_text<&settings::html_file>,
     "write all of it as one page to look at, too", NEEDS_TEXT},
    {"--name", "NAME", of(command_id::certificate), take_text<&settings::cert_name>,
     "\"Kestrin VOXA\" or \"Kestrin AIK\" (default: the node's choice, the latter)", NEEDS_TEXT},
    {"--nonce", "HEX", of(command_id::certificate) | of(command_id::pcrs) | of(command_id::hw_integrity),
     take_nonce, "nonce of the request (default: 32 fresh random bytes; '' for none)",
     "must be an even number of hexadecimal digits"},
    {"--pcr", "N,N,...", of(command_id::pcrs), take_pcrs, "PCRs to quote, in this order (required)",
     "must be a list such as 0,7,10 with at most 255 numbers"},
    {"--start", "N", of(command_id::ima_log), take_integer<&settings::start>,
     "begin after event N (default: at the first)", NEEDS_NUMBER},
    {"--count", "K", of(command_id::ima_log), take_integer<&settings::count>,
     "about how many events, in whole chunks of 1000 (default: all)", NEEDS_NUMBER},
    {"--stream", "", of(command_id::ima_log), take_flag<&settings::stream>,
     "as a stream, for lists of any length", ""},
    {"--format", "FORMAT", LOGS, take_format,
     "one node's log as cel-json (Canonical Event Log) or raw (the kernel's file)",
     "must be cel-json or raw"},
    {"--source", "NAME", LOGS, take_text<&settings::source>,
     "with --format: the node whose log it is, where several answer", NEEDS_TEXT},
    {"--hash-algo", "N", of(command_id::hw_integrity), take_integer<&settings::hash_algo>,
     "0 SHA-1, 1 SHA-256, 2 SHA-384, 3 SHA-512 (default: the node's, SHA-256)",
     "must be a number from 0 to 4294967295"},
    {"--save", "DIR", of(command_id::attest), take_text<&settings::save_directory>,
     "make DIR and write questions and answers into it, a file each", NEEDS_TEXT},
    {"--from", "DIR", of(command_id::attest), take_text<&settings::from_directory>,
     "verify what --save wrote, and ask nobody", NEEDS_TEXT},
});

struct command_row {
    command_id id;
    std::string_view name, help;
};

constexpr auto COMMANDS = std::to_array<command_row>({
    {command_id::certificate, "certificate", "certificates of the node, signed over a nonce"},
    {command_id::pcrs, "pcrs", "PCR values and a quote over them"},
    {command_id::boot_log, "boot-log", "event log of the measured boot"},
    {command_id::ima_log, "ima-log", "runtime measurement list of the kernel"},
    {command_id::hw_integrity, "hw-integrity", "digests of the board's chips and a quote over PCR 15"},
    {command_id::attest, "attest", "ask for everything and judge it"},
});

constexpr std::string_view NOTES =
    R"(
In JSON, bytes are hexadecimal; event_name, template_name and digest_algo are text, in which \\
stands for a backslash and \xNN for a byte that is not UTF-8. The commands that check something
add an object with "checks" (a list of "source", "name", "outcome", "reason"), "roots_pinned",
"verified" and "verdict".

Exit status: 0 done; 1 evidence that is missing or does not verify; 2 usage or connection;
130 a stream was interrupted.
)";

void append_options(std::string &out, unsigned commands)
{
    for (const option_row &row : OPTIONS) {
        const bool general = row.commands == EVERY;
        if (general != (commands == EVERY) || (row.commands & commands) == 0)
            continue;
        const std::string left =
            std::string(row.name) + (row.value.empty() ? "" : " ") + std::string(row.value);
        out += format("  %-20s %s\n", left.c_str(), std::string(row.help).c_str());
    }
}

std::string program_help()
{
    std::string out = "Usage: attestctl [OPTION]... COMMAND [OPTION]...\n"
                      "Ask a node for remote-attestation evidence, and verify it.\n\nCommands:\n";
    for (const command_row &row : COMMANDS)
        out += format("  %-20s %s\n", std::string(row.name).c_str(), std::string(row.help).c_str());
    out += "\nOptions, before or after the command:\n";
    append_options(out, EVERY);
    out += "  --help               this text, or that of a command\n"
           "  --version            the version\n";
    return out + std::string(NOTES);
}

std::string command_help(const command_row &command)
{
    std::string own;
    append_options(own, of(command.id));
    std::string out = "Usage: attestctl [OPTION]... " + std::string(command.name) + " [OPTION]...\n";
    out += "Ask for the " + std::string(command.help) + ".\n";
    if (command.id == command_id::attest)
        out = "Usage: attestctl [OPTION]... attest\n"
              "Ask for every kind of evidence with fresh nonces, check it, say VERIFIED or NOT VERIFIED.\n";
    append_checks_help(out, command.id);
    if (!own.empty())
        out += "\nOptions of this command:\n" + own;
    out += "\nGeneral options:\n";
    append_options(out, EVERY);
    return out + std::string(NOTES);
}

const command_row *find_command(std::string_view name)
{
    const auto *row = std::find_if(COMMANDS.begin(), COMMANDS.end(),
                                   [name](const command_row &candidate) { return candidate.name == name; });
    return row == COMMANDS.end() ? nullptr : row;
}

const option_row *find_option(std::string_view name)
{
    const auto *row = std::find_if(OPTIONS.begin(), OPTIONS.end(),
                                   [name](const option_row &candidate) { return candidate.name == name; });
    return row == OPTIONS.end() ? nullptr : row;
}

struct usage_error {
    std::string text; // empty: none
};

bool has(const std::vector<const option_row *> &used, std::string_view name)
{
    return std::any_of(used.begin(), used.end(), [name](const option_row *row) { return row->name == name; });
}

usage_error many_nodes_error(const settings &chosen, const std::vector<const option_row *> &used)
{
    const bool many = !chosen.targets_file.empty();
    for (const char *name : {"--jobs", "--node-timeout"})
        if (has(used, name) && !many)
            return {std::string(name) + " needs --targets"};
    for (const char *name : {"--target", "--save", "--from", "--html"})
        if (has(used, name) && many)
            return {std::string(name) + " is for one node, and does not go with --targets"};
    return {};
}

// What only the whole command line can tell. `used` are the options that it had.
usage_error whole_line_error(const settings &chosen, const command_row *command,
                             const std::vector<const option_row *> &used)
{
    if (command == nullptr)
        return {"a command is missing"};
    for (const option_row *row : used)
        if ((row->commands & of(command->id)) == 0)
            return {std::string(row->name) + " is no option of " + std::string(command->name)};
    const bool any = !chosen.ca_file.empty() || !chosen.cert_file.empty() || !chosen.key_file.empty();
    const bool all = !chosen.ca_file.empty() && !chosen.cert_file.empty() && !chosen.key_file.empty();
    if (any && !all)
        return {"--ca, --cert and --key are given together or not at all"};
    if (!chosen.server_name.empty() && !all)
        return {"--server-name needs --ca, --cert and --key"};
    if (command->id == command_id::pcrs && chosen.pcrs.empty())
        return {"pcrs needs --pcr"};
    if (chosen.json && chosen.format != log_format::table)
        return {"--json and --format exclude each other"};
    if (!chosen.source.empty() && chosen.format == log_format::table)
        return {"--source needs --format"};
    if (!chosen.save_directory.empty() && !chosen.from_directory.empty())
        return {"--save and --from exclude each other"};
    if (usage_error error = many_nodes_error(chosen, used); !error.text.empty())
        return error;
    if (!chosen.pin_file.empty() && !chosen.from_directory.empty())
        return {"--pin does not go with --from"};
    if (!chosen.state_file.empty() && !(chosen.save_directory.empty() && chosen.from_directory.empty()))
        return {"--state does not go with --save and --from, which are of whole lists"};
    return {};
}

struct line_state {
    settings chosen;
    const command_row *command = nullptr;
    std::vector<const option_row *> used;
    bool help = false, version = false;
};

// Takes the option at arguments[i] and moves `i` to the last argument that it used.
usage_error take_option(line_state &line, std::span<const char *const> arguments, std::size_t &i)
{
    const std::string_view argument = arguments[i];
    const std::size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const std::string shown = printable(name);
    const bool attached = equals != std::string_view::npos;
    if (!attached && (name == "--help" || name == "-h"))
        return line.help = true, usage_error{};
    if (!attached && name == "--version")
        return line.version = true, usage_error{};
    const option_row *row = find_option(name);
    if (row == nullptr)
        return {"unknown option " + shown};
    if (std::find(line.used.begin(), line.used.end(), row) != line.used.end())
        return {shown + " is given twice"};
    line.used.push_back(row);
    if (row->value.empty()) {
        if (attached)
            return {shown + " takes no value"};
        row->take(line.chosen, {});
        return {};
    }
    if (!attached && i + 1 == arguments.size())
        return {shown + " needs a value: " + shown + " " + std::string(row->value)};
    const std::string_view value = attached ? argument.substr(equals + 1) : std::string_view(arguments[++i]);
    if (!row->take(line.chosen, value))
        return {shown + " " + std::string(row->value_rule) + ", not \"" + printable(value, 80) + '"'};
    return {};
}

usage_error take_command(line_state &line, std::string_view name)
{
    if (line.command != nullptr)
        return {"unexpected \"" + printable(name, 80) + "\" after " + std::string(line.command->name)};
    line.command = find_command(name);
    if (line.command == nullptr)
        return {"unknown command \"" + printable(name, 80) + '"'};
    line.chosen.command = line.command->id;
    return {};
}

} // namespace

bool is_target(std::string_view value)
{
    // An IPv6 address has brackets, so that its port can be told.
    const bool bracketed = value.starts_with('[');
    const std::size_t colon = bracketed ? value.find("]:") + 1 : value.find(':');
    if (colon == 0 || colon >= value.size() || (bracketed && colon <= 2))
        return false;
    const std::string_view port = value.substr(colon + 1);
    std::uint16_t number = 0;
    if (!to_number(port, number) || number == 0)
        return false;
    const auto outside_of_a_host = [](char c) { return c <= ' ' || c == '/' || c == ',' || c == 0x7f; };
    return std::none_of(value.begin(), value.end(), outside_of_a_host);
}

parsed parse_command_line(std::span<const char *const> arguments)
{
    line_state line;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        const usage_error error =
            argument.starts_with('-') ? take_option(line, arguments, i) : take_command(line, argument);
        if (!error.text.empty())
            return {parse_outcome::usage, {}, error.text};
    }
    if (line.help)
        return {
            parse_outcome::show, {}, line.command != nullptr ? command_help(*line.command) : program_help()};
    if (line.version)
        return {parse_outcome::show, {}, "attestctl " ATTESTCTL_VERSION "\n"};
    if (usage_error error = whole_line_error(line.chosen, line.command, line.used); !error.text.empty())
        return {parse_outcome::usage, {}, error.text};
    return {parse_outcome::run, line.chosen, {}};
}
