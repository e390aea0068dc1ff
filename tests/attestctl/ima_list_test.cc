// The replay of the IMA list against the quoted PCR values, and what must not pass. Whole recorded lists are
// replayed end to end, and recorded evidence (tests/vectors) has the plain ways to damage one.
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "attestctl/verify/hashes.h"
#include "attestctl/verify/ima_list.h"
#include "tests/attestctl/evidence_forge.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using events = std::vector<api::IMA_EVENT>;

struct attested {
    api::attest_pcr_response quotes;
    events list;

    void quote(int pcr, const std::string &value)
    {
        quotes.mutable_node_data(0)->mutable_pcrs(pcr)->set_value(value);
    }
    void number_anew()
    {
        for (std::size_t i = 0; i < list.size(); ++i)
            list[i].set_event_num(i + 1);
    }
};

// A list with a violation in it, and the PCR values after it.
attested good_list()
{
    attested boot;
    grow(boot.list, 60);
    boot.list[40].set_template_hash(std::string(20, '\0'));
    api::NodePCRData &record = *boot.quotes.add_node_data();
    record.set_node_name("card7");
    for (std::uint32_t i = 0; i < 24; ++i)
        record.add_pcrs()->set_index(i);
    boot.quote(10, replayed(boot.list));
    return boot;
}

api::NodeIMAData message_of(const events &list, const std::string &node = "card7")
{
    api::NodeIMAData message;
    message.set_node_name(node);
    message.mutable_events()->Assign(list.begin(), list.end());
    return message;
}

std::vector<check> judge(const attested &boot)
{
    std::vector<ima_list> lists;
    take_ima_message(lists, message_of(boot.list), boot.quotes);
    check_list rows;
    check_ima_list(rows, lists.at(0));
    return rows.rows;
}

std::vector<std::string> not_passed(const attested &boot)
{
    std::vector<std::string> rows;
    for (const check &row : judge(boot))
        if (row.outcome != check_outcome::passed)
            rows.push_back(row.name.substr(sizeof "IMA list"));
    return rows;
}

TEST(ima_list, WhatIsWrongFailsInItsRow)
{
    const attested good = good_list();
    EXPECT_THAT(not_passed(good), IsEmpty());
    EXPECT_EQ(judge(good)[0].reason, "60 events, from 1 on and without gaps, 1 violation");
    const std::vector<std::string> replay = {"replay"}, both = {"hashes", "replay"};
    const struct {
        const char *what;
        std::function<void(attested &, api::IMA_EVENT &one)> damage;
        std::vector<std::string> rows;
    } cases[] = {
        {"everything left out", [](attested &boot, auto &) { boot.list.clear(); }, replay},
        {"an event twice",
         [](attested &boot, auto &) { boot.list.push_back(events(boot.list).back()); },
         {"numbers"}},
        {"another file name and its hash",
         [](attested &, auto &one) {
             one.set_event_name("/bin/sh");
             one.set_template_hash(digest(EVP_sha1(), template_data(one)));
         },
         replay},
        {"a violation for an event",
         [](attested &, auto &one) { one.set_template_hash(std::string(20, '\0')); }, replay},
        {"an event of another PCR", [](attested &, auto &one) { one.set_pcr(11); }, replay},
        {"an event without a hash", [](attested &, auto &one) { one.clear_template_hash(); }, both},
        {"no quoted PCR 10",
         [](attested &boot, auto &) {
             boot.quotes.mutable_node_data(0)->mutable_pcrs()->DeleteSubrange(10, 1);
         },
         replay},
        {"PCR 10 that no event was extended into",
         [](attested &boot, auto &) { boot.quote(10, std::string(32, '\0')); }, replay},
        {"another node's quote",
         [](attested &boot, auto &) { boot.quotes.mutable_node_data(0)->set_node_name("card8"); }, replay},
        {"a template that nobody knows",
         [](attested &, auto &one) { one.set_template_name("d-ng|n-ng|evmsig"); }, both},
        // The name of the template is in no hash: the same bytes are other fields under another one.
        {"another digest, which its template does not have",
         [](attested &, auto &one) {
             one.set_template_name("sig|n-ng");
             one.set_signature(one.digest_algo() + std::string(":\0", 2) + one.digest());
             one.mutable_digest()->back() ^= 1;
         },
         both},
        {"another name, which its template does not have",
         [](attested &, auto &one) {
             one.set_template_name("d-ng|sig");
             one.set_signature(one.event_name() + '\0');
             one.set_event_name("/bin/sh");
         },
         both},
        {"a name that its template has twice",
         [](attested &, auto &one) { one.set_template_name("d-ng|n-ng|n-ng"); }, both},
        {"a signature, which its template does not have",
         [](attested &, auto &one) { one.set_signature("forged"); }, both},
    };
    for (const auto &row : cases) {
        attested boot = good;
        row.damage(boot, boot.list[30]);
        EXPECT_EQ(not_passed(boot), row.rows) << row.what;
    }
}

TEST(ima_list, ANodeThatMeasuresNothingSaysSo)
{
    attested boot = good_list();
    boot.list.clear();
    boot.quote(10, std::string(32, '\0'));
    EXPECT_THAT(not_passed(boot), IsEmpty());
    EXPECT_THAT(judge(boot)[0].reason, HasSubstr("0 events"));
}

TEST(ima_list, OtherPcrsCountWhereEventsAreExtendedIntoThem)
{
    attested boot = good_list();
    api::IMA_EVENT event = boot.list[0];
    event.set_pcr(11);
    boot.list.insert(boot.list.end() - 1, 2, event);
    boot.number_anew();
    boot.quote(11, replayed({event, event}));
    EXPECT_THAT(not_passed(boot), IsEmpty());
    EXPECT_THAT(judge(boot)[2].reason, HasSubstr("PCRs 10-11"));
    boot.quote(11, replayed({event}));
    EXPECT_THAT(judge(boot)[2].reason, HasSubstr("but not after the same event"));
    EXPECT_THAT(not_passed(boot), ElementsAre("replay"));
}

TEST(ima_list, AContinuedListMayBeginAnywhereBeforeThePosition)
{
    const attested boot = good_list();
    ima_start start;
    start.asked_after = start.positions["card7"].event = 5060;
    for (const std::uint64_t first : {0U, 1U, 4000U, 5060U, 5061U, 5062U}) {
        events some(boot.list.begin(), boot.list.begin() + 3);
        for (std::size_t i = 0; i < some.size(); ++i)
            some[i].set_event_num(first + i);
        std::vector<ima_list> lists;
        take_ima_message(lists, message_of(some), boot.quotes, start);
        EXPECT_EQ(lists.at(0).number_problem.empty(), first >= 1 && first <= 5061) << first;
    }
}

TEST(ima_list, AnEndBeforeWhatHadBeenVerifiedFails)
{
    attested boot = good_list();
    boot.list.resize(50);
    ima_start start;
    start.asked_after = 60;
    start.positions["card7"] = {60, {}};
    std::vector<ima_list> lists;
    take_ima_message(lists, message_of(boot.list), boot.quotes, start);
    EXPECT_FALSE(is_continued(lists.at(0)));
    check_list rows;
    check_ima_list(rows, lists.at(0));
    EXPECT_EQ(rows.rows[0].reason, "the list ends after event 50, verified were 60");
}

TEST(ima_list, MoreSourcesThanANodeHasAreNotKept)
{
    const attested boot = good_list();
    std::vector<ima_list> lists;
    for (int i = 0; i < 20; ++i)
        take_ima_message(lists, message_of({}, std::to_string(i)), boot.quotes);
    EXPECT_EQ(lists.size(), 16U);
}

// Kernels before 5.8 extended every bank with the SHA-1 hash and zeros behind it; there the replay needs no
// template that is known.
TEST(ima_list, PaddedHashesAreTakenWhereTheQuoteHasThem)
{
    attested boot = good_list();
    std::string value(32, '\0');
    for (api::IMA_EVENT &event : boot.list) {
        const std::string padded =
            is_violation(event) ? std::string(32, '\xff') : event.template_hash() + std::string(12, '\0');
        value = digest(EVP_sha256(), value + padded);
        event.set_template_name("secret|fields");
    }
    boot.quote(10, value);
    EXPECT_THAT(not_passed(boot), ElementsAre("hashes"))
        << "nothing tells that the names are those of the hashes";
    EXPECT_EQ(judge(boot)[1].outcome, check_outcome::not_made);
    EXPECT_THAT(judge(boot)[2].reason, HasSubstr("padded"));
}

TEST(ima_list, TemplateDataIsRebuiltAsTheKernelHashesIt)
{
    api::IMA_EVENT event;
    event.set_template_name("ima");
    event.set_digest_algo("SHA1");
    event.set_digest(std::string(20, 'd'));
    event.set_event_name("/bin/sh");
    std::string data;
    ASSERT_TRUE(rebuild_template_data(event, data));
    EXPECT_EQ(data, std::string(20, 'd') + "/bin/sh" + std::string(249, '\0'));
    for (const auto &change : std::initializer_list<std::function<void(api::IMA_EVENT &)>>{
             [](api::IMA_EVENT &made) { made.set_digest_algo("sha256"); },
             [](api::IMA_EVENT &made) { made.set_signature("s"); }}) {
        api::IMA_EVENT wrong = event;
        change(wrong);
        EXPECT_FALSE(rebuild_template_data(wrong, data));
    }
    event.set_event_name(std::string(257, 'n'));
    EXPECT_FALSE(rebuild_template_data(event, data));

    event.set_event_name(std::string("a\0b", 3));
    EXPECT_FALSE(rebuild_template_data(event, data));

    event.set_template_name("d-ng|n-ng");
    event.set_event_name("n");
    event.set_digest_algo("sha1");
    event.set_digest("D");
    ASSERT_TRUE(rebuild_template_data(event, data));
    EXPECT_EQ(data, std::string("\7\0\0\0sha1:\0D\2\0\0\0n\0", 17));
    event.clear_event_name();
    EXPECT_FALSE(rebuild_template_data(event, data));
    event.set_event_name("n");
    for (const char *unknown :
         {"", "|", "d-ng|", "d-ng|n-ng|buf", "d-ng||n-ng", "n-ng|d-ng", "sig|n-ng|d-ng"}) {
        event.set_template_name(unknown);
        EXPECT_FALSE(rebuild_template_data(event, data)) << unknown;
    }
}

} // namespace
