// PCR values, quotes and signatures, judged by tpm2-tools and openssl.
#include <gmock/gmock.h>

#include "platform/tpm/manifest.h"
#include "tests/tpm/client_fixture.h"

namespace {

class evidence_test : public provisioned_fixture {
protected:
    // Something in the PCRs that a quote is over.
    void extend_pcrs()
    {
        release();
        const auto tpm = connect_to(tpm_);
        for (const std::uint32_t pcr : {0u, 7u, 8u, 10u, 23u}) {
            TPML_DIGEST_VALUES values{};
            for (const tpm_algorithm &bank : tpm_algorithms) {
                TPMT_HA &value = values.digests[values.count++];
                value.hashAlg = bank.id;
                std::fill_n(reinterpret_cast<std::uint8_t *>(&value.digest), bank.digest_size,
                            static_cast<std::uint8_t>(pcr + 1));
            }
            ASSERT_EQ(Esys_PCR_Extend(tpm->esys, ESYS_TR_PCR0 + pcr, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                      ESYS_TR_NONE, &values),
                      TSS2_RC_SUCCESS);
        }
    }

    std::string put(const char *name, const handed_out &bytes) const
    {
        std::string path = tpm_.directory() + "/" + name;
        write_file(path, {reinterpret_cast<const char *>(bytes.data.get()), bytes.length});
        return path;
    }

    // The public key of a certificate object.
    std::string public_key(const session_owner &session, const char *object) const
    {
        const std::string certificate = put("certificate", session.object(object));
        std::string key = tpm_.directory() + "/public_key";
        const program_result result =
            run_program("openssl x509 -inform der -in " + certificate + " -noout -pubkey -out " + key);
        EXPECT_EQ(result.status, 0) << result.output;
        return key;
    }
};

// The PCR values that go with a quote, as tpm2-tools store them: the selection, then lists of up to eight
// digests.
std::string pcr_file(const session_owner &session, const tpm_algorithm &bank, std::uint32_t mask)
{
    const TPML_PCR_SELECTION selection{1, {pcr_selection(bank, mask)}};
    std::vector<TPML_DIGEST> lists;
    for (std::uint32_t pcr = 0; pcr < 24; ++pcr) {
        if ((mask >> pcr & 1) == 0)
            continue;
        if (lists.empty() || lists.back().count == std::size(lists.back().digests))
            lists.push_back({});
        const handed_out value = session.pcr(bank.number, pcr);
        TPM2B_DIGEST &digest = lists.back().digests[lists.back().count++];
        digest.size = static_cast<UINT16>(value.length);
        std::copy_n(value.data.get(), value.length, digest.buffer);
    }
    const auto count = static_cast<std::uint32_t>(lists.size());
    return std::string(reinterpret_cast<const char *>(&selection), sizeof selection) +
           std::string(reinterpret_cast<const char *>(&count), sizeof count) +
           std::string(reinterpret_cast<const char *>(lists.data()), lists.size() * sizeof lists[0]);
}

TEST_F(evidence_test, ValuesAndQuotesAreAcceptedByTpm2Checkquote)
{
    struct {
        std::uint32_t algorithm;
        std::uint32_t mask;
        std::size_t nonce_length;
    } const cases[] = {{2, 0x80, 32},     {2, 0x8000, 0},    {2, 0x481, 20},    {2, 0x7F, 1},
                       {2, 0xFF, 32},     {2, 0x1FF, 64},    {1, 0x8000, 32},   {3, 0x8481, 64},
                       {1, 0xFFFFFF, 32}, {2, 0xFFFFFF, 32}, {3, 0xFFFFFF, 32}, {4, 0xFFFFFF, 32}};
    extend_pcrs();
    use(tpm_);
    const session_owner session = login();
    const std::string key = public_key(session, "RSA_AIK_CRT");
    for (const auto &one : cases) {
        const tpm_algorithm &bank = *tpm_algorithm_of_number(one.algorithm);
        const std::vector<std::uint8_t> nonce(one.nonce_length, 0x5A);
        const quote_result made = session.quote("RSA_AIK_KEY", one.algorithm, one.mask, nonce);
        ASSERT_EQ(made.quote.status, KOV_SUCCESS) << kov_status_string(made.quote.status);
        write_file(tpm_.directory() + "/values", pcr_file(session, bank, one.mask));
        const std::string nonce_option = nonce.empty() ? "" : " -q " + hex_text(nonce.data(), nonce.size());
        const program_result accepted = run_program(
            "tpm2_checkquote -g sha256 -u " + key + " -m " + put("quote", made.quote) + " -s " +
            put("signature", made.signature) + " -f " + tpm_.directory() + "/values" + nonce_option);
        EXPECT_EQ(accepted.status, 0) << bank.name << " " << one.mask << accepted.output;
    }
    EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, 0, {}).quote.status, KOV_SUCCESS) << "over no PCR at all";
}

TEST_F(evidence_test, SignaturesAreAcceptedByOpenssl)
{
    const session_owner session = login();
    const std::string key = public_key(session, "RSA_VOXACRT");
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{3000}, std::size_t{1} << 20}) {
        std::vector<std::uint8_t> data(size);
        for (std::size_t i = 0; i < size; ++i)
            data[i] = static_cast<std::uint8_t>(i * 7);
        const handed_out signature = session.sign("RSA_VOXAKEY", data);
        ASSERT_EQ(signature.status, KOV_SUCCESS) << kov_status_string(signature.status);
        EXPECT_EQ(signature.length, 256u);
        const std::string file = tpm_.directory() + "/data";
        write_file(file, {data.begin(), data.end()});
        const program_result accepted = run_program("openssl dgst -sha256 -verify " + key + " -signature " +
                                                    put("signature", signature) + " " + file);
        EXPECT_EQ(accepted.status, 0) << size << accepted.output;
    }
}

TEST_F(evidence_test, WhatIsNoPcrNoAlgorithmNoNonceOrNoKeyIsAStatus)
{
    const session_owner session = login();
    for (const std::uint32_t pcr : {24u, 31u, 32u, ~0u})
        EXPECT_EQ(session.pcr(2, pcr).status, KOV_ERR_PCR_INDEX) << pcr;
    for (const std::uint64_t mask : {std::uint64_t{1} << 24, std::uint64_t{1} << 63, 0xFFFFFFFF80000000u})
        EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, mask, {}).quote.status, KOV_ERR_PCR_INDEX) << mask;
    for (const std::uint32_t algorithm : {0u, 5u, ~0u}) {
        EXPECT_EQ(session.pcr(algorithm, 0).status, KOV_ERR_ALGORITHM);
        EXPECT_EQ(session.quote("RSA_AIK_KEY", algorithm, 1, {}).quote.status, KOV_ERR_ALGORITHM);
        EXPECT_EQ(session.sign("RSA_VOXAKEY", {1}, algorithm).status, KOV_ERR_ALGORITHM);
        EXPECT_EQ(session.uids(0, algorithm).digests.status, KOV_ERR_ALGORITHM);
    }
    const std::vector<std::uint8_t> long_nonce(65);
    EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, 1, long_nonce).quote.status, KOV_ERR_NONCE_SIZE);
    EXPECT_EQ(session.quote("RSA_NO_KEY", 2, 1, {}).quote.status, KOV_ERR_NO_KEY);
    EXPECT_EQ(session.sign("", {1}).status, KOV_ERR_NO_KEY);
    EXPECT_NE(session.sign("RSA_AIK_KEY", {1}).status, KOV_SUCCESS)
        << "a restricted key signs nothing foreign";
    EXPECT_NE(session.sign("RSA_VOXAKEY", {1}, 1).status, KOV_SUCCESS) << "the key's scheme is SHA-256";
}

// In the response to the last command, if it is this one, as ESYS sends it with one session: behind 10 bytes
// of header and the parameters' length.
constexpr std::size_t PARAMETERS = 14;
std::function<void(std::uint8_t *, std::uint32_t, std::uint32_t &)>
in_response_to(std::uint32_t command, std::function<void(std::uint8_t *parameters)> change)
{
    return [=](std::uint8_t *response, std::uint32_t, std::uint32_t &length) {
        if (traffic.commands.back() == command && length > PARAMETERS)
            change(response + PARAMETERS);
    };
}

TEST_F(evidence_test, AnswersToAnotherQuestionAreNotPassedOn)
{
    const session_owner session = login();
    const auto quote = [&] { return session.quote("RSA_AIK_KEY", 2, 0x80, {1, 2, 3}).quote.status; };
    ASSERT_EQ(quote(), KOV_SUCCESS);
    // TPM2B_ATTEST: size, magic, type, two sized fields, 25 bytes of clock and firmware; then the selection.
    const auto selection = [](std::uint8_t *parameters) {
        std::uint8_t *at = parameters + 2 + 4 + 2;
        for (int i = 0; i < 2; ++i)
            at += 2 + (at[0] << 8 | at[1]);
        return at + 25;
    };
    const struct {
        const char *what;
        std::function<void(std::uint8_t *)> change;
    } quotes[] = {
        {"no structure of a TPM", [](std::uint8_t *parameters) { parameters[2] ^= 1; }},
        {"a certified creation", [](std::uint8_t *parameters) { parameters[7] = 0x1A; }},
        {"a byte too long", [](std::uint8_t *parameters) { parameters[1] += 1; }},
        {"another bank", [&](std::uint8_t *parameters) { selection(parameters)[5] = TPM2_ALG_SHA1; }},
        {"no bank", [&](std::uint8_t *parameters) { selection(parameters)[3] = 0; }},
        {"another PCR", [&](std::uint8_t *parameters) { selection(parameters)[7] = 0x40; }},
        {"another scheme",
         [](std::uint8_t *parameters) {
             parameters[2 + (parameters[0] << 8 | parameters[1]) + 1] = TPM2_ALG_RSAPSS & 0xff;
         }},
        {"fewer PCRs", [&](std::uint8_t *parameters) { selection(parameters)[7] = 0; }},
    };
    for (const auto &one : quotes) {
        traffic.on_response = in_response_to(TPM2_CC_Quote, one.change);
        EXPECT_NE(quote(), KOV_SUCCESS) << one.what;
        traffic.on_response = nullptr;
        ASSERT_EQ(login().login_status, KOV_SUCCESS) << one.what;
        EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, 0x80, {}).quote.status, KOV_SUCCESS) << one.what;
    }
    traffic.on_response = in_response_to(TPM2_CC_Sign, [](std::uint8_t *parameters) {
        parameters[1] = TPM2_ALG_RSAPSS & 0xff; // laid out like the one that was asked for
    });
    EXPECT_EQ(session.sign("RSA_VOXAKEY", {1}).status, KOV_ERR_BAD_RESPONSE);
    traffic.on_response = nullptr;
    EXPECT_EQ(session.sign("RSA_VOXAKEY", {1}).status, KOV_SUCCESS);
}

TEST_F(evidence_test, ASigningHandleEndsWithItsSignature)
{
    const session_owner session = login();
    const session_owner other = login();
    const std::uint8_t byte = 1;
    std::uint8_t *signature = nullptr;
    std::uint32_t length = 0;
    kovc_signing *signing = nullptr;
    EXPECT_EQ(kovc_sign_init(session.get(), "Other", "RSA_VOXAKEY", 2, &signing), KOV_ERR_LOGIN);
    EXPECT_EQ(signing, nullptr);
    ASSERT_EQ(kovc_sign_init(session.get(), KOV_LOGIN_USER, "RSA_VOXAKEY", 2, &signing), KOV_SUCCESS);
    EXPECT_EQ(kovc_sign_update(other.get(), signing, &byte, 1), KOV_ERR_INVALID_PARAM);
    EXPECT_EQ(kovc_sign_update(session.get(), signing, nullptr, 1), KOV_ERR_INVALID_PARAM);
    ASSERT_EQ(kovc_sign_final(session.get(), signing, &signature, &length), KOV_SUCCESS);
    const malloc_ptr<std::uint8_t> owned(signature);
    EXPECT_EQ(kovc_sign_update(session.get(), signing, &byte, 1), KOV_ERR_INVALID_PARAM);
    EXPECT_EQ(kovc_sign_final(session.get(), signing, &signature, &length), KOV_ERR_INVALID_PARAM);
    EXPECT_EQ(signature, nullptr);
}

} // namespace
