// What every command does with its results.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "attestctl/client.h"
#include "attestctl/commands.h"
#include "attestctl/json.h"
#include "attestctl/tables.h"

// Writes "attestctl: TEXT" and a line break to the error output.
void complain(std::string_view text);

// Writes to the standard output; `flush_data` says whether all of it got there, and complains if not.
void write_data(std::string_view data);
bool flush_data();

// The nonce that the user gave, or a fresh one; none, and a complaint, when there is no randomness.
std::optional<std::string> choose_nonce(const settings &chosen);

// Shows the answer of a one-shot question and gives the exit status. `what` names the evidence.
template <typename Answer>
int show(const settings &chosen, const ask_result &result, const Answer &answer, std::string_view what)
{
    if (result.status != ask_status::answered) {
        complain(result.text);
        return EXIT_USAGE;
    }
    std::string out;
    if (chosen.json) {
        append_json(out, answer);
        out += '\n';
    } else {
        append_table(out, answer);
    }
    write_data(out);
    if (!flush_data())
        return EXIT_USAGE;
    if (answer.node_data().empty()) {
        complain(chosen.target + " answered without evidence: no " + std::string(what));
        return EXIT_NO_EVIDENCE;
    }
    return EXIT_DONE;
}
