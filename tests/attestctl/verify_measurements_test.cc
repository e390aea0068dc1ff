// What was measured: the boot log against the PCR values, the hardware report against PCR 15.
#include <gtest/gtest.h>

#include "attestctl/text.h"
#include "attestctl/verify/boot_log.h"
#include "tests/attestctl/wrong_evidence.h"

namespace {

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

TEST(verify, boot_log)
{
    const strings events_fail = {"FAIL boot log events"}, replay_fails = {"FAIL boot log replay"};
    const strings both_fail = {"FAIL boot log events", "FAIL boot log replay"};
    expect_each({
        {"all events of a PCR left out",
         [](forged &f) {
             leave_out(f, SEPARATOR_0 + 7);
             leave_out(f, SECURE_BOOT);
         },
         replay_fails},
        {"event twice",
         [](forged &f) {
             *events(f).Add() = events(f)[KERNEL];
             renumber(f);
         },
         replay_fails},
        {"event moved to another PCR", [](forged &f) { events(f)[KERNEL].set_pcr_index(8); }, replay_fails},
        {"event hidden as no action", [](forged &f) { events(f)[KERNEL].set_event_type(3); }, replay_fails},
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
         events_fail},
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
        {"event without a type", [](forged &f) { events(f)[KERNEL].clear_event_type(); }, events_fail},
        {"digest by no algorithm", [](forged &f) { events(f)[KERNEL].mutable_digests(1)->clear_hash_alg(); },
         replay_fails},
        {"event without its data", [](forged &f) { events(f)[KERNEL].clear_event_data(); }, events_fail},
        {"no record", [](forged &f) { f.got.boot_log.Clear(); }, events_fail},
    });
}

TEST(verify, hardware)
{
    const strings differ = {"FAIL hardware identifiers"}, unbound = {"FAIL hardware binding"};
    const auto now = [](forged &f) { return hardware(f).mutable_uid_digests_db1(); };
    const auto recorded = [](forged &f) { return hardware(f).mutable_uid_digests_db0(); };
    expect_each({
        {"chip gone", [&](forged &f) { now(f)->at(3).set_digest(std::string(32, '\0')); }, differ},
        {"chip added",
         [&](forged &f) {
             *now(f)->Add() = now(f)->at(3);
             now(f)->at(12).set_index(12);
         },
         differ},
        {"nothing reported", [&](forged &f) { now(f)->Clear(); }, differ},
        {"nothing recorded",
         [&](forged &f) { recorded(f)->Clear(); },
         {"FAIL hardware identifiers", "FAIL hardware binding"}},
        {"entry without a number", [&](forged &f) { now(f)->at(0).clear_index(); }, differ},
        {"entries out of order", [&](forged &f) { now(f)->SwapElements(0, 1); }, differ},
        {"digest of another size", [&](forged &f) { now(f)->at(3).mutable_digest()->resize(20); }, differ},
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
         unbound},
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
    });
    forged f = good_evidence();
    for (api::UID_DIGEST &one : *now(f))
        flip_bit(*one.mutable_digest());
    EXPECT_EQ(judge(f.got, std::array{subject::hardware}, f.roots).front().reason,
              "12 differences: 0 changed, 1 changed, 2 changed, 3 changed, 4 changed, 5 changed, 6 changed, "
              "7 changed, ...");
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

} // namespace
