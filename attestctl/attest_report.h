// What `attest` says about a node.
#pragma once

#include <span>
#include <string>

#include "attestctl/check.h"
#include "attestctl/evidence.h"
#include "attestctl/options.h"

// What came, the checks and the verdict.
void append_report(std::string &out, const evidence &got, std::span<const check> checks, bool roots_pinned);

// The same as an object on a line: {"target" or "from", "error", "evidence": [...], and what
// append_json_checks says}; "error" is left out where there is none.
void append_json_report(std::string &out, const settings &chosen, const evidence &got,
                        std::span<const check> checks, bool roots_pinned, const std::string &error = {});
