// The root certificates that the user trusts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct trusted_roots {
    std::string file; // as the user named it, fit for a terminal; empty: none was named, roots are not pinned
    std::vector<std::string> certificates; // DER

    bool demanded_by_pins = false; // those of the node that is judged, by checks of their own

    bool pinned() const { return !file.empty(); }
    // Whether something else than the evidence itself speaks for its root.
    bool vouched_for() const { return pinned() || demanded_by_pins; }
};

// Reads the file of --root: one certificate in DER, or any number of them in PEM. False, and `error` has one
// line, when it cannot be read or there is none in it.
bool read_roots(const std::string &path, trusted_roots &into, std::string &error);

// Whether it is byte for byte one of them.
bool is_trusted(const trusted_roots &roots, std::string_view der);
