// The operations on a real client library and a software TPM, made to fail at each point at which they can.
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>

#include "agent/agent_state.h"
#include "agent/status.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"
#include "tests/trust_anchor/operations_fixture.h"
#include "trust_anchor/certificate_chain.h"
#include "trust_anchor/hw_integrity.h"
#include "trust_anchor/local_init.h"
#include "trust_anchor/pcr_quote.h"

namespace {

const fake_answer gone{{}, true};
const fake_answer refused{tpm_response(TPM2_RC_FAILURE)};

TEST_F(operations_test, StartingFailsAtTheStepThatFails)
{
    const struct {
        const char *what;
        std::uint32_t command; // that fails, from this number of it on
        int number;
        fake_answer answer;
        std::uint32_t status;
        std::uint32_t can_read;
        const char *line;
    } cases[] = {
        {"a TPM that hangs up", TPM2_CC_ReadClock, 0, gone, ATTEST_ERR_KOV_INIT, 0,
         "Failed to login to kov the TPM closed the connection"},
        // Connecting asks for leftover handles, binding the reference list for the banks.
        {"the first capability refused", TPM2_CC_GetCapability, 2, refused, ATTEST_OK, 0,
         "Unable to fetch device capablity tpm:"},
        {"the second capability refused", TPM2_CC_GetCapability, 3, refused, ATTEST_OK, 1,
         "Unable to fetch device capablity tpm:"},
        {"gone before logout", TPM2_CC_GetCapability, 3, gone, ATTEST_OK, 1,
         "Failed to kovc app logout the TPM closed the connection"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.what);
        restore();
        relay_.fail(row.command, row.number, row.answer);
        EXPECT_EQ(start(), row.status);
        EXPECT_EQ(at_agent_state.capability_pcr_read, row.can_read);
        EXPECT_EQ(at_agent_state.capability_pcr_quote, 0u);
        EXPECT_EQ(at_agent_state.ima_cache_ready, row.status == ATTEST_OK ? 1u : 0u);
        EXPECT_TRUE(trace_has_part(std::string("attestation_local_init(): ") + row.line));
        EXPECT_EQ(ask_pcrs({0}).status, ATTEST_ERR_NOT_SUPPORTED);
        EXPECT_TRUE(row.status == ATTEST_OK || ask_certificates("Kestrin AIK").status == ATTEST_ERR_KOV_COMM);
    }
    restore();
    std::filesystem::rename("/harddisk:/ima", "/harddisk:/away");
    EXPECT_EQ(start(), ATTEST_OK);
    EXPECT_EQ(at_agent_state.ima_cache_ready, 0u) << "a cache without a place for it";
    std::filesystem::rename("/harddisk:/away", "/harddisk:/ima");
}

TEST_F(operations_test, EachFailureIsItsCodeAndItsLineAndTheNextRequestWorks)
{
    const auto certificates = [] { return ask_certificates("Kestrin AIK"); };
    const auto pcrs = [] { return ask_pcrs({0, 7, 10}); };
    const auto pcr_24_too = [] { return ask_pcrs({0, 24}); };
    const auto hw_integrity = [] { return ask_hw_integrity(); };
    const auto wrong_secret = [] { at_agent_state.login_context.secret[0] ^= 1; };
    const auto no_name = [] { setenv("ATTEST_NODE_NAME", "", 1); };
    const auto object = [this](const char *name, const std::function<void(std::string &)> &edit) {
        return [this, name, edit] {
            std::string content = file_text(object_path(name));
            edit(content);
            write_file(object_path(name), content);
        };
    };
    const auto fails = [this](std::uint32_t command, int after, const fake_answer &answer) {
        return [this, command, after, answer] { relay_.fail(command, after, answer); };
    };
    const auto emptied = [](std::string &content) { content.clear(); };
    const auto chain = [&](const std::function<void(std::string &)> &edit) {
        return object("RSA_AIK_CHAIN", edit);
    };
    const char *no_chain = "Failed to read AIK cert chain";
    const std::uint32_t no_memory = ATTEST_ERR_NO_MEMORY;
    const std::uint32_t no_comm = ATTEST_ERR_KOV_COMM;

    const struct {
        const char *what;
        std::function<evidence()> ask;
        std::function<void()> damage;
        std::uint32_t status;
        const char *line;
    } cases[] = {
        {"gone at login", certificates, fails(TPM2_CC_ReadClock, 0, gone), no_comm,
         "Failed to login to kov "},
        {"no node name", certificates, no_name, no_memory, "Failed to allocate node location"},
        {"no such object", certificates, [&] { std::filesystem::remove(object_path("RSA_AIK_CRT")); },
         no_comm, "Failed to kovc_so_read  kov no such object"},
        {"customer's", [] { return ask_certificates("Customer AIK"); }, [] {}, no_comm,
         "Failed to kovc_so_read  kov no such object"},
        {"empty certificate", certificates, object("RSA_AIK_CRT", emptied), no_comm, no_chain},
        {"empty chain", certificates, chain(emptied), no_comm, no_chain},
        {"chain short by a byte", certificates, chain([](auto &der) { der.pop_back(); }), no_comm, no_chain},
        {"chain that ends in a header", certificates, chain([](auto &der) { der.resize(3); }), no_comm,
         no_chain},
        {"chain of something else", certificates, chain([](auto &der) { der[0] = 0x31; }), no_comm, no_chain},
        {"chain with a length in one byte", certificates, chain([](auto &der) { der[1] = '\x81'; }), no_comm,
         no_chain},
        {"no signing key", certificates, [&] { without_key("RSA_VOXAKEY"); }, no_comm,
         "Failed to kovc_sign_init  no such key"},
        {"key not in the TPM", certificates, fails(TPM2_CC_ReadPublic, 0, refused), no_comm,
         "Failed to kovc_sign_init  tpm:"},
        {"wrong secret", certificates, wrong_secret, no_comm, "Failed to kovc_sign_final  tpm:"},
        {"gone at the signature", certificates, fails(TPM2_CC_Sign, 0, gone), no_comm,
         "Failed to kovc_sign_final  the TPM closed the connection"},
        {"gone at the signature, logging out", certificates, fails(TPM2_CC_Sign, 0, gone), no_comm,
         "Failed to kovc app logout the TPM closed the connection"},

        {"gone at login", pcrs, fails(TPM2_CC_ReadClock, 0, gone), no_comm, "Failed to login to kov "},
        {"no such PCR", pcr_24_too, [] {}, no_comm, "Failed to fetch PCR value 24  no such PCR"},
        {"gone at the second PCR", pcrs, fails(TPM2_CC_PCR_Read, 1, gone), no_comm,
         "Failed to fetch PCR value 7  the TPM closed the connection"},
        {"no quoting key", pcrs, [&] { without_key("RSA_AIK_KEY"); }, ATTEST_OK,
         "Failed to fetch PCR quote  no such key"},
        {"wrong secret", pcrs, wrong_secret, ATTEST_OK, "Failed to fetch PCR quote  tpm:"},
        {"nonce too long", [] { return ask_pcrs({0}, 65); }, [] {}, ATTEST_OK,
         "Failed to fetch PCR quote  nonce too long for a quote"},
        {"gone at the quote", pcrs, fails(TPM2_CC_Quote, 0, gone), ATTEST_OK,
         "Failed to fetch PCR quote  the TPM closed the connection"},
        {"no node name", pcrs, no_name, no_memory, "Failed to allocate node location"},

        {"gone at login", hw_integrity, fails(TPM2_CC_ReadClock, 0, gone), no_comm,
         "Failed to login to kov "},
        {"PCR refused", hw_integrity, fails(TPM2_CC_PCR_Read, 0, refused), no_comm,
         "Failed to fetch PCR value 15  tpm:"},
        {"no quoting key", hw_integrity, [&] { without_key("RSA_AIK_KEY"); }, ATTEST_OK,
         "Failed to fetch PCR quote  no such key"},
        {"nonce too long", [] { return ask_hw_integrity(65); }, [] {}, ATTEST_OK,
         "Failed to fetch PCR quote  nonce too long for a quote"},
        {"no node name", hw_integrity, no_name, no_memory, "Failed to allocate node location"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.what) + ": " + row.line);
        restore();
        row.damage();
        const evidence got = row.ask();
        EXPECT_EQ(got.status, row.status);
        EXPECT_EQ(got.empty, row.status != ATTEST_OK);
        EXPECT_FALSE(got.quoted);
        EXPECT_TRUE(trace_has_part(row.line)) << testing::PrintToString(trace_captured);
        restore();
        EXPECT_TRUE(certificates().quoted && pcrs().quoted && hw_integrity().quoted) << "afterwards";
    }
}

TEST_F(operations_test, ATpmThatComesBackServesTheNextRequest)
{
    tpm_.kill();
    EXPECT_EQ(ask_pcrs({0}).status, ATTEST_ERR_KOV_COMM);
    EXPECT_EQ(ask_certificates("Kestrin VOXA").status, ATTEST_ERR_KOV_COMM);
    tpm_.start();
    EXPECT_TRUE(ask_pcrs({0}).quoted);
    EXPECT_TRUE(ask_certificates("Kestrin VOXA").quoted);
    EXPECT_TRUE(ask_hw_integrity().quoted);
}

TEST_F(operations_test, MissingRequestsRecordsAndFieldsAreInvalidParameters)
{
    EXPECT_EQ(attestation_get_certchain(nullptr, nullptr), ATTEST_ERR_INVALID_PARAM);
    EXPECT_TRUE(trace_has("attestation_get_certchain(): attestation_get_certchain invalid parameters "));
    attest_pcr_request no_indices{};
    NodePCRData record{};
    EXPECT_EQ(attestation_attest_pcrs(&no_indices, &record), ATTEST_ERR_INVALID_PARAM);
    EXPECT_TRUE(trace_has("attestation_attest_pcrs(): attestation_attest_pcrs invalid parameters "));
    EXPECT_EQ(get_platform_hw_integrity_local(nullptr, nullptr), ATTEST_ERR_INVALID_PARAM);
    EXPECT_TRUE(
        trace_has("get_platform_hw_integrity_local(): get_platform_hw_integrity_local invalid parameters "));
}

TEST_F(operations_test, WithoutANonceThereIsAQuoteAndNoSignature)
{
    EXPECT_FALSE(ask_certificates("Kestrin VOXA", 0).quoted);
    EXPECT_TRUE(ask_pcrs({7, 7, 0}, 0).quoted);
    EXPECT_TRUE(ask_hw_integrity(0).quoted);
    EXPECT_TRUE(ask_pcrs(std::vector<std::uint32_t>(256, 0)).empty == false) << "the count is one of 8 bits";
}

TEST_F(operations_test, ABankThatIsNotAllocatedIsAFailedRead)
{
    kovc_release_context(&at_agent_state.client_context);
    relay_.disconnect();
    keep_sha1_bank_only(tpm_);
    setenv("ATTEST_TPM", relay_.address().c_str(), 1);
    EXPECT_EQ(start(), ATTEST_OK);
    EXPECT_EQ(at_agent_state.capability_pcr_read, 0u);
    EXPECT_EQ(ask_pcrs({0}).status, ATTEST_ERR_NOT_SUPPORTED);
    EXPECT_TRUE(
        trace_has("attestation_attest_pcrs(): attestation_attest_pcrs PCR read / quote not supported "));
    EXPECT_EQ(ask_hw_integrity().status, ATTEST_ERR_KOV_COMM);
    EXPECT_TRUE(trace_has_part("Failed to fetch PCR value 15  PCR bank is not allocated"));
    EXPECT_TRUE(ask_hw_integrity(20, 0).quoted) << "SHA-1";
}

TEST_F(operations_test, DigestsThatAreMissingFailTheReportButNotTheRest)
{
    setenv("ATTEST_TRUST_ANCHOR", "/nowhere/trust_anchor.json", 1);
    const evidence got = ask_hw_integrity();
    EXPECT_EQ(got.status, ATTEST_ERR_KOV_COMM);
    EXPECT_FALSE(got.empty);
    EXPECT_TRUE(trace_has_part("get_platform_hw_integrity_local(): Failed to fetch  the trust anchor is not "
                               "provisioned for 0 type db uids"));
    EXPECT_FALSE(trace_has_part("for 1 type db uids"));
}

TEST_F(operations_test, ValuesAndQuoteThatDoNotBelongTogetherAreCollectedThreeTimes)
{
    const std::pair<const char *, std::function<evidence()>> operations[] = {
        {"attestation_attest_pcrs", [] { return ask_pcrs({7}); }},
        {"get_platform_hw_integrity_local", [] { return ask_hw_integrity(); }}};
    for (const auto &[name, ask] : operations) {
        const auto told = [name = name](int remaining) {
            return trace_has(std::string(name) + "(): PCR values and quote not in sync (tries remaining " +
                             std::to_string(remaining) + ")");
        };
        times_out_of_sync = 2;
        EXPECT_TRUE(ask().quoted) << name;
        EXPECT_TRUE(told(2) && told(1) && !told(0)) << name;
        times_out_of_sync = 3;
        const evidence never = ask();
        EXPECT_EQ(never.status, ATTEST_ERR_KOV_COMM) << name;
        EXPECT_TRUE(never.empty && told(0)) << name;
    }
}

TEST_F(operations_test, AReportWithoutItsNodesNameEndsTheProcess)
{
    losing_variable = {"ATTEST_NODE_NAME", 1};
    EXPECT_EXIT(ask_hw_integrity(), testing::ExitedWithCode(1), "Unable to get platform node info");
}

TEST_F(operations_test, WhateverAllocationFailsNothingLeaksAndTheNextRequestWorks)
{
    const auto certificates = [] { return ask_certificates("Kestrin VOXA"); };
    const auto pcrs = [] { return ask_pcrs({0, 7, 10}); };
    const auto hw_integrity = [] { return ask_hw_integrity(); };
    const std::function<evidence()> operations[] = {certificates, pcrs, hw_integrity};
    for (const auto &ask : operations) {
        ASSERT_TRUE(ask().quoted);
        for (std::size_t n = 0, asked = 1; n < asked; ++n) {
            evidence got;
            {
                const allocation_faults faults(n);
                got = ask();
                asked = allocation_faults::asked();
                EXPECT_EQ(allocation_faults::live(), 0u) << n;
            }
            if (n >= asked)
                break;
            // A dump for the trace may fail without a word, a quote with a line; the record says which.
            EXPECT_EQ(got.status == ATTEST_OK, !got.empty && got.status != ATTEST_ERR_KOV_COMM) << n;
            EXPECT_TRUE(ask().quoted) << "after " << n;
        }
    }
}

} // namespace
