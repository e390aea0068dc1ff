// The parts of the page, in their order.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "attestctl/html/page.h"
#include "attestctl/verify/sources.h"

// One source, with everything that came from it.
struct page_source {
    std::string name; // fit to be read, as the checks have it
    source records;
    const ima_list *replayed = nullptr; // none came: nullptr
    const shown_ima_list *ima = nullptr;
    std::optional<std::uint64_t> uptime_s{};
};

// The node itself first.
std::vector<page_source> page_sources(const page_input &input);

void append_verdict(html &out, const page_input &input);
void append_evidence(html &out, const page_input &input);
void append_check_tables(html &out, const page_input &input);
void append_certificates(html &out, const page_input &input, const std::vector<page_source> &sources);
void append_pcrs(html &out, const page_input &input, const std::vector<page_source> &sources);
void append_hardware(html &out, const page_input &input, const std::vector<page_source> &sources);
void append_boot_logs(html &out, const std::vector<page_source> &sources);
void append_ima_lists(html &out, const std::vector<page_source> &sources);

// A section's head, and a source's within it: each section has the sources side by side where there is room.
void open_section(html &out, markup id, markup title, markup lead);
void close_section(html &out);
// A source of which nothing of the section `came` leaves its place to the others.
void open_source(html &out, const page_source &from, bool came, const std::string &content = {});
void close_source(html &out);

// "pass", "FAIL" or "not made", in its colour.
void append_outcome(html &out, check_outcome outcome);

// The check of this name of this source; none was made: nullptr.
const check *find_check(const page_input &input, const page_source &from, std::string_view name);

// A search field over the tables of the section's source; it is there when scripts run.
void append_search(html &out, markup label, bool with_marks);

// A digest with its picture; zeros and ones by their names.
void append_digest(html &out, std::string_view digest);

// What a quote says, as terms and descriptions.
void append_quote(html &out, const std::string *quote, const std::string &nonce);
