// The judgement of what a node sent: rows for each of its sources.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "attestctl/check.h"
#include "attestctl/evidence.h"
#include "attestctl/verify/roots.h"

// What is judged. Each needs those before it of the same source: signatures are checked by the keys of the
// certificates.
enum class subject { identity, attestation_key, quote, boot_log, ima_list, hardware };

inline constexpr std::array EVERY_SUBJECT = {subject::identity, subject::attestation_key, subject::quote,
                                             subject::boot_log, subject::hardware,        subject::ima_list};

// One list of rows for the sources that any of these kinds of evidence came from, the node itself first. A
// source without a record of one kind fails there. Sources are told apart by the names of their nodes, and
// those of the same name by their order: but not in the messages of an IMA list, where they fail for that.
//
// With `bmc_roots` they are what is trusted for all sources but the first, and one that is alone fails for
// that.
std::vector<check> judge(const evidence &got, std::span<const subject> subjects, const trusted_roots &roots,
                         const trusted_roots *bmc_roots = nullptr);
