// Evidence that is wrong in one point fails in the check of that point and in no other.
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>

#include "attestctl/text.h"
#include "attestctl/verify/boot_log.h"
#include "attestctl/verify/judge.h"
#include "tests/attestctl/evidence_forge.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key, subject::quote,
                                 subject::boot_log, subject::hardware};

using strings = std::vector<std::string>;

// "OUTCOME NAME" of the checks that did not pass.
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

enum { ROOT, CA, DEVICE };

void replace_certificate(forged &f, int place, const std::string &der)
{
    identity(f).mutable_certs(place)->set_data(der);
    sign_certificates(f);
}

void flip_bit(std::string &bytes)
{
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
}

void renumber(forged &f)
{
    for (int i = 0; i < events(f).size(); ++i)
        events(f)[i].set_event_num(static_cast<std::uint32_t>(i) + 1);
}

// The event's place in the forge's log.
enum {
    SPEC_ID,
    LOCALITY,
    FIRMWARE_VERSION,
    SECURE_BOOT,
    FIRMWARE_VOLUME,
    BOOT_LOADER,
    SEPARATOR_0,
    KERNEL = 14
};

void leave_out(forged &f, int event)
{
    events(f).DeleteSubrange(event, 1);
    renumber(f);
}

void remove_sha256(api::BOOT_EVENT &event)
{
    if (event.digests_size() == 2)
        event.mutable_digests()->RemoveLast();
}

struct wrong {
    const char *what;
    std::function<void(forged &)> make;
    strings expected;
};

void expect_each(const std::vector<wrong> &cases)
{
    for (const wrong &one : cases) {
        forged f = good_evidence();
        one.make(f);
        EXPECT_EQ(not_passed(f), one.expected) << one.what;
    }
}

TEST(verify, good_evidence_passes)
{
    for (std::uint32_t bank = 0; bank < 4; ++bank)
        EXPECT_THAT(not_passed(good_evidence("rack1", bank)), IsEmpty()) << bank;
    for (const signature_scheme scheme : {signature_scheme::rsassa, signature_scheme::rsapss}) {
        forged f = good_evidence();
        f.scheme = scheme;
        f.attestation_key = keys().rsa.get();
        attestation_key(f).mutable_certs(DEVICE)->set_data(make_certificate(device_plan(f.attestation_key)));
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
    const strings chain = {"FAIL identity chain"};
    expect_each({
        {"certificate not in the chain",
         replaced(DEVICE, device, [](auto &plan) { plan.issuer_key = keys().stranger.get(); }), chain},
        {"expired", replaced(DEVICE, device, [](auto &plan) { plan.to_s = -60; }), chain},
        {"not valid yet", replaced(CA, ca, [](auto &plan) { plan.from_s = 60; }), chain},
        {"CA without the flag", replaced(CA, ca, [](auto &plan) { plan.constraints = "CA:FALSE"; }), chain},
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
         [](forged &f) { identity(f).mutable_certs(DEVICE)->set_name("Kestrin AIK"); },
         {"FAIL identity certificates"}},
        {"identity's certificate for the attestation key's",
         [](forged &f) { attestation_key(f).mutable_certs(DEVICE)->set_name("Kestrin VOXA"); },
         {"FAIL attestation key certificates"}},
        {"attestation key's for one that there is not is fine",
         [](forged &f) { f.got.attestation_key_request.set_cert_name("Customer AIK"); },
         {}},
        {"nonce one bit off",
         [](forged &f) { flip_bit(*identity(f).mutable_nonce()); },
         {"FAIL identity nonce"}},
        {"nonce truncated",
         [](forged &f) { attestation_key(f).mutable_nonce()->pop_back(); },
         {"FAIL attestation key nonce"}},
        {"no nonce", [](forged &f) { identity(f).clear_nonce(); }, {"FAIL identity nonce"}},
        {"signature of another answer",
         [](forged &f) { identity(f).set_signature(attestation_key(f).signature()); },
         {"FAIL identity signature"}},
        {"signature by another key",
         [](forged &f) {
             f.identity_key = keys().rsa.get();
             sign_certificates(f);
         },
         {"FAIL identity signature", "FAIL attestation key signature"}},
        {"other algorithm", [](forged &f) { identity(f).set_sig_alg(1); }, {"FAIL identity signature"}},
        {"no signature", [](forged &f) { identity(f).clear_signature(); }, {"FAIL identity signature"}},
        {"no identity record",
         [](forged &f) { f.got.identity.Clear(); },
         {"FAIL identity certificates", "not made attestation key signature"}},
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
    const strings unreadable = {"FAIL quote form", "not made quote nonce", "not made quote selection",
                                "not made quote digest"};
    const auto and_signature = [&unreadable](const char *outcome) {
        strings all = unreadable;
        all.push_back(outcome + " quote signature"s);
        return all;
    };
    expect_each({
        {"wrong magic", requoted([](auto &quote) { quote.magic ^= 1; }), {"FAIL quote form"}},
        {"wrong type", requoted([](auto &quote) { quote.type = TPM2_ST_ATTEST_TIME; }), unreadable},
        {"nonce one bit off",
         requoted([](auto &quote) { quote.extraData.buffer[31] ^= 1; }),
         {"FAIL quote nonce"}},
        {"nonce truncated", requoted([](auto &quote) { --quote.extraData.size; }), {"FAIL quote nonce"}},
        {"no nonce", requoted([](auto &quote) { quote.extraData.size = 0; }), {"FAIL quote nonce"}},
        {"other bank",
         requoted([&](auto &quote) { selection(quote).hash = TPM2_ALG_SHA1; }),
         {"FAIL quote selection"}},
        {"two banks",
         requoted([&](auto &quote) {
             quote.attested.quote.pcrSelect.count = 2;
             quote.attested.quote.pcrSelect.pcrSelections[1] = {TPM2_ALG_SHA1, 3, {}};
         }),
         {"FAIL quote selection", "not made quote digest"}},
        {"fewer PCRs than asked, one value too many",
         [](forged &f) {
             f.got.pcrs_request.add_pcr_indices(24);
             *pcrs(f).add_pcrs() = pcrs(f).pcrs(23);
             pcrs(f).mutable_pcrs(24)->set_index(24);
         },
         {"FAIL quote selection"}},
        {"more PCRs than asked",
         [](forged &f) {
             f.got.pcrs_request.mutable_pcr_indices()->RemoveLast();
             pcrs(f).mutable_pcrs()->RemoveLast();
         },
         {"FAIL quote selection", "not made quote digest"}},
        {"PCR that no quote can have",
         [](forged &f) {
             f.got.pcrs_request.add_pcr_indices(32);
             *pcrs(f).add_pcrs() = pcrs(f).pcrs(23);
             pcrs(f).mutable_pcrs(24)->set_index(32);
         },
         {"FAIL quote selection"}},
        {"no PCR quoted",
         requoted([&](auto &quote) { std::ranges::fill(selection(quote).pcrSelect, 0); }),
         {"FAIL quote selection", "FAIL quote digest"}},
        {"one value too few",
         [](forged &f) { pcrs(f).mutable_pcrs()->RemoveLast(); },
         {"FAIL quote values", "not made quote digest"}},
        {"more values than can be asked for",
         [](forged &f) {
             for (int i = 0; i < 256; ++i)
                 *pcrs(f).add_pcrs() = pcrs(f).pcrs(23);
         },
         {"FAIL quote values", "not made quote digest", "FAIL boot log replay"}},
        {"value of no PCR",
         [](forged &f) { pcrs(f).mutable_pcrs(13)->clear_index(); },
         {"FAIL quote values", "not made quote digest"}},
        {"values swapped",
         [](forged &f) {
             pcrs(f).mutable_pcrs(12)->mutable_value()->swap(*pcrs(f).mutable_pcrs(13)->mutable_value());
         },
         {"FAIL quote digest"}},
        {"values in another order",
         [](forged &f) { pcrs(f).mutable_pcrs()->SwapElements(3, 4); },
         {"FAIL quote values"}},
        {"value missing",
         [](forged &f) { pcrs(f).mutable_pcrs(13)->clear_value(); },
         {"FAIL quote values", "not made quote digest"}},
        {"value of another bank's size",
         [](forged &f) { pcrs(f).mutable_pcrs(13)->mutable_value()->resize(20); },
         {"FAIL quote values", "FAIL quote digest"}},
        {"two values of a PCR",
         [](forged &f) {
             f.got.pcrs_request.add_pcr_indices(13);
             *pcrs(f).add_pcrs() = pcrs(f).pcrs(13);
             flip_bit(*pcrs(f).mutable_pcrs(24)->mutable_value());
         },
         {"FAIL quote values", "not made quote digest"}},
        {"signature by another key",
         [](forged &f) {
             f.attestation_key = keys().stranger.get();
             quote_pcrs(f);
         },
         {"FAIL quote signature"}},
        {"signature by the other kind of key",
         [](forged &f) {
             f.attestation_key = keys().rsa.get();
             f.scheme = signature_scheme::rsassa;
             quote_pcrs(f);
         },
         {"FAIL quote signature"}},
        {"signature of another quote",
         [](forged &f) { pcrs(f).set_quote_signature(hardware(f).quote_signature()); },
         {"FAIL quote signature"}},
        {"signature by SHA-1",
         [](forged &f) { quote_pcrs(f, {}, TPM2_ALG_SHA1); },
         {"FAIL quote digest", "FAIL quote signature"}},
        {"no signature",
         [](forged &f) { pcrs(f).clear_quote_signature(); },
         {"not made quote digest", "FAIL quote signature"}},
        {"bytes after the signature",
         [](forged &f) { pcrs(f).mutable_quote_signature()->push_back('\0'); },
         {"not made quote digest", "FAIL quote signature"}},
        {"bytes after the quote",
         [](forged &f) {
             pcrs(f).mutable_quote()->push_back('\0');
             pcrs(f).set_quote_signature(tpm_signature(f, pcrs(f).quote()));
         },
         unreadable},
        {"empty quote", [](forged &f) { pcrs(f).set_quote(""); }, and_signature("FAIL")},
        {"no quote", [](forged &f) { pcrs(f).clear_quote(); }, and_signature("not made")},
        {"no record",
         [](forged &f) { f.got.pcrs.Clear(); },
         {"FAIL quote values", "not made boot log replay"}},
    });
}

TEST(verify, same_pcr_twice_is_fine)
{
    forged f = good_evidence();
    f.got.pcrs_request.add_pcr_indices(13);
    *pcrs(f).add_pcrs() = pcrs(f).pcrs(13);
    EXPECT_THAT(not_passed(f), IsEmpty());
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

TEST(verify, boot_log)
{
    const strings replay_fails = {"FAIL boot log replay"};
    const strings both_fail = {"FAIL boot log events", "FAIL boot log replay"};
    expect_each({
        {"event left out", [](forged &f) { leave_out(f, FIRMWARE_VOLUME); }, replay_fails},
        {"event left out and seen by the numbers",
         [](forged &f) { events(f).DeleteSubrange(FIRMWARE_VOLUME, 1); }, both_fail},
        {"all events of a PCR left out",
         [](forged &f) {
             leave_out(f, SEPARATOR_0 + 7);
             leave_out(f, SECURE_BOOT);
         },
         replay_fails},
        {"last event left out", [](forged &f) { leave_out(f, SEPARATOR_0 + 6); }, replay_fails},
        {"event twice",
         [](forged &f) {
             *events(f).Add() = events(f)[KERNEL];
             renumber(f);
         },
         replay_fails},
        {"two events swapped",
         [](forged &f) {
             events(f).SwapElements(FIRMWARE_VERSION, FIRMWARE_VOLUME);
             renumber(f);
         },
         replay_fails},
        {"event moved to another PCR", [](forged &f) { events(f)[KERNEL].set_pcr_index(8); }, replay_fails},
        {"event hidden as no action", [](forged &f) { events(f)[KERNEL].set_event_type(3); }, replay_fails},
        {"digest one bit off",
         [](forged &f) { flip_bit(*events(f)[KERNEL].mutable_digests(1)->mutable_digest()); }, replay_fails},
        {"locality wrong", [](forged &f) { events(f)[LOCALITY].mutable_event_data()->back() = 0; },
         replay_fails},
        {"locality that there is not",
         [](forged &f) { events(f)[LOCALITY].mutable_event_data()->back() = 2; }, both_fail},
        {"another locality", [](forged &f) { events(f)[LOCALITY].mutable_event_data()->back() = 4; },
         replay_fails},
        {"locality of two bytes",
         [](forged &f) {
             events(f)[LOCALITY].mutable_event_data()->push_back('\0');
             events(f)[LOCALITY].set_event_size(events(f)[LOCALITY].event_size() + 1);
         },
         both_fail},
        {"locality twice",
         [](forged &f) {
             *events(f).Add() = events(f)[LOCALITY];
             renumber(f);
         },
         {"FAIL boot log events"}},
        {"bank that nobody extended",
         [](forged &f) {
             for (api::BOOT_EVENT &event : events(f))
                 remove_sha256(event);
         },
         replay_fails},
        {"one event without the bank", [](forged &f) { remove_sha256(events(f)[KERNEL]); }, replay_fails},
        {"two digests of the bank",
         [](forged &f) { *events(f)[KERNEL].add_digests() = events(f)[KERNEL].digests(1); }, replay_fails},
        {"nothing but no-action events",
         [](forged &f) { events(f).DeleteSubrange(FIRMWARE_VERSION, events(f).size() - FIRMWARE_VERSION); },
         replay_fails},
        {"PCR that no TPM has", [](forged &f) { events(f)[KERNEL].set_pcr_index(24); }, both_fail},
        {"event without a PCR", [](forged &f) { events(f)[KERNEL].clear_pcr_index(); }, both_fail},
        {"event without a type",
         [](forged &f) { events(f)[KERNEL].clear_event_type(); },
         {"FAIL boot log events"}},
        {"digest by no algorithm", [](forged &f) { events(f)[KERNEL].mutable_digests(1)->clear_hash_alg(); },
         replay_fails},
        {"event without its data",
         [](forged &f) { events(f)[KERNEL].clear_event_data(); },
         {"FAIL boot log events"}},
        {"data cut",
         [](forged &f) { events(f)[KERNEL].mutable_event_data()->pop_back(); },
         {"FAIL boot log events"}},
        {"empty log", [](forged &f) { events(f).Clear(); }, both_fail},
        {"no record", [](forged &f) { f.got.boot_log.Clear(); }, {"FAIL boot log events"}},
    });
}

TEST(verify, hardware)
{
    const strings differ = {"FAIL hardware identifiers"};
    const auto now = [](forged &f) { return hardware(f).mutable_uid_digests_db1(); };
    const auto recorded = [](forged &f) { return hardware(f).mutable_uid_digests_db0(); };
    expect_each({
        {"chip changed", [&](forged &f) { flip_bit(*now(f)->at(3).mutable_digest()); }, differ},
        {"chip gone", [&](forged &f) { now(f)->at(3).set_digest(std::string(32, '\0')); }, differ},
        {"chip added",
         [&](forged &f) {
             *now(f)->Add() = now(f)->at(3);
             now(f)->at(12).set_index(12);
         },
         differ},
        {"chip not reported", [&](forged &f) { now(f)->RemoveLast(); }, differ},
        {"nothing reported", [&](forged &f) { now(f)->Clear(); }, differ},
        {"nothing recorded",
         [&](forged &f) { recorded(f)->Clear(); },
         {"FAIL hardware identifiers", "FAIL hardware binding"}},
        {"entry without a number", [&](forged &f) { now(f)->at(0).clear_index(); }, differ},
        {"entries out of order", [&](forged &f) { now(f)->SwapElements(0, 1); }, differ},
        {"digest of another size", [&](forged &f) { now(f)->at(3).mutable_digest()->resize(20); }, differ},
        {"another list recorded and shown",
         [&](forged &f) {
             flip_bit(*recorded(f)->at(3).mutable_digest());
             flip_bit(*now(f)->at(3).mutable_digest());
         },
         {"FAIL hardware binding"}},
        {"no list at all",
         [&](forged &f) {
             now(f)->Clear();
             recorded(f)->Clear();
         },
         {"not made hardware identifiers", "FAIL hardware binding"}},
        {"PCR 15 extended by others too",
         [](forged &f) {
             hardware(f).mutable_pcrs(0)->set_value(std::string(32, 'x'));
             quote_hardware(f);
         },
         {"FAIL hardware binding"}},
        {"value of another PCR",
         [](forged &f) { hardware(f).mutable_pcrs(0)->set_index(14); },
         {"FAIL hardware binding", "FAIL hardware quote values", "not made hardware quote digest"}},
        {"bank that there is not is SHA-256",
         [](forged &f) { f.got.hw_integrity_request.set_hash_algo(9); },
         {}},
        {"value not quoted",
         [](forged &f) { hardware(f).mutable_pcrs(0)->set_value(std::string(32, 'x')); },
         {"FAIL hardware binding", "FAIL hardware quote digest"}},
        {"another PCR quoted",
         [](forged &f) {
             quote_hardware(f, [](TPMS_ATTEST &quote) {
                 quote.attested.quote.pcrSelect.pcrSelections[0].pcrSelect[1] = 0x40; // PCR 14
             });
         },
         {"FAIL hardware quote selection", "not made hardware quote digest"}},
        {"key without a certificate here",
         [](forged &f) { hardware(f).set_key_cert_name("Customer AIK"); },
         {"not made hardware quote signature"}},
        {"no record", [](forged &f) { f.got.hw_integrity.Clear(); }, {"FAIL hardware identifiers"}},
    });
    forged f = good_evidence();
    for (api::UID_DIGEST &one : *now(f))
        flip_bit(*one.mutable_digest());
    EXPECT_EQ(judge(f.got, std::array{subject::hardware}, f.roots).front().reason,
              "12 differences: 0 changed, 1 changed, 2 changed, 3 changed, 4 changed, 5 changed, 6 changed, "
              "7 changed, ...");
}

template <typename Answer>
void add_records(Answer &to, const Answer &from)
{
    to.mutable_node_data()->MergeFrom(from.node_data());
}

// Adds the records of another node's evidence behind those of the first.
void add_source(forged &f, const forged &other)
{
    add_records(f.got.identity, other.got.identity);
    add_records(f.got.attestation_key, other.got.attestation_key);
    add_records(f.got.pcrs, other.got.pcrs);
    add_records(f.got.boot_log, other.got.boot_log);
    add_records(f.got.hw_integrity, other.got.hw_integrity);
    f.roots.certificates.insert(f.roots.certificates.end(), other.roots.certificates.begin(),
                                other.roots.certificates.end());
}

TEST(verify, sources_are_judged_side_by_side)
{
    const std::vector<std::pair<std::string, std::string>> names = {
        {"bmc", "bmc"}, {"rack1", "rack1 (2)"}, {"", "(without a name)"}, {"\x1b[2J", "\\x1b[2J"}};
    for (const auto &[name, shown] : names) {
        forged f = good_evidence();
        add_source(f, good_evidence(name));
        EXPECT_THAT(not_passed(f), IsEmpty()) << shown;
        flip_bit(*f.got.pcrs.mutable_node_data(1)->mutable_pcrs(13)->mutable_value());
        for (const check &row : judge(f.got, SUBJECTS, f.roots)) {
            const bool is_wrong = row.source == shown && row.name == "quote digest";
            EXPECT_EQ(row.outcome != check_outcome::passed, is_wrong) << row.source << ": " << row.name;
        }
    }
}

TEST(verify, bmc_is_held_to_roots_of_its_own_and_has_to_be_there)
{
    const forged bmc = good_evidence("bmc");
    forged f = good_evidence();
    const auto wrong = [&f](const trusted_roots &node, const trusted_roots &of_bmc) {
        strings rows;
        for (const check &row : judge(f.got, SUBJECTS, node, &of_bmc))
            if (row.outcome != check_outcome::passed)
                rows.push_back(row.source + ": " + row.name);
        return rows;
    };
    EXPECT_THAT(wrong(f.roots, bmc.roots), ElementsAre(": BMC"));
    const trusted_roots node_roots = f.roots;
    add_source(f, bmc);
    EXPECT_THAT(wrong(node_roots, bmc.roots), IsEmpty());
    EXPECT_THAT(wrong(node_roots, node_roots),
                ElementsAre("bmc: identity root", "bmc: attestation key root"));
    EXPECT_THAT(wrong(bmc.roots, bmc.roots),
                ElementsAre("rack1: identity root", "rack1: attestation key root"));
}

TEST(verify, source_without_one_kind_fails_there)
{
    forged f = good_evidence();
    add_source(f, good_evidence("bmc"));
    f.got.boot_log.mutable_node_data()->RemoveLast();
    EXPECT_THAT(not_passed(f), ElementsAre("FAIL boot log events"));
}

TEST(verify, no_source_and_too_many)
{
    EXPECT_THAT(not_passed({}, {}), ElementsAre("FAIL sources"));
    const auto crowd = [](auto answer) {
        return [answer](forged &f) {
            for (int i = 0; i < 16; ++i)
                (f.got.*answer).add_node_data()->set_node_name(std::to_string(i));
        };
    };
    const strings refused = {"FAIL sources"};
    expect_each({
        {"identities", crowd(&evidence::identity), refused},
        {"attestation keys", crowd(&evidence::attestation_key), refused},
        {"PCR values", crowd(&evidence::pcrs), refused},
        {"boot logs", crowd(&evidence::boot_log), refused},
        {"hardware", crowd(&evidence::hw_integrity), refused},
    });
}

TEST(verify, ima_list_that_did_not_come_fails)
{
    evidence got = good_evidence().got;
    constexpr std::array ima = {subject::ima_list};
    const auto names = [&] {
        std::vector<std::string> failing;
        for (const check &row : judge(got, ima, {}))
            if (row.outcome == check_outcome::failed)
                failing.push_back(row.name);
        return failing;
    };
    EXPECT_THAT(names(), ElementsAre("IMA list numbers", "IMA list")) << "neither a list nor a stream";
    got.arrivals.push_back({"ima-log", true, 1, ""});
    EXPECT_THAT(names(), ElementsAre("IMA list numbers")) << "a stream without a list of this source";
    api::NodeIMAData stranger;
    stranger.set_node_name("nobody");
    take_ima_message(got.ima_lists, stranger, got.pcrs);
    EXPECT_THAT(names(), ElementsAre("IMA list numbers", "IMA list"))
        << "and one of a source of nothing else";
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

TEST(replay, every_bank_of_the_log)
{
    forged f = good_evidence();
    const pcr_replay sha1 = replay(f.got.boot_log.node_data(0), *hash_by_number(0));
    const auto extended = [](const std::string &value, const std::string &data) {
        return digest(EVP_sha1(), value + digest(EVP_sha1(), data));
    };
    EXPECT_EQ(sha1.problem, "");
    EXPECT_EQ(sha1.values[9], extended(std::string(20, '\0'), "kernel"));
    EXPECT_EQ(sha1.values[0], extended(extended(extended(std::string(19, '\0') + '\3', "firmware version"),
                                                "firmware volume"),
                                       std::string(4, '\0')));
    EXPECT_EQ(sha1.values[17], std::string(20, '\xff'));
    EXPECT_NE(replay(f.got.boot_log.node_data(0), *hash_by_number(2)).problem, "");
}

TEST(roots, files)
{
    const auto read = [](const std::string &content, trusted_roots &roots) {
        const std::string path = testing::TempDir() + "attestctl_roots_test";
        std::ofstream(path, std::ios::binary) << content;
        std::string error;
        return read_roots(path, roots, error) ? "" : error.substr(error.rfind(": ") + 2);
    };
    const auto pem = [](const std::string &der) {
        const auto *at = reinterpret_cast<const unsigned char *>(der.data());
        const x509_owner certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
        const bio_owner out(BIO_new(BIO_s_mem()));
        PEM_write_bio_X509(out.get(), certificate.get());
        char *text = nullptr;
        const long length = BIO_get_mem_data(out.get(), &text);
        return std::string(text, static_cast<std::size_t>(length));
    };
    const std::string one = make_certificate(root_plan("one"));
    const std::string two = make_certificate(root_plan("two"));
    trusted_roots roots;
    EXPECT_EQ(read(one, roots), "");
    EXPECT_TRUE(is_trusted(roots, one) && !is_trusted(roots, two) && roots.pinned());
    EXPECT_EQ(read("a comment\n" + pem(two) + pem(one), roots), "");
    EXPECT_TRUE(is_trusted(roots, one) && is_trusted(roots, two));
    EXPECT_FALSE(is_trusted(roots, one + '\0'));
    EXPECT_EQ(read(one + '\0', roots), "1 byte after the certificate");
    EXPECT_EQ(read("", roots), "no DER certificate");
    EXPECT_EQ(read(pem(one) + pem(two).substr(0, 100), roots), "a PEM certificate that cannot be read");
    EXPECT_EQ(read("-----BEGIN OTHER-----\nAAAA\n-----END OTHER-----\n", roots), "no certificate in it");
    EXPECT_EQ(roots.certificates.size(), 2U) << "a file that cannot be read changes nothing";
}

} // namespace
