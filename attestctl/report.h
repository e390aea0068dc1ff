// Checks and their verdict, for people and for programs.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "attestctl/check.h"

// Where a row begins and what is left for its name, in columns.
struct row_layout {
    std::size_t indent;
    int name_width;
};

// The width of the terminal that is the standard output; 0: it is none, or does not say.
std::size_t output_columns();

// Appends the text, which begins in column `begin`, and a line break. What does not fit into so many columns
// is folded between words into lines that begin there too; 0 columns: nothing is.
void append_folded(std::string &out, std::size_t columns, std::size_t begin, std::string_view text);

// A row that fits the terminal that is the standard output: name, outcome and reason beside each other, or in
// a narrow one the reason under the name. Elsewhere, and where a terminal is wide enough, one line.
void append_row(std::string &out, const row_layout &layout, const std::string &name, const char *outcome,
                const std::string &reason);

// A row a check under a line a source, then the verdict.
void append_checks(std::string &out, std::span<const check> checks, bool roots_pinned);

// The members "checks":[{"source","name","outcome","reason"}], "roots_pinned", "verified" and "verdict" of an
// object, without braces around them. "source" is left out where a check is about all of them.
void append_json_checks(std::string &out, std::span<const check> checks, bool roots_pinned);

// "NAME":"VALUE"
void append_json_member(std::string &out, const char *name, std::string_view value);
