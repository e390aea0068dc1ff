// Signed evidence that is wrong in one point fails in the check of that point only: certificates and quotes.
// The recorded evidence of tests/vectors has the cases that are not here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/attestctl/wrong_evidence.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void replace_certificate(forged &f, int place, const std::string &der)
{
    identity(f).mutable_certs(place)->set_data(der);
    sign_certificates(f);
}

TEST(verify, good_evidence_passes)
{
    for (std::uint32_t bank = 0; bank < 4; ++bank)
        EXPECT_THAT(not_passed(good_evidence("rack1", bank)), IsEmpty()) << bank;
    for (const std::uint16_t scheme : {TPM2_ALG_RSASSA, TPM2_ALG_RSAPSS}) {
        forged f = good_evidence();
        f.scheme = scheme;
        f.attestation_key = keys().rsa.get();
        attestation_key(f).mutable_certs(DEVICE)->set_data(
            make_certificate(attestation_plan(f.attestation_key)));
        sign_certificates(f);
        quote_pcrs(f);
        quote_hardware(f);
        EXPECT_THAT(not_passed(f), IsEmpty());
    }
}

TEST(verify, certificates)
{
    const auto replaced = [](int place, certificate_plan plan, auto change) {
        return [=](forged &f) {
            certificate_plan changed = plan;
            change(changed);
            replace_certificate(f, place, make_certificate(changed));
        };
    };
    const certificate_plan ca = ca_plan("identity root");
    const certificate_plan device = device_plan(keys().identity.get());
    const strings record = {"FAIL identity certificates"}, chain = {"FAIL identity chain"};
    const strings nonce = {"FAIL identity nonce"}, signature = {"FAIL identity signature"};
    expect_each({
        {"CA without the flag", replaced(CA, ca, [](auto &plan) { plan.constraints = "CA:FALSE"; }), chain},
        {"CA that says by its key's usage alone that it is one",
         replaced(CA, ca, [](auto &plan) { plan.constraints = nullptr; }), chain},
        {"CA that may not issue", replaced(CA, ca, [](auto &plan) { plan.usage = "digitalSignature"; }),
         chain},
        {"key that may not sign", replaced(DEVICE, device, [](auto &plan) { plan.usage = "keyAgreement"; }),
         chain},
        {"root expired",
         replaced(ROOT, root_plan("identity root"), [](auto &plan) { plan.to_s = -60; }),
         {"FAIL identity chain", "FAIL identity root"}},
        {"key of another kind",
         replaced(DEVICE, device, [](auto &plan) { plan.key = keys().stranger.get(); }),
         {"FAIL identity signature", "FAIL attestation key signature"}},
        {"key by an algorithm that nobody has",
         [](forged &f) {
             std::string der = identity(f).certs(DEVICE).data();
             const std::string rsa_encryption = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01";
             der.at(der.find(rsa_encryption) + rsa_encryption.size() - 1) = '\x63';
             replace_certificate(f, DEVICE, der);
         },
         {"FAIL identity chain", "FAIL identity signature", "FAIL attestation key signature"}},
        {"signed by SHA-1", replaced(DEVICE, device, [](auto &plan) { plan.hash = EVP_sha1; }), chain},
        {"key of 1024 bits",
         [device](forged &f) {
             static const pkey_owner weak(EVP_RSA_gen(1024));
             certificate_plan plan = device;
             plan.key = f.identity_key = weak.get();
             replace_certificate(f, DEVICE, make_certificate(plan));
         },
         chain},
        {"CA that did not issue",
         replaced(DEVICE, device,
                  [](auto &plan) {
                      plan.issuer = "identity root";
                      plan.issuer_key = keys().root.get();
                  }),
         chain},
        {"root that issues itself is fine",
         [device](forged &f) {
             certificate_plan by_root = device;
             by_root.issuer = "identity root";
             by_root.issuer_key = keys().root.get();
             identity(f).mutable_certs(CA)->set_data(identity(f).certs(ROOT).data());
             replace_certificate(f, DEVICE, make_certificate(by_root));
         },
         {}},
        {"root not the pinned one",
         [](forged &f) { f.roots.certificates.erase(f.roots.certificates.begin()); },
         {"FAIL identity root"}},
        {"bytes after a certificate",
         [](forged &f) { replace_certificate(f, CA, identity(f).certs(CA).data() + '\0'); },
         {"FAIL identity certificates", "not made identity chain"}},
        {"no certificate",
         [](forged &f) { replace_certificate(f, DEVICE, ""); },
         {"FAIL identity certificates", "not made identity chain", "not made identity signature",
          "not made attestation key signature"}},
        {"neither root nor CA",
         [](forged &f) {
             identity(f).mutable_certs(ROOT)->clear_data();
             replace_certificate(f, CA, "");
         },
         {"FAIL identity certificates", "not made identity chain", "FAIL identity root"}},
        {"no certificates at all",
         [](forged &f) { identity(f).clear_certs(); },
         {"FAIL identity certificates", "not made identity chain", "FAIL identity root",
          "not made identity signature", "not made attestation key signature"}},
        {"a fourth certificate",
         [](forged &f) {
             *attestation_key(f).add_certs() = identity(f).certs(CA);
             sign_certificates(f);
         },
         {"FAIL attestation key certificates", "not made attestation key chain", "not made quote signature",
          "not made hardware quote signature"}},
        {"another certificate than was asked for",
         [](forged &f) { identity(f).mutable_certs(DEVICE)->set_name("Kestrin AIK"); }, record},
        {"identity's certificate for the attestation key's",
         [](forged &f) { attestation_key(f).mutable_certs(DEVICE)->set_name("Kestrin VOXA"); },
         {"FAIL attestation key certificates"}},
        {"attestation key in the identity's place",
         replaced(DEVICE, device, [](auto &plan) { plan.extended_usage = "serverAuth,2.23.133.8.3"; }),
         {"FAIL identity certificates", "not made identity chain", "not made identity signature",
          "not made attestation key signature"}},
        {"identity for other things is fine",
         replaced(DEVICE, device, [](auto &plan) { plan.extended_usage = "serverAuth,2.23.133.8.1"; }),
         {}},
        {"attestation key's for one that there is not is fine",
         [](forged &f) { f.got.attestation_key_request.set_cert_name("Customer AIK"); },
         {}},
        {"nonce truncated",
         [](forged &f) { attestation_key(f).mutable_nonce()->pop_back(); },
         {"FAIL attestation key nonce"}},
        {"no nonce", [](forged &f) { identity(f).clear_nonce(); }, nonce},
        {"signature by another key",
         [](forged &f) {
             f.identity_key = keys().rsa.get();
             sign_certificates(f);
         },
         {"FAIL identity signature", "FAIL attestation key signature"}},
        {"no signature", [](forged &f) { identity(f).clear_signature(); }, signature},
        {"no attestation key record",
         [](forged &f) { f.got.attestation_key.Clear(); },
         {"FAIL attestation key certificates", "not made quote signature",
          "not made hardware quote signature"}},
    });
}

TEST(verify, unpinned_root_is_said)
{
    forged f = good_evidence();
    f.roots = {};
    for (const check &row : judge(f.got, SUBJECTS, f.roots)) {
        EXPECT_EQ(row.outcome, check_outcome::passed) << row.name;
        EXPECT_EQ(row.reason.find("UNPINNED") != std::string::npos, row.name.ends_with(" chain")) << row.name;
    }
}

TEST(verify, quote)
{
    const auto requoted = [](auto edit) { return [edit](forged &f) { quote_pcrs(f, edit); }; };
    const auto selection = [](TPMS_ATTEST &quote) -> TPMS_PCR_SELECTION & {
        return quote.attested.quote.pcrSelect.pcrSelections[0];
    };
    const strings nonce = {"FAIL quote nonce"}, other_selection = {"FAIL quote selection"};
    const strings selection_unlike_values = {"FAIL quote selection", "not made quote digest"};
    const strings values = {"FAIL quote values"},
                  unusable_values = {"FAIL quote values", "not made quote digest"};
    const strings signature = {"FAIL quote signature"};
    const strings unreadable_signature = {"not made quote digest", "FAIL quote signature"};
    const strings unreadable = {"FAIL quote form", "not made quote nonce", "not made quote selection",
                                "not made quote digest"};
    expect_each({
        {"wrong type", requoted([](auto &quote) { quote.type = TPM2_ST_ATTEST_TIME; }), unreadable},
        {"nonce truncated", requoted([](auto &quote) { --quote.extraData.size; }), nonce},
        {"no nonce", requoted([](auto &quote) { quote.extraData.size = 0; }), nonce},
        {"other bank", requoted([&](auto &quote) { selection(quote).hash = TPM2_ALG_SHA1; }),
         other_selection},
        {"two banks", requoted([&](auto &quote) {
             quote.attested.quote.pcrSelect.count = 2;
             quote.attested.quote.pcrSelect.pcrSelections[1] = {TPM2_ALG_SHA1, 3, {}};
         }),
         selection_unlike_values},
        {"fewer PCRs than asked, one value too many",
         [](forged &f) {
             f.got.pcrs_request.add_pcr_indices(24);
             *pcrs(f).add_pcrs() = pcrs(f).pcrs(23);
             pcrs(f).mutable_pcrs(24)->set_index(24);
         },
         other_selection},
        {"more PCRs than asked",
         [](forged &f) {
             f.got.pcrs_request.mutable_pcr_indices()->RemoveLast();
             pcrs(f).mutable_pcrs()->RemoveLast();
         },
         selection_unlike_values},
        {"PCR that no quote can have",
         [](forged &f) {
             f.got.pcrs_request.add_pcr_indices(32);
             *pcrs(f).add_pcrs() = pcrs(f).pcrs(23);
             pcrs(f).mutable_pcrs(24)->set_index(32);
         },
         other_selection},
        {"no PCR quoted",
         requoted([&](auto &quote) { std::ranges::fill(selection(quote).pcrSelect, 0); }),
         {"FAIL quote selection", "FAIL quote digest"}},
        {"one value too few", [](forged &f) { pcrs(f).mutable_pcrs()->RemoveLast(); }, unusable_values},
        {"more values than can be asked for",
         [](forged &f) {
             for (int i = 0; i < 256; ++i)
                 *pcrs(f).add_pcrs() = pcrs(f).pcrs(23);
         },
         {"FAIL quote values", "not made quote digest", "FAIL boot log replay"}},
        {"value of no PCR", [](forged &f) { pcrs(f).mutable_pcrs(13)->clear_index(); }, unusable_values},
        {"values in another order", [](forged &f) { pcrs(f).mutable_pcrs()->SwapElements(3, 4); }, values},
        {"value missing", [](forged &f) { pcrs(f).mutable_pcrs(13)->clear_value(); }, unusable_values},
        {"value of another bank's size",
         [](forged &f) { pcrs(f).mutable_pcrs(13)->mutable_value()->resize(20); },
         {"FAIL quote values", "FAIL quote digest"}},
        {"two values of a PCR",
         [](forged &f) {
             f.got.pcrs_request.add_pcr_indices(13);
             *pcrs(f).add_pcrs() = pcrs(f).pcrs(13);
             flip_bit(*pcrs(f).mutable_pcrs(24)->mutable_value());
         },
         unusable_values},
        {"signature by another key",
         [](forged &f) {
             f.attestation_key = keys().stranger.get();
             quote_pcrs(f);
         },
         signature},
        {"signature by the other kind of key",
         [](forged &f) {
             f.attestation_key = keys().rsa.get();
             f.scheme = TPM2_ALG_RSASSA;
             quote_pcrs(f);
         },
         signature},
        {"signature by SHA-1",
         [](forged &f) { quote_pcrs(f, {}, TPM2_ALG_SHA1); },
         {"FAIL quote digest", "FAIL quote signature"}},
        {"no signature", [](forged &f) { pcrs(f).clear_quote_signature(); }, unreadable_signature},
        {"bytes after the signature", [](forged &f) { pcrs(f).mutable_quote_signature()->push_back('\0'); },
         unreadable_signature},
        {"bytes after the quote",
         [](forged &f) {
             pcrs(f).mutable_quote()->push_back('\0');
             pcrs(f).set_quote_signature(tpm_signature(f, pcrs(f).quote()));
         },
         unreadable},
        {"empty quote",
         [](forged &f) { pcrs(f).set_quote(""); },
         {"FAIL quote form", "not made quote nonce", "not made quote selection", "not made quote digest",
          "FAIL quote signature"}},
        {"no record",
         [](forged &f) { f.got.pcrs.Clear(); },
         {"FAIL quote values", "not made boot log replay"}},
    });
}

TEST(verify, evidence_without_a_nonce_is_not_fresh)
{
    forged f = good_evidence();
    for (std::string *nonce : {f.got.identity_request.mutable_nonce(), f.got.pcrs_request.mutable_nonce()})
        nonce->clear();
    sign_certificates(f);
    quote_pcrs(f);
    EXPECT_THAT(not_passed(f), ElementsAre("not made identity nonce", "not made identity signature",
                                           "not made quote nonce"));
}

// Nothing that is signed can be changed or cut anywhere without notice, and nothing reads past its end.
TEST(verify, damage_anywhere_is_noticed)
{
    const forged good = good_evidence();
    const auto damaged = [&good](auto &&bytes_of, const char *row, bool cut, std::size_t step) {
        const std::size_t size = bytes_of(const_cast<forged &>(good)).size();
        for (std::size_t i = 0; i < size; i += step) {
            forged f{good.got, good.roots, good.identity_key, good.attestation_key};
            std::string &bytes = bytes_of(f);
            if (cut)
                bytes.resize(i);
            else
                bytes[i] = static_cast<char>(bytes[i] ^ (1 << i % 8));
            EXPECT_THAT(not_passed(f), testing::Contains(row)) << i;
        }
    };
    for (const bool cut : {false, true}) {
        damaged([](forged &f) -> std::string & { return *pcrs(f).mutable_quote(); }, "FAIL quote signature",
                cut, 1);
        damaged([](forged &f) -> std::string & { return *pcrs(f).mutable_quote_signature(); },
                "FAIL quote signature", cut, 1);
        damaged(
            [](forged &f) -> std::string & {
                return *attestation_key(f).mutable_certs(DEVICE)->mutable_data();
            },
            "FAIL attestation key signature", cut, 7);
    }
}

} // namespace
