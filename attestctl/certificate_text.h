// What a certificate says.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Subject, issuer, validity and SHA-256 fingerprint of a DER certificate, a line each, fit for a terminal;
// bytes that are none give one line that says so.
std::vector<std::string> certificate_lines(std::string_view der);
