// Several sources in one answer, and the roots that they are held to.
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "attestctl/verify/sources.h"
#include "tests/attestctl/wrong_evidence.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

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
        add_source(f, good_second_source(name));
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
    const forged bmc = good_second_source("bmc");
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

TEST(verify, one_device_is_not_two_sources)
{
    forged f = good_evidence();
    add_source(f, good_evidence("bmc"));
    EXPECT_THAT(not_passed(f),
                testing::IsSupersetOf({"FAIL identity certificates", "FAIL attestation key certificates"}));
    for (const check &row : judge(f.got, SUBJECTS, f.roots))
        EXPECT_TRUE(row.source == "bmc" || row.outcome == check_outcome::passed)
            << row.source << ": " << row.name;
}

TEST(verify, names_that_could_be_taken_for_each_other_are_not)
{
    EXPECT_THAT(not_passed(good_evidence(std::string(65, 'n'))), ElementsAre("FAIL sources"));
    EXPECT_THAT(not_passed(good_evidence(std::string(64, 'n'))), IsEmpty());
    forged f = good_evidence("");
    add_source(f, good_second_source("(without a name)"));
    const std::vector<check> rows = judge(f.got, SUBJECTS, f.roots);
    EXPECT_EQ(rows.front().source, "(without a name)");
    EXPECT_EQ(rows.back().source, "(without a name) (2)");
    const std::vector<source> sources{{"a"}, {"a"}, {"a (2)"}};
    EXPECT_EQ(source_name(sources, 1), "a (2)");
    EXPECT_EQ(source_name(sources, 2), "a (2) (2)");
}

TEST(verify, what_came_is_told_of_no_more_sources_than_there_can_be)
{
    api::get_certificate_response answer;
    ima_arrival stream;
    for (int i = 0; i < 1000; ++i) {
        answer.add_node_data();
        api::NodeIMAData message;
        message.set_node_name("n" + std::to_string(i));
        note_message(stream, message);
    }
    EXPECT_LT(arrival_of("certificates", answer).text.size(), 1000U);
    EXPECT_EQ(arrival_of("certificates", answer).sources, 1000U);
    EXPECT_LT(stream.nodes.size(), 20U);
}

TEST(verify, source_without_one_kind_fails_there)
{
    forged f = good_evidence();
    add_source(f, good_second_source("bmc"));
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

TEST(roots, files)
{
    const auto read = [](const std::string &content, trusted_roots &roots) {
        const std::string path = testing::TempDir() + "attestctl_roots_" + std::to_string(getpid());
        std::ofstream(path, std::ios::binary) << content;
        std::string error;
        const bool was_read = read_roots(path, roots, error);
        std::filesystem::remove(path);
        return was_read ? "" : error.substr(error.rfind(": ") + 2);
    };
    const std::string one = make_certificate(root_plan("one"));
    const std::string two = make_certificate(root_plan("two"));
    trusted_roots roots;
    EXPECT_EQ(read(one, roots), "");
    EXPECT_TRUE(is_trusted(roots, one) && !is_trusted(roots, two) && roots.pinned());
    EXPECT_EQ(read("a comment\n" + pem_of(two) + pem_of(one), roots), "");
    EXPECT_TRUE(is_trusted(roots, one) && is_trusted(roots, two));
    EXPECT_FALSE(is_trusted(roots, one + '\0'));
    EXPECT_EQ(read(one + '\0', roots), "1 byte after the certificate");
    EXPECT_EQ(read("", roots), "no DER certificate");
    EXPECT_EQ(read(pem_of(one) + pem_of(two).substr(0, 100), roots), "a PEM certificate that cannot be read");
    EXPECT_EQ(read("-----BEGIN OTHER-----\nAAAA\n-----END OTHER-----\n", roots), "no certificate in it");
    EXPECT_EQ(roots.certificates.size(), 2U) << "a file that cannot be read changes nothing";
}

} // namespace
