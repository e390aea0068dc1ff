// The certificate authority that certifies a node's keys.
#pragma once

#include <string>

#include "tools/attest_provision/certificates.h"

struct authority {
    x509_certificate issuing_ca;
    x509_certificate root;
    evp_pkey issuing_key;
    bool demonstration = false;
};

// The operator's CA: a PEM file with the certificate that issues first and the root second (one that is
// self-signed is both), and the PEM private key of the first. False with the reason said.
bool authority_load(const std::string &certificate_file, const std::string &key_file, authority &loaded);

// A CA made for this once, whose names say DEMONSTRATION; its private keys end with the program.
bool authority_make_demonstration(authority &made);

// Certifies a node's key; null with the reason said.
x509_certificate authority_certify(const authority &by, certificate_kind kind, const std::string &node_name,
                                   EVP_PKEY *key);
