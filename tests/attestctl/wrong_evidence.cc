#include "tests/attestctl/wrong_evidence.h"

#include <gtest/gtest.h>

#include "attestctl/text.h"

strings not_passed(const evidence &got, const trusted_roots &roots)
{
    strings out;
    for (const check &row : judge(got, SUBJECTS, roots))
        if (row.outcome != check_outcome::passed)
            out.push_back(std::string(outcome_text(row.outcome)) + ' ' + row.name);
    return out;
}

strings not_passed(const forged &f)
{
    return not_passed(f.got, f.roots);
}

api::SystemCertificates &identity(forged &f)
{
    return *f.got.identity.mutable_node_data(0);
}

api::SystemCertificates &attestation_key(forged &f)
{
    return *f.got.attestation_key.mutable_node_data(0);
}

api::NodePCRData &pcrs(forged &f)
{
    return *f.got.pcrs.mutable_node_data(0);
}

google::protobuf::RepeatedPtrField<api::BOOT_EVENT> &events(forged &f)
{
    return *f.got.boot_log.mutable_node_data(0)->mutable_events();
}

api::tpm_hw_integrity &hardware(forged &f)
{
    return *f.got.hw_integrity.mutable_node_data(0);
}

void flip_bit(std::string &bytes)
{
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
}

void expect_each(const std::vector<wrong> &cases)
{
    for (const wrong &one : cases) {
        forged f = good_evidence();
        one.make(f);
        EXPECT_EQ(not_passed(f), one.expected) << one.what;
    }
}
