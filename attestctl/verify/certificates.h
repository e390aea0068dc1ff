// Certificates and the signature over nonce and certificates.
#pragma once

#include <string>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/check.h"
#include "attestctl/openssl_owners.h"
#include "attestctl/verify/roots.h"

// The certificates of a record, from its DER. An owner is empty where there is none that can be read.
struct certificate_set {
    x509_owner root, ca, device;
    std::string problem; // one line; empty when all three are there, under the names that were asked for
};

// `asked_name` as in the request; a node gives "Kestrin AIK" for a name that it does not know.
certificate_set read_certificates(const remote_attestation_api::SystemCertificates &record,
                                  const std::string &asked_name);

// Whether a certificate says that its key is for quotes: extended key usage tcg-kp-AIKCertificate.
bool is_for_attestation(const X509 &certificate);

// Adds the rows "SUBJECT certificates", "... chain", "... root" (with pinned roots), "... nonce" and
// "... signature". The nonce is the one that was sent; `identity` is the device identity's certificate, whose
// key signs for every certificate of the node, none where there is no such.
void check_certificates(check_list &list, const std::string &subject,
                        const remote_attestation_api::SystemCertificates &record, const certificate_set &set,
                        const std::string &nonce, const X509 *identity, const trusted_roots &roots);
