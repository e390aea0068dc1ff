// What a certificate says.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "attestctl/openssl_owners.h"

// A certificate from its DER encoding. None, and `error` says why, for anything else: also for bytes that
// follow it, and for an encoding that is not the one that DER has for it.
x509_owner read_certificate(std::string_view der, std::string &error);

// Its subject in quotes, fit for a terminal; quotes in it have a backslash before them.
std::string subject_text(const X509 &certificate);

// What a certificate says, each fit for a terminal.
struct certificate_facts {
    std::string subject, issuer, valid_from, valid_to;
    std::string key; // "RSA, 2048 bits"
    std::string sha256;
};
certificate_facts facts_of(const X509 &certificate, std::string_view der);

// Subject, issuer, validity and SHA-256 fingerprint of a DER certificate, a line each, fit for a terminal;
// bytes that are none give one line that says so.
std::vector<std::string> certificate_lines(std::string_view der);
