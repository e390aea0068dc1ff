// PCR values and the quote over them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/check.h"
#include "attestctl/openssl_owners.h"
#include "attestctl/verify/hashes.h"

using pcr_list = google::protobuf::RepeatedPtrField<remote_attestation_api::PCR_DUMP>;

// What was asked for.
struct quote_request {
    std::vector<std::uint32_t> pcrs; // in the order of the request, also more than once
    const hash_algorithm *bank;
    std::string nonce;
};

// What came, in either kind of record. Nothing here is owned.
struct quote_answer {
    const pcr_list *pcrs;
    const std::string *quote;     // TPMS_ATTEST; none: nullptr
    const std::string *signature; // TPMT_SIGNATURE; none: nullptr
};
template <typename Record>
quote_answer quote_of(const Record &record)
{
    return {&record.pcrs(), record.has_quote() ? &record.quote() : nullptr,
            record.has_quote_signature() ? &record.quote_signature() : nullptr};
}

// Adds the rows "SUBJECT values", "... form", "... nonce", "... selection", "... digest" and "... signature".
// `attestation_key` is the certificate of the key that signs, none where there is no such.
void check_quote(check_list &list, const std::string &subject, const quote_request &asked,
                 const quote_answer &answer, const X509 *attestation_key);

// Which boot the TPM was in when it quoted: PCRs that it had at another one do not lead to its values.
struct boot_counts {
    std::uint32_t resets = 0, restarts = 0;
    bool operator==(const boot_counts &) const = default;
};
// None where there is no whole quote; whether it is worth anything is not asked here.
std::optional<boot_counts> boot_of(const remote_attestation_api::NodePCRData &record);

// The value of the PCR in the answer; none, values that differ, or a list that no request asks for: nullptr.
const std::string *value_of(const pcr_list &pcrs, std::uint32_t index);
