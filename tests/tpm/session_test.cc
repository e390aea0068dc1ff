// Logins and what they cost, secrets, capabilities, arguments.
#include <numeric>

#include <gmock/gmock.h>

#include "agent/agent_state.h"
#include "agent/status.h"
#include "tests/tpm/client_fixture.h"
#include "trust_anchor/certificate_chain.h"
#include "trust_anchor/pcr_quote.h"

namespace {

using testing::HasSubstr;

class session_test : public provisioned_fixture {};

kov_status capability(const session_owner &session, std::uint32_t number, std::uint32_t &present)
{
    kov_capability *result = nullptr;
    const kov_status status = kovc_device_capability(session.get(), number, &result);
    const malloc_ptr<kov_capability> owned(result);
    EXPECT_EQ(result != nullptr, status == KOV_SUCCESS);
    if (result != nullptr) {
        EXPECT_EQ(result->capability, number);
        present = result->present;
    }
    return status;
}

// As the agent's start leaves it, with the counted client.
void be_agent_of(kovc_context *context)
{
    at_agent_state = {};
    at_agent_state.client_context = context;
    at_agent_state.device_handle = 1;
    at_agent_state.login_context = {KOV_LOGIN_KIND_SECRET, "Init", "Pobrekd307"};
    at_agent_state.capability_pcr_read = at_agent_state.capability_pcr_quote = 1;
}

TEST_F(session_test, AWholeRequestCostsALoginAReadAPcrAndASignatureAndKeysAreResolvedOnce)
{
    be_agent_of(context_);
    std::uint8_t nonce[32] = {1};
    std::uint32_t indices[24];
    std::iota(std::begin(indices), std::end(indices), 0);
    attest_pcr_request pcrs{};
    pcrs.present = pcrs.has_pcr_indices | pcrs.has_nonce;
    pcrs.pcr_indices = {indices, std::size(indices)};
    pcrs.nonce = {nonce, sizeof nonce};
    get_certificate_request certificate{};
    certificate.present = certificate.has_nonce;
    certificate.nonce = {nonce, sizeof nonce};
    for (int i = 0; i < 2; ++i) { // the first time keys are resolved
        traffic.commands.clear();
        owned_message<NodePCRData> values;
        ASSERT_EQ(attestation_attest_pcrs(&pcrs, values.get()), ATTEST_OK);
        ASSERT_EQ(values->pcrs.count, 24u);
        ASSERT_NE(values->quote.length, 0u);
        owned_message<SystemCertificates> certificates;
        ASSERT_EQ(attestation_get_certchain(&certificate, certificates.get()), ATTEST_OK);
        ASSERT_NE(certificates->signature.length, 0u);
    }
    std::vector<std::uint32_t> expected{TPM2_CC_ReadClock};
    expected.insert(expected.end(), 24, TPM2_CC_PCR_Read);
    expected.insert(expected.end(), {TPM2_CC_Quote, TPM2_CC_ReadClock, TPM2_CC_Sign});
    EXPECT_EQ(traffic.commands, expected);
}

TEST_F(session_test, LogoutLeavesNothingInTheTpm)
{
    for (const char *secret : {KOV_LOGIN_SECRET, "wrong"}) {
        session_owner session = login(secret);
        kovc_signing *unfinished = nullptr;
        EXPECT_EQ(kovc_sign_init(session.get(), KOV_LOGIN_USER, "RSA_VOXAKEY", 2, &unfinished), KOV_SUCCESS);
        session.sign("RSA_VOXAKEY", {1, 2, 3});
        session.quote("RSA_AIK_KEY", 2, 0x81, {1});
        EXPECT_EQ(session.logout(), KOV_SUCCESS);
    }
    release();
    // Not by a connection of our own, which would begin with flushing.
    for (const char *kind : {"handles-transient", "handles-loaded-session", "handles-saved-session"})
        EXPECT_EQ(run_program(std::string("tpm2_getcap -T ") + tpm_.address() + " " + kind).output, "")
            << kind;
}

TEST_F(session_test, ALoginClearsAwayWhatAnotherProgramLeftLoaded)
{
    release();
    {
        const auto other = connect_to(tpm_);
        const TPM2B_AUTH none{};
        ESYS_TR sequence = ESYS_TR_NONE; // has no public area, as a key has
        ASSERT_EQ(Esys_HashSequenceStart(other->esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &none,
                                         TPM2_ALG_SHA256, &sequence),
                  TSS2_RC_SUCCESS);
    }
    use(tpm_);
    EXPECT_EQ(login().login_status, KOV_SUCCESS);
    release();
    EXPECT_EQ(run_program("tpm2_getcap -T " + tpm_.address() + " handles-transient").output, "");
}

TEST_F(session_test, AWrongSecretIsAStatusAndNeverLocksTheTpm)
{
    session_owner wrong = login("Pobrekd308");
    ASSERT_EQ(wrong.login_status, KOV_SUCCESS);
    for (int i = 0; i < 40; ++i) {
        EXPECT_THAT(kov_status_string(wrong.sign("RSA_VOXAKEY", {1}).status), HasSubstr("auth"));
        EXPECT_NE(wrong.quote("RSA_AIK_KEY", 2, 1, {}).quote.status, KOV_SUCCESS);
    }
    EXPECT_EQ(login().sign("RSA_VOXAKEY", {1}).status, KOV_SUCCESS);
    EXPECT_NE(wrong.sign("RSA_VOXAKEY", {1}).status, KOV_SUCCESS) << "the other session's secret was used";
    wrong.logout();
    release();
    EXPECT_EQ(tpm_property(*connect_to(tpm_), TPM2_PT_LOCKOUT_COUNTER), 0u);
}

TEST_F(session_test, LoginContextsThatCannotBeRightAreRefused)
{
    kov_login_context good{KOV_LOGIN_KIND_SECRET, "Init", "Pobrekd307"};
    kov_login_context kind = good;
    kind.kind = 1;
    kov_login_context user = good;
    user.user_name[0] = 'i';
    kov_login_context endless = good; // no NUL in either field
    std::fill(std::begin(endless.user_name), std::end(endless.user_name), 'I');
    std::fill(std::begin(endless.secret), std::end(endless.secret), 'x');
    for (const kov_login_context &login : {kind, user, endless}) {
        kovc_session *session = nullptr;
        EXPECT_EQ(kovc_app_login(context_, 1, &login, &session), KOV_ERR_LOGIN);
        EXPECT_EQ(session, nullptr);
    }
    kovc_session *session = nullptr;
    EXPECT_EQ(kovc_app_login(context_, 2, &good, &session), KOV_ERR_INVALID_PARAM) << "no such device";
    EXPECT_EQ(kovc_app_login(nullptr, 1, &good, &session), KOV_ERR_INVALID_PARAM);
    EXPECT_EQ(kovc_app_logout(&session), KOV_ERR_INVALID_PARAM);
}

TEST_F(session_test, CapabilitiesSayWhatTheTpmCanDo)
{
    const session_owner session = login();
    std::uint32_t present = 2;
    EXPECT_EQ(capability(session, KOV_CAPABILITY_PCR_READ, present), KOV_SUCCESS);
    EXPECT_EQ(present, 1u);
    present = 2;
    EXPECT_EQ(capability(session, KOV_CAPABILITY_PCR_QUOTE, present), KOV_SUCCESS);
    EXPECT_EQ(present, 1u);
    EXPECT_EQ(capability(session, 0xC02, present), KOV_ERR_CAPABILITY);
    EXPECT_EQ(session.pcr(2, 0).status, KOV_SUCCESS);
    EXPECT_EQ(traffic.allocations, 3u) << "one for each answer, by the registered callback";
}

TEST_F(session_test, ABankThatIsNotAllocatedIsAStatus)
{
    release();
    keep_sha1_bank_only(tpm_);
    use(tpm_);
    const session_owner session = login();
    std::uint32_t present = 2;
    EXPECT_EQ(capability(session, KOV_CAPABILITY_PCR_READ, present), KOV_SUCCESS);
    EXPECT_EQ(present, 0u);
    EXPECT_EQ(session.pcr(2, 0).status, KOV_ERR_PCR_BANK);
    EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, 1, {}).quote.status, KOV_ERR_PCR_BANK);
    EXPECT_EQ(session.pcr(1, 0).length, 20u);
}

TEST_F(session_test, ANodeThatIsNotProvisionedHasPcrsAndNothingElse)
{
    setenv("ATTEST_TRUST_ANCHOR", (tpm_.directory() + "/nowhere/trust_anchor.json").c_str(), 1);
    const session_owner session = login();
    ASSERT_EQ(session.login_status, KOV_SUCCESS);
    EXPECT_EQ(session.pcr(2, 0).status, KOV_SUCCESS);
    EXPECT_EQ(session.sign("RSA_VOXAKEY", {1}).status, KOV_ERR_NOT_PROVISIONED);
    EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, 1, {}).quote.status, KOV_ERR_NOT_PROVISIONED);
    EXPECT_EQ(session.object("RSA_AIK_CRT").status, KOV_ERR_NOT_PROVISIONED);
    EXPECT_EQ(session.uids(KOV_UID_REFERENCE, 2).digests.status, KOV_ERR_NOT_PROVISIONED);
    EXPECT_EQ(session.uids(KOV_UID_BOARD, 2).digests.status, KOV_SUCCESS);
    setenv("ATTEST_TRUST_ANCHOR", tpm_.manifest().c_str(), 1);
    EXPECT_EQ(login().sign("RSA_VOXAKEY", {1}).status, KOV_SUCCESS) << "provisioned while the client lives";
}

TEST(status_test, EveryStatusHasWords)
{
    for (std::uint32_t i = 1; i <= 19; ++i)
        EXPECT_THAT(kov_status_string(KOV_ERR_BASE + i), testing::Not(HasSubstr("unknown trust-anchor")));
    EXPECT_STREQ(kov_status_string(KOV_SUCCESS), "success");
    EXPECT_STREQ(kov_status_string(KOV_ERR_ERRNO | ENOENT), "No such file or directory");
    EXPECT_THAT(kov_status_string(TPM2_RC_LOCKOUT), HasSubstr("lockout"));
    for (const kov_status odd :
         {0u, KOV_ERR_BASE, KOV_ERR_BASE + 20, KOV_ERR_ERRNO | 0xFFFFu, ~0u, 0x00FF0001u})
        EXPECT_NE(kov_status_string(odd), nullptr);
}

} // namespace
