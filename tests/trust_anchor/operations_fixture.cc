#include "tests/trust_anchor/operations_fixture.h"

#include <filesystem>

#include <gmock/gmock.h>

#include "agent/agent_state.h"
#include "agent/status.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"
#include "trust_anchor/certificate_chain.h"
#include "trust_anchor/hw_integrity.h"
#include "trust_anchor/local_init.h"
#include "trust_anchor/pcr_quote.h"
#include "trust_anchor/record_parts.h"

int times_out_of_sync;

// In place of the agent's own, which has nothing to tell by.
bool pcr_quote_in_sync()
{
    return times_out_of_sync-- <= 0;
}

namespace {

std::uint8_t nonce_bytes[65];

} // namespace

evidence ask_certificates(const char *name, std::size_t nonce_length)
{
    get_certificate_request request{};
    std::string text = name;
    request.cert_name = text.data();
    request.nonce = {nonce_bytes, nonce_length};
    request.present = request.has_cert_name | request.has_nonce;
    owned_message<SystemCertificates> record;
    evidence got;
    got.status = attestation_get_certchain(&request, record.get());
    got.empty = record->present == 0 && record->node_name == nullptr && record->certs.items == nullptr;
    got.quoted = (record->present & record->has_signature) != 0;
    if (got.status == ATTEST_OK) {
        EXPECT_EQ(record->certs.count, 3u);
        EXPECT_STREQ(record->certs.items[0].name, (text + " Root").c_str());
        EXPECT_STREQ(record->certs.items[1].name, (text + " CA").c_str());
        EXPECT_STREQ(record->certs.items[2].name, name);
    }
    return got;
}

evidence ask_pcrs(std::vector<std::uint32_t> indices, std::size_t nonce_length)
{
    attest_pcr_request request{};
    request.pcr_indices = {indices.data(), static_cast<std::uint32_t>(indices.size())};
    request.nonce = {nonce_bytes, nonce_length};
    request.present = request.has_pcr_indices | request.has_nonce;
    owned_message<NodePCRData> record;
    evidence got;
    got.status = attestation_attest_pcrs(&request, record.get());
    got.empty = record->present == 0 && record->node_name == nullptr && record->pcrs.items == nullptr;
    got.quoted = (record->present & record->has_quote) != 0;
    EXPECT_EQ(got.quoted, (record->present & record->has_quote_signature) != 0);
    if (got.status == ATTEST_OK) {
        EXPECT_EQ(record->pcrs.count, indices.size() % 256);
        for (std::uint32_t i = 0; i < record->pcrs.count; ++i)
            EXPECT_EQ(record->pcrs.items[i].index, indices[i]);
        EXPECT_NE(record->present & record->has_uptime, 0u);
    }
    return got;
}

evidence ask_hw_integrity(std::size_t nonce_length, std::uint32_t hash_algo)
{
    get_platform_hw_integrity_request request{};
    request.hash_algo = hash_algo;
    request.nonce = {nonce_bytes, nonce_length};
    request.present = request.has_hash_algo | request.has_nonce;
    tpm_hw_integrity record{};
    evidence got;
    got.status = get_platform_hw_integrity_local(&request, &record);
    got.empty = record.present == 0 && record.node_name == nullptr && record.pcrs.items == nullptr;
    got.quoted = (record.present & record.has_quote) != 0;
    if (!got.empty) {
        EXPECT_STREQ(record.key_cert_name, "Kestrin AIK");
        EXPECT_STREQ(record.source_name, (std::string(record.node_name) + "_zuvari").c_str());
        EXPECT_EQ(record.pcrs.count, 1u);
        EXPECT_EQ(record.pcrs.items[0].index, 15u);
        for (const message_list<UID_DIGEST> *list : {&record.uid_digests_db0, &record.uid_digests_db1})
            for (std::uint32_t i = 0; i < list->count; ++i)
                EXPECT_EQ(list->items[i].index, i);
    }
    message_release(record);
    return got;
}

operations_test::~operations_test()
{
    kovc_release_context(&at_agent_state.client_context);
    losing_variable = {};
}

void operations_test::restore()
{
    kovc_release_context(&at_agent_state.client_context);
    relay_.heal();
    losing_variable = {};
    times_out_of_sync = 0;
    std::filesystem::copy(provisioned_tpm() + "/node", tpm_.node(),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::overwrite_existing);
    setenv("ATTEST_TPM", relay_.address().c_str(), 1);
    setenv("ATTEST_TRUST_ANCHOR", tpm_.manifest().c_str(), 1);
    setenv("ATTEST_NODE_NAME", "card7", 1);
    trace_captured.clear();
    ASSERT_EQ(attestation_local_init(), ATTEST_OK);
    ASSERT_EQ(at_agent_state.capability_pcr_read, 1u);
    ASSERT_EQ(at_agent_state.capability_pcr_quote, 1u);
    ASSERT_EQ(at_agent_state.ima_cache_ready, 1u);
    ASSERT_EQ(trace_captured.back(), "attestation_local_init(): IMA cache initialized");
    trace_captured.pop_back();
    ASSERT_THAT(trace_captured,
                testing::Not(testing::Contains(testing::HasSubstr("attestation_local_init"))));
    trace_captured.clear();
}

std::uint32_t operations_test::start()
{
    kovc_release_context(&at_agent_state.client_context);
    trace_captured.clear();
    return attestation_local_init();
}

manifest operations_test::node()
{
    manifest read;
    EXPECT_EQ(manifest_load(tpm_.manifest(), read), KOV_SUCCESS);
    return read;
}

std::string operations_test::object_path(const char *name)
{
    return tpm_.node() + "/" + manifest_find_object(node(), name)->file;
}

void operations_test::without_key(const char *name)
{
    manifest changed = node();
    std::erase_if(changed.keys, [&](const manifest_key &key) { return key.name == name; });
    write_file(tpm_.manifest(), manifest_text(changed));
}
