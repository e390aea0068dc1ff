// What attestctl keeps between attestations of a node: how far its list was verified, and what it was like.
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "tests/attestctl/simulated_node.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

// Good as well, with another PCR 5 and another chip 3.
forged changed(forged f)
{
    api::NodeBootIntegrityLog &log = *f.got.boot_log.mutable_node_data(0);
    api::BOOT_EVENT &event = *log.add_events();
    event = log.events(log.events_size() - 2);
    event.set_event_num(static_cast<std::uint32_t>(log.events_size()));
    event.set_pcr_index(5);
    std::string &pcr5 = *f.got.pcrs.mutable_node_data(0)->mutable_pcrs(5)->mutable_value();
    pcr5 = digest(EVP_sha256(), pcr5 + event.digests(1).digest());

    api::tpm_hw_integrity &hardware = *f.got.hw_integrity.mutable_node_data(0);
    const std::string chip = digest(EVP_sha256(), "another chip");
    hardware.mutable_uid_digests_db0(3)->set_digest(chip);
    hardware.mutable_uid_digests_db1(3)->set_digest(chip);
    std::string recorded;
    for (const api::UID_DIGEST &one : hardware.uid_digests_db0())
        recorded += one.digest();
    hardware.mutable_pcrs(0)->set_value(
        digest(EVP_sha256(), std::string(32, '\0') + digest(EVP_sha256(), recorded)));
    return f;
}

class KeptFiles : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "keptXXXXXX";
        folder = mkdtemp(name.data());
        roots = folder + "/roots.pem";
        trust(node.model.evidence);
        state = folder + "/state.json";
        pins = folder + "/pins.json";
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    // Puts the roots of the evidence behind those in the file.
    void trust(const forged &evidence)
    {
        std::string text = content_of(roots);
        for (const std::string &der : evidence.roots.certificates)
            text += pem_of(der);
        write_content(roots, text);
    }

    // A management controller of this name with 30 events, other than the node in all that is kept of it.
    source_model &add_bmc(const std::string &name)
    {
        source_model &bmc = node.model.bmc.emplace_back();
        bmc.name = name;
        bmc.evidence = changed(good_second_source(name));
        bmc.resets = 8;
        grow(bmc.list, 30);
        trust(bmc.evidence);
        return bmc;
    }

    outcome attest(const std::string &words)
    {
        return attestctl("--target " + node.targets()[0] + " attest --root " + roots + ' ' + words);
    }
    outcome attest_with_state() { return attest("--state " + state); }
    // It verifies with the state, and says this.
    void expect_good(std::initializer_list<std::string> said = {})
    {
        const outcome done = attest_with_state();
        EXPECT_EQ(done.status, 0) << done.text;
        for (const std::string &words : said)
            EXPECT_THAT(done.text, HasSubstr(words));
    }

    simulated_node node;
    std::string folder, roots, state, pins;
};

TEST_F(KeptFiles, OnlyWhatIsNewIsAskedForAndStillLeadsToTheQuote)
{
    expect_good({"2,500 events, from 1 on"});
    grow(node.model.list, 7);
    expect_good({"7 new events after number 2,500"});
    expect_good(); // nothing new
    EXPECT_THAT(node.asked(), ElementsAre(0, 2500, 2507));

    // Events after the quote are not verified: the next attestation asks for them again.
    grow(node.model.list, 5);
    node.model.after_quote = 2;
    expect_good({"2 events came after the quote"});
    node.model.after_quote = 0;
    expect_good({"2 new events after number 2,510"});
    EXPECT_THAT(node.asked(), ElementsAre(2507, 2510));
}

// A node answers in whole chunks: what it sends of events that were verified earlier is not looked at again.
TEST_F(KeptFiles, ThePageHasNoEventThatWasNotLookedAt)
{
    expect_good();
    grow(node.model.list, 7);
    node.model.rewrite = [](api::NodeIMAData &message) {
        for (api::IMA_EVENT &event : *message.mutable_events())
            if (event.event_num() == 2400)
                event.set_event_name("/usr/bin/invented");
    };
    const std::string page = folder + "/page.html";
    const outcome done = attest("--state " + state + " --html " + page);
    EXPECT_EQ(done.status, 0) << done.text;
    EXPECT_THAT(content_of(page), HasSubstr("/usr/bin/tool-2507"));
    EXPECT_EQ(content_of(page).find("invented"), std::string::npos);
}

// Unfolded, it could be of any size.
TEST_F(KeptFiles, ACompressedAnswerIsNotTaken)
{
    simulated_node compressing(1, GRPC_COMPRESS_GZIP);
    const outcome done = attestctl("--target " + compressing.targets()[0] + " boot-log");
    EXPECT_NE(done.status, 0) << done.text;
    EXPECT_EQ(attestctl("--target " + node.targets()[0] + " boot-log").status, 0);
}

TEST_F(KeptFiles, AListThatDoesNotContinueIsTakenFromItsBegin)
{
    expect_good();
    const struct {
        const char *note;
        std::vector<std::uint64_t> asked;
        std::function<void(node_model &)> change;
    } cases[] = {
        {"the node was booted since",
         {0},
         [](node_model &now) {
             ++now.resets;
             now.list.resize(100);
         }},
        {"the TPM was restarted since", {0}, [](node_model &now) { ++now.restarts; }},
        {"another attestation key",
         {0},
         [](node_model &now) {
             auto &certificates = *now.evidence.got.attestation_key.mutable_node_data(0);
             certificates.mutable_certs(2)->set_data(
                 make_certificate(attestation_plan(now.evidence.attestation_key)));
         }},
        {"does not go on from event",
         {100, 0},
         [](node_model &now) {
             now.list.clear();
             grow(now.list, 50);
         }},
        {"does not go on from event",
         {50, 0},
         [](node_model &now) {
             now.list.clear();
             grow(now.list, 1200);
             now.list.erase(now.list.begin());
             for (std::size_t i = 0; i < now.list.size(); ++i)
                 now.list[i].set_event_num(i + 1);
         }},
    };
    node.asked();
    for (const auto &row : cases) {
        row.change(node.model);
        expect_good({"taken whole: ", row.note});
        EXPECT_EQ(node.asked(), row.asked) << row.note;
    }
}

TEST_F(KeptFiles, ListsOfTwoSourcesAreRememberedEachByItself)
{
    source_model &bmc = add_bmc("bmc");
    expect_good({"2,500 events, from 1 on", " 30 events, from 1 on"});
    grow(node.model.list, 7);
    expect_good({"7 new events after number 2,500", "0 new events after number 30"});
    EXPECT_THAT(node.asked(), ElementsAre(0, 2500));
    grow(bmc.list, 1); // and what comes after event 2,507 is asked for
    expect_good({"0 new events after number 2,507", "taken whole: what follows event 30, up to which"});
    EXPECT_THAT(node.asked(), ElementsAre(2507, 0));

    ++bmc.resets; // and only it
    bmc.list.resize(10);
    expect_good({"0 new events after number 2,507",
                 " 10 events, from 1 on and without gaps; taken whole: the node was booted since"});
    bmc.evidence.got.attestation_key.mutable_node_data(0)->mutable_certs(2)->set_data(
        make_certificate(attestation_plan(bmc.evidence.attestation_key)));
    expect_good({"0 new events after number 2,507", "taken whole: another attestation key"});
    ++node.model.resets;
    node.model.list.resize(5);
    grow(bmc.list, 2);
    expect_good({" 5 events, from 1 on and without gaps; taken whole: the node was booted since",
                 "2 new events after number 10"});
    node.model.list.resize(4);
    bmc.list.resize(3);
    expect_good({" 4 events, from 1 on and without gaps; taken whole: it does not go on from event 5",
                 " 3 events, from 1 on and without gaps; taken whole: it does not go on from event 12"});
}

TEST_F(KeptFiles, SourcesOfOneNameCannotBeToldApart)
{
    expect_good();
    const std::string kept = content_of(state);
    source_model &bmc = add_bmc(node.model.name);
    for (const std::size_t events : {30, 0}) {
        bmc.list.resize(events);
        const outcome done = attest_with_state();
        EXPECT_EQ(done.status, 1);
        EXPECT_THAT(done.text, HasSubstr("NOT VERIFIED: 2 checks failed\n"));
        EXPECT_THAT(done.text, HasSubstr("another source has the same name: whose events came cannot"));
        EXPECT_EQ(content_of(state), kept);
    }
}

TEST_F(KeptFiles, WhatDoesNotVerifyIsNotRemembered)
{
    expect_good();
    const std::string kept = content_of(state);
    grow(node.model.list, 3);
    node.model.list.back().set_event_name("/tmp/forged");
    node.model.list[2400].set_template_hash(std::string(20, 't')); // and the whole list is none either
    const outcome done = attest_with_state();
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.text, HasSubstr("template hash is not that of its fields"));
    EXPECT_EQ(content_of(state), kept);
}

TEST_F(KeptFiles, PinsAreDemandedFromTheSecondUseOn)
{
    node.model.evidence.got.boot_log.mutable_node_data(0)->mutable_events(3)->set_pcr_index(5);
    outcome done = attest("--pin " + pins);
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.text, HasSubstr("gets none of a node that does not verify"));
    EXPECT_FALSE(std::filesystem::exists(pins));

    node.model.evidence = good_evidence(node.model.name);
    const auto attest_by_pins = [this] {
        return attestctl("--target " + node.targets()[0] + " attest --pin " + pins);
    };
    done = attest_by_pins();
    EXPECT_EQ(done.status, 0) << done.text;
    EXPECT_THAT(done.text, HasSubstr("against roots that are not pinned"));
    EXPECT_THAT(done.text, HasSubstr("attestctl: pinned 127.0.0.1:"));
    const std::string kept = content_of(pins);
    done = attest_by_pins();
    EXPECT_EQ(done.status, 0);
    EXPECT_THAT(done.text, HasSubstr("\nVERIFIED\n")); // by roots that are pinned now
    EXPECT_THAT(done.text, HasSubstr("PCRs 0-9, 14-15 as pinned"));
    EXPECT_THAT(done.text, HasSubstr("12 reference digests as pinned"));

    auto fewer = nlohmann::json::parse(kept);
    fewer["nodes"][0]["sources"][0].erase("references");
    write_content(pins, fewer.dump(1) + '\n');
    EXPECT_EQ(attest_by_pins().status, 0);
    EXPECT_EQ(content_of(pins), fewer.dump(1) + '\n') << "a pin that was taken out stays out";
    write_content(pins, kept);

    const auto expect_differing = [&](std::initializer_list<const char *> rows) {
        done = attest_by_pins();
        EXPECT_EQ(done.status, 1);
        for (const char *row : rows)
            EXPECT_THAT(done.text,
                        MatchesRegex(std::string(".*\n +") + row +
                                     " +FAIL +pinned is [0-9a-f]{64}, now it is [0-9a-f]{64}\n.*"));
        EXPECT_EQ(content_of(pins), kept);
    };
    // Another firmware that measures itself well, other roots, other chips that are recorded well.
    node.model.evidence = changed(good_evidence(node.model.name));
    expect_differing(
        {"pinned identity root", "pinned attestation root", "pinned PCR 5", "pinned reference 3"});
    EXPECT_THAT(done.text, HasSubstr("NOT VERIFIED: 4 checks failed"));
    node.model.evidence = good_second_source(node.model.name); // another card in its place
    expect_differing({"pinned identity key", "pinned attestation key"});
}

TEST_F(KeptFiles, PinsOfTwoSourcesAreDemandedOfEachByItself)
{
    // "SOURCE: NAME" of the checks that did not pass.
    const auto failing = [this] {
        const outcome done = attest("--json --pin " + pins + " 2>/dev/null");
        const auto report = nlohmann::json::parse(done.text);
        std::vector<std::string> rows;
        for (const auto &row : report["checks"])
            if (row["outcome"] != "pass")
                rows.push_back(std::string(row["source"]) + ": " + std::string(row["name"]));
        EXPECT_EQ(done.status, rows.empty() ? 0 : 1);
        return rows;
    };
    EXPECT_THAT(failing(), IsEmpty());
    source_model &bmc = add_bmc("b\\mc"); // whose backslash is shown doubled
    EXPECT_THAT(failing(), ElementsAre("b\\\\mc: pinned source"));
    std::filesystem::remove(pins);
    EXPECT_THAT(failing(), IsEmpty());
    EXPECT_THAT(failing(), IsEmpty()) << "by the pins";

    bmc.evidence = good_second_source("b\\mc"); // like the node, which is pinned too
    trust(bmc.evidence);
    EXPECT_THAT(failing(), ElementsAre("b\\\\mc: pinned identity root", "b\\\\mc: pinned attestation root",
                                       "b\\\\mc: pinned PCR 5", "b\\\\mc: pinned reference 3"));
    node.model.bmc.clear();
    EXPECT_THAT(failing(), ElementsAre("b\\\\mc: pinned source"));
}

TEST_F(KeptFiles, FilesThatAreNoneAskNothingAndStayAsTheyAre)
{
    expect_good();
    const std::string good = content_of(state);
    node.asked();
    const std::size_t begin = good.find('[') + 1, end = good.rfind(']'); // of the node
    const std::string twice = std::string(good).insert(end, ',' + good.substr(begin, end - begin));
    std::vector<std::string> contents = {"",
                                         "{",
                                         "[]",
                                         "null",
                                         "\xff\xfe",
                                         good.substr(0, good.size() / 2),
                                         good + std::string(17 << 20, ' '),
                                         std::string(200000, '['),
                                         R"({"attestctl_state":2,"nodes":[]})",
                                         R"({"attestctl_state":1})",
                                         R"({"attestctl_state":1,"nodes":[7]})",
                                         R"({"attestctl_state":1,"nodes":[{"target":"a","lists":[{}]}]})",
                                         twice};
    contents.push_back(std::string(good).replace(good.find("\"pcr\": 10"), 9, "\"pcr\": 24"));
    for (const char *member : {"\"source\"", "\"key\": \"", "\"event\": ", "\"value\": \"", "\"padded\": "})
        contents.push_back(std::string(good).replace(good.find(member) + 3, 1, "~"));
    for (const std::string &content : contents) {
        write_content(state, content);
        const outcome done = attest_with_state();
        EXPECT_EQ(done.status, 2) << content.substr(0, 60);
        EXPECT_THAT(done.text, MatchesRegex("attestctl: [^\n]*state.json[^\n]*\n"));
        EXPECT_EQ(content_of(state), content);
    }
    const std::vector<std::string> no_pins = {
        "",
        "[1",
        R"({"attestctl_pins":1,"nodes":[{"target":"a","sources":[]}]})",
        R"({"attestctl_pins":1,"nodes":[{"target":"a","sources":[{"source":"s","identity_root":"00"}]}]})",
        R"({"attestctl_pins":1,"nodes":[{"target":"a","sources":[{"source":"s","pcrs":[{"pcr":1}]}]}]})",
        R"({"attestctl_pins":1,"nodes":[{"target":"a","sources":[{"source":"s","references":["0"]}]}]})"};
    for (const std::string &content : no_pins) {
        write_content(pins, content);
        const outcome done = attest("--pin " + pins);
        EXPECT_EQ(done.status, 2) << content;
        EXPECT_THAT(done.text, MatchesRegex("attestctl: [^\n]*pins.json[^\n]*\n"));
        EXPECT_EQ(content_of(pins), content);
    }
    ASSERT_EQ(mkfifo((folder + "/pipe").c_str(), 0600), 0);
    for (const std::string &path :
         {folder, folder + "/pipe", std::string("/dev/zero"), roots + "/x", std::string("/absent/x")}) {
        const outcome done = attest("--state " + path);
        EXPECT_EQ(done.status, 2) << path;
        EXPECT_THAT(done.text, MatchesRegex("attestctl: [^\n]*\n"));
    }
    EXPECT_THAT(node.asked(), IsEmpty());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 4); // nothing half-written
}

TEST_F(KeptFiles, WhatSomebodyElseWritesMeanwhileIsLeftToThem)
{
    expect_good();
    grow(node.model.list, 1);
    for (const auto &[option, path] : {std::pair("--state ", state), std::pair("--pin ", pins)}) {
        node.model.meanwhile = [path = path] { write_content(path, "theirs"); };
        const outcome done = attest(option + path);
        EXPECT_EQ(done.status, 2);
        EXPECT_THAT(done.text, HasSubstr(path + " was changed by somebody else meanwhile and is left"));
        EXPECT_EQ(content_of(path), "theirs");
    }
}

} // namespace
