// The replay of the IMA list: recorded boots against the PCR values of the same boot, and what must not pass.
#include <fstream>
#include <functional>
#include <sstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "attestctl/verify/hashes.h"
#include "attestctl/verify/ima_list.h"

namespace api = remote_attestation_api;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string read_file(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// A list of the kernel's as a node would answer it; templates with named digests only.
class list_reader {
public:
    explicit list_reader(std::string bytes) : bytes_(std::move(bytes)) {}

    api::NodeIMAData read(const std::string &node)
    {
        api::NodeIMAData list;
        list.set_node_name(node);
        while (at_ < bytes_.size()) {
            api::IMA_EVENT &event = *list.add_events();
            event.set_event_num(static_cast<std::uint64_t>(list.events_size()));
            event.set_pcr(number());
            event.set_template_hash(take(20));
            event.set_template_name(field());
            number(); // of the data
            const std::string digest = field();
            const std::size_t colon = digest.find(':');
            event.set_digest_algo(digest.substr(0, colon));
            event.set_digest(digest.substr(colon + 2));
            std::string name = field();
            name.pop_back();
            event.set_event_name(name);
            if (event.template_name() == "ima-sig")
                if (const std::string signature = field(); !signature.empty())
                    event.set_signature(signature);
        }
        return list;
    }

private:
    std::string take(std::size_t size)
    {
        at_ += size;
        return bytes_.substr(at_ - size, size);
    }
    std::uint32_t number()
    {
        const std::string text = take(4);
        std::uint32_t value = 0;
        for (int i = 3; i >= 0; --i)
            value = value << 8 | static_cast<unsigned char>(text[static_cast<std::size_t>(i)]);
        return value;
    }
    std::string field() { return take(number()); }

    std::string bytes_;
    std::size_t at_ = 0;
};

std::string bytes_of(const std::string &hex)
{
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

struct attested {
    api::attest_pcr_response quotes;
    api::NodeIMAData list;
};

attested recorded(const std::string &name)
{
    attested boot;
    api::NodePCRData &record = *boot.quotes.add_node_data();
    record.set_node_name("card7");
    const auto values = nlohmann::json::parse(read_file(ATTEST_TEST_DATA "/" + name + "-pcrs.json"));
    for (std::uint32_t i = 0; i < 24; ++i) {
        api::PCR_DUMP &pcr = *record.add_pcrs();
        pcr.set_index(i);
        pcr.set_value(bytes_of(values["sha256"][std::to_string(i)]));
    }
    boot.list = list_reader(read_file(ATTEST_TEST_DATA "/" + name + "-ima.bin")).read("card7");
    return boot;
}

// The rows, the list given in messages of `chunk` events.
std::vector<check> judge(const attested &boot, int chunk = 1000)
{
    std::vector<ima_list> lists;
    for (int begin = 0; begin == 0 || begin < boot.list.events_size(); begin += chunk) {
        api::NodeIMAData message;
        message.set_node_name(boot.list.node_name());
        for (int i = begin; i < std::min(begin + chunk, boot.list.events_size()); ++i)
            *message.add_events() = boot.list.events(i);
        take_ima_message(lists, message, boot.quotes);
    }
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

void sha1_again(api::IMA_EVENT &event)
{
    std::string data;
    ASSERT_TRUE(rebuild_template_data(event, data));
    event.set_template_hash(digest_of(*hash_by_number(0), {data}));
}

TEST(ima_list, RecordedBootsGiveTheirPcr10)
{
    for (const char *name : {"recorded-a", "recorded-b"})
        for (const int chunk : {1000, 1, 100000})
            for (const check &row : judge(recorded(name), chunk))
                EXPECT_EQ(row.outcome, check_outcome::passed)
                    << name << ' ' << row.name << ": " << row.reason;
    EXPECT_THAT(judge(recorded("recorded-a"))[0].reason, HasSubstr("2,675 events"));
    EXPECT_THAT(judge(recorded("recorded-a"))[0].reason, HasSubstr("2 violations"));
}

TEST(ima_list, WhatIsWrongFailsInItsRow)
{
    const struct {
        const char *what;
        std::function<void(attested &)> damage;
        std::vector<std::string> rows;
    } cases[] = {
        {"an event left out",
         [](attested &boot) { boot.list.mutable_events()->DeleteSubrange(200, 1); },
         {"numbers", "replay"}},
        {"an event left out, the others numbered anew",
         [](attested &boot) {
             boot.list.mutable_events()->DeleteSubrange(200, 1);
             for (int i = 200; i < boot.list.events_size(); ++i)
                 boot.list.mutable_events(i)->set_event_num(static_cast<std::uint64_t>(i) + 1);
         },
         {"replay"}},
        {"the last event left out",
         [](attested &boot) { boot.list.mutable_events()->RemoveLast(); },
         {"replay"}},
        {"everything left out", [](attested &boot) { boot.list.clear_events(); }, {"replay"}},
        {"two events swapped",
         [](attested &boot) { boot.list.mutable_events()->SwapElements(100, 101); },
         {"numbers", "replay"}},
        {"an event twice",
         [](attested &boot) {
             *boot.list.add_events() = api::IMA_EVENT(boot.list.events(boot.list.events_size() - 1));
         },
         {"numbers"}},
        {"another file name",
         [](attested &boot) { boot.list.mutable_events(50)->set_event_name("/bin/sh"); },
         {"hashes", "replay"}},
        {"another file name and its hash",
         [](attested &boot) {
             boot.list.mutable_events(50)->set_event_name("/bin/sh");
             sha1_again(*boot.list.mutable_events(50));
         },
         {"replay"}},
        {"another digest",
         [](attested &boot) { boot.list.mutable_events(50)->mutable_digest()->back() ^= 1; },
         {"hashes", "replay"}},
        {"a signature put in",
         [](attested &boot) { boot.list.mutable_events(1)->set_signature("forged"); },
         {"hashes", "replay"}},
        {"a violation for an event",
         [](attested &boot) { boot.list.mutable_events(50)->set_template_hash(std::string(20, '\0')); },
         {"replay"}},
        {"an event of another PCR",
         [](attested &boot) { boot.list.mutable_events(50)->set_pcr(11); },
         {"replay"}},
        {"an event without a hash",
         [](attested &boot) { boot.list.mutable_events(50)->clear_template_hash(); },
         {"hashes", "replay"}},
        {"no quoted PCR 10",
         [](attested &boot) { boot.quotes.mutable_node_data(0)->mutable_pcrs()->DeleteSubrange(10, 1); },
         {"replay"}},
        {"PCR 10 that no event was extended into",
         [](attested &boot) {
             boot.quotes.mutable_node_data(0)->mutable_pcrs(10)->set_value(std::string(32, '\0'));
         },
         {"replay"}},
        {"another node's quote",
         [](attested &boot) { boot.quotes.mutable_node_data(0)->set_node_name("card8"); },
         {"replay"}},
        {"a template that nobody knows",
         [](attested &boot) { boot.list.mutable_events(50)->set_template_name("d-ng|n-ng|evmsig"); },
         {"hashes", "replay"}},
    };
    const attested good = recorded("recorded-b");
    for (const auto &row : cases) {
        attested boot = good;
        row.damage(boot);
        EXPECT_EQ(not_passed(boot), row.rows) << row.what;
    }
}

// The name of the template is in no hash: the same bytes are other fields under another one.
TEST(ima_list, FieldsThatTheTemplateDoesNotHaveAreNotProven)
{
    const attested good = recorded("recorded-a");
    ASSERT_EQ(good.list.events(50).template_name(), "ima-ng");
    const std::pair<const char *, std::function<void(api::IMA_EVENT &)>> cases[] = {
        {"another digest",
         [](api::IMA_EVENT &event) {
             event.set_template_name("sig|n-ng");
             event.set_signature(event.digest_algo() + std::string(":\0", 2) + event.digest());
             event.mutable_digest()->back() ^= 1;
         }},
        {"another name",
         [](api::IMA_EVENT &event) {
             event.set_template_name("d-ng|sig");
             event.set_signature(event.event_name() + '\0');
             event.set_event_name("/bin/sh");
         }},
        {"a name twice", [](api::IMA_EVENT &event) { event.set_template_name("d-ng|n-ng|n-ng"); }},
        {"a signature", [](api::IMA_EVENT &event) { event.set_signature("forged"); }},
    };
    for (const auto &[what, change] : cases) {
        attested boot = good;
        change(*boot.list.mutable_events(50));
        EXPECT_THAT(not_passed(boot), ElementsAre("hashes", "replay")) << what;
    }
}

TEST(ima_list, ANodeThatMeasuresNothingSaysSo)
{
    attested boot = recorded("recorded-a");
    boot.list.clear_events();
    boot.quotes.mutable_node_data(0)->mutable_pcrs(10)->set_value(std::string(32, '\0'));
    EXPECT_THAT(not_passed(boot), testing::IsEmpty());
    EXPECT_THAT(judge(boot)[0].reason, HasSubstr("0 events"));
}

TEST(ima_list, AListThatHasGrownVerifiesUpToTheQuote)
{
    attested boot = recorded("recorded-b");
    for (int i = 0; i < 3; ++i) {
        api::IMA_EVENT &event = *boot.list.add_events();
        event = boot.list.events(1);
        event.set_event_num(static_cast<std::uint64_t>(boot.list.events_size()));
    }
    EXPECT_THAT(not_passed(boot), IsEmpty());
    EXPECT_THAT(judge(boot)[2].reason, HasSubstr("3 events came after the quote"));
}

// An event of another PCR, as the kernel extends it.
api::IMA_EVENT event_of_pcr_11(const api::IMA_EVENT &like, std::string &value)
{
    api::IMA_EVENT event = like;
    event.set_pcr(11);
    std::string data;
    EXPECT_TRUE(rebuild_template_data(event, data));
    value = digest_of(quoted_bank(), {value, digest_of(quoted_bank(), {data})});
    return event;
}

TEST(ima_list, OtherPcrsCountWhereEventsAreExtendedIntoThem)
{
    attested boot = recorded("recorded-b");
    const int last = boot.list.events_size() - 1;
    std::string value(32, '\0');
    std::string after_first;
    for (int i = 0; i < 2; ++i) { // before the last event
        *boot.list.add_events() = event_of_pcr_11(boot.list.events(1), value);
        boot.list.mutable_events()->SwapElements(last + i, last + i + 1);
        after_first = i == 0 ? value : after_first;
    }
    for (int i = last; i < boot.list.events_size(); ++i)
        boot.list.mutable_events(i)->set_event_num(static_cast<std::uint64_t>(i) + 1);
    boot.quotes.mutable_node_data(0)->mutable_pcrs(11)->set_value(value);
    EXPECT_THAT(not_passed(boot), IsEmpty());
    EXPECT_THAT(judge(boot)[2].reason, HasSubstr("PCRs 10-11"));
    boot.quotes.mutable_node_data(0)->mutable_pcrs(11)->set_value(after_first);
    EXPECT_THAT(judge(boot)[2].reason, HasSubstr("but not after the same event"));
    EXPECT_THAT(not_passed(boot), ElementsAre("replay"));
}

TEST(ima_list, AnEndBeforeWhatHadBeenVerifiedFails)
{
    const attested boot = recorded("recorded-b");
    ima_start start;
    start.asked_after = 100;
    start.positions["card7"] = {100, {}};
    std::vector<ima_list> lists;
    api::NodeIMAData message = boot.list;
    message.mutable_events()->DeleteSubrange(50, message.events_size() - 50);
    take_ima_message(lists, message, boot.quotes, start);
    EXPECT_FALSE(is_continued(lists.at(0)));
    check_list rows;
    check_ima_list(rows, lists.at(0));
    EXPECT_EQ(rows.rows[0].reason, "the list ends after event 50, verified were 100");
}

TEST(ima_list, MoreSourcesThanANodeHasAreNotKept)
{
    const attested boot = recorded("recorded-b");
    std::vector<ima_list> lists;
    for (int i = 0; i < 20; ++i) {
        api::NodeIMAData message;
        message.set_node_name(std::to_string(i));
        take_ima_message(lists, message, boot.quotes);
    }
    EXPECT_EQ(lists.size(), 16U);
}

// Kernels before 5.8 extended every bank with the SHA-1 hash and zeros behind it; there the replay needs no
// template that is known.
TEST(ima_list, PaddedHashesAreTakenWhereTheQuoteHasThem)
{
    attested boot = recorded("recorded-b");
    std::string value(32, '\0');
    for (api::IMA_EVENT &event : *boot.list.mutable_events()) {
        std::string hash = event.template_hash();
        const bool violation = hash == std::string(20, '\0');
        hash.resize(32, '\0');
        value = digest_of(quoted_bank(), {value, violation ? std::string(32, '\xff') : hash});
        event.set_template_name("secret|fields");
    }
    boot.quotes.mutable_node_data(0)->mutable_pcrs(10)->set_value(value);
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

    event.set_template_name("n-ng|d-ng");
    event.set_event_name("n");
    event.set_digest_algo("sha1");
    event.set_digest("D");
    ASSERT_TRUE(rebuild_template_data(event, data));
    EXPECT_EQ(data, std::string("\2\0\0\0n\0\7\0\0\0sha1:\0D", 17));
    event.clear_event_name();
    EXPECT_FALSE(rebuild_template_data(event, data));
    event.set_event_name("n");
    for (const char *unknown : {"", "|", "d-ng|", "d-ng|n-ng|buf", "d-ng||n-ng"}) {
        event.set_template_name(unknown);
        EXPECT_FALSE(rebuild_template_data(event, data)) << unknown;
    }
}

} // namespace
