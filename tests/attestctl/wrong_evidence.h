// Evidence that is wrong in one point, and the checks that must notice it.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "attestctl/verify/judge.h"
#include "tests/attestctl/evidence_forge.h"

inline constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key, subject::quote,
                                        subject::boot_log, subject::hardware};

using strings = std::vector<std::string>;

// "OUTCOME NAME" of the checks that did not pass.
strings not_passed(const evidence &got, const trusted_roots &roots);
strings not_passed(const forged &f);

// The first source's records.
api::SystemCertificates &identity(forged &f);
api::SystemCertificates &attestation_key(forged &f);
api::NodePCRData &pcrs(forged &f);
google::protobuf::RepeatedPtrField<api::BOOT_EVENT> &events(forged &f);
api::tpm_hw_integrity &hardware(forged &f);

enum { ROOT, CA, DEVICE }; // places in a certificate record

void flip_bit(std::string &bytes); // the last byte's lowest

struct wrong {
    const char *what;
    std::function<void(forged &)> make;
    strings expected;
};

// Good evidence, made wrong by each in turn.
void expect_each(const std::vector<wrong> &cases);
