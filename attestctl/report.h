// Checks and their verdict, for people and for programs.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "attestctl/check.h"

// A line a check under a line a source, then the verdict.
void append_checks(std::string &out, std::span<const check> checks, bool roots_pinned);

// The members "checks":[{"source","name","outcome","reason"}], "roots_pinned", "verified" and "verdict" of an
// object, without braces around them. "source" is left out where a check is about all of them.
void append_json_checks(std::string &out, std::span<const check> checks, bool roots_pinned);

// "NAME":"VALUE"
void append_json_member(std::string &out, const char *name, std::string_view value);
