// Evidence as a good node would send it, and the means to make it wrong in one point and sign it again: keys
// and certificates by OpenSSL, structures of the TPM by tss2-mu.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <tss2/tss2_tpm2_types.h>

#include "attestctl/evidence.h"
#include "attestctl/openssl_owners.h"
#include "attestctl/verify/roots.h"

struct pkey_deleter {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
using pkey_owner = std::unique_ptr<EVP_PKEY, pkey_deleter>;

// Made once; identity, rsa and second_identity are RSA-2048, the others P-256.
struct forge_keys {
    pkey_owner identity, rsa, root, ca, attestation, stranger, second_identity, second_attestation;
};
const forge_keys &keys();

struct certificate_plan {
    const char *subject;
    EVP_PKEY *key;
    const char *issuer;
    EVP_PKEY *issuer_key;
    const char *constraints = "critical,CA:FALSE"; // null: none
    const char *usage = "critical,digitalSignature";
    const char *extended_usage = nullptr;
    long from_s = -3600, to_s = 3600; // relative to now
    const EVP_MD *(*hash)() = EVP_sha256;
};
std::string make_certificate(const certificate_plan &plan); // DER
std::string pem_of(const std::string &der);

// The plans of a good chain.
certificate_plan root_plan(const char *name);
certificate_plan ca_plan(const char *root_name);
certificate_plan device_plan(EVP_PKEY *key);
certificate_plan attestation_plan(EVP_PKEY *key);

struct forged {
    evidence got;
    trusted_roots roots; // both of them: identity and attestation key have their own
    EVP_PKEY *identity_key, *attestation_key;
    std::uint16_t scheme = TPM2_ALG_ECDSA; // or RSASSA, RSAPSS
};

// One source of this name, everything good; all 24 PCRs asked for, hardware by the bank of this number.
forged good_evidence(const std::string &node_name = "rack1", std::uint32_t hash_algo = 1);
// The same of another device, a node's management controller.
forged good_second_source(const std::string &node_name);

// Signs both certificate records again.
void sign_certificates(forged &f);

// Makes the quote of the PCR values in the record (of hardware: PCR 15), lets `edit` change it, and signs it
// by `key` with `hash`.
using quote_edit = std::function<void(TPMS_ATTEST &)>;
void quote_pcrs(forged &f, const quote_edit &edit = {}, std::uint16_t hash = TPM2_ALG_SHA256);
void quote_hardware(forged &f, const quote_edit &edit = {});
// The signature of any bytes, as a TPMT_SIGNATURE.
std::string tpm_signature(const forged &f, const std::string &bytes, std::uint16_t hash = TPM2_ALG_SHA256);

std::string digest(const EVP_MD *algorithm, const std::string &data);

// Appends good events of PCR 10, one for each of so many files.
void grow(std::vector<api::IMA_EVENT> &list, std::size_t count);
// The template data of an event of those, and what PCR 10 of the SHA-256 bank holds after a list of them.
std::string template_data(const api::IMA_EVENT &event);
std::string replayed(const std::vector<api::IMA_EVENT> &list);
