// Many nodes at the same time: good ones, and ones that refuse, hang or send something else.
#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/attestctl/simulated_node.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

// An address at which nobody answers: connections are refused, or taken and then nothing is said.
class silent_port {
public:
    explicit silent_port(bool takes_connections) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        if (bind(socket_, generic, size) != 0 || getsockname(socket_, generic, &size) != 0 ||
            (takes_connections && listen(socket_, 16) != 0))
            std::abort();
        target = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~silent_port() { close(socket_); }
    silent_port(const silent_port &) = delete;
    silent_port &operator=(const silent_port &) = delete;

    std::string target;

private:
    int socket_;
};

class Targets : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "targetsXXXXXX";
        folder = mkdtemp(name.data());
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    outcome attest(const std::string &content, const std::string &words = {})
    {
        write_content(folder + "/targets", content);
        return attestctl("attest --targets " + folder + "/targets " + words);
    }

    std::string folder;
};

std::vector<nlohmann::json> lines_of(const std::string &text)
{
    std::vector<nlohmann::json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with('{'))
            lines.push_back(nlohmann::json::parse(line));
    return lines;
}

// The most memory that a program that has been waited for had, in kB.
long largest_program_kb()
{
    struct rusage used {};
    getrusage(RUSAGE_CHILDREN, &used);
    return used.ru_maxrss;
}

TEST_F(Targets, FiveHundredNodesComeToAnEndWhateverSomeOfThemDo)
{
    constexpr std::size_t GOOD = 480;
    simulated_node good(GOOD);
    good.model.list.resize(20);
    simulated_node bad;
    bad.model.evidence.got.boot_log.mutable_node_data(0)->mutable_events(3)->set_pcr_index(5);
    const silent_port refusing(false), hanging(true);
    std::string content = "# all of them\r\n\n" + refusing.target + "\n" + hanging.target + " # hangs\n  " +
                          bad.targets()[0] + '\n';
    for (const std::string &target : good.targets())
        content += target + '\n';

    ASSERT_EQ(attest(good.targets()[0] + '\n', "--json").status, 0);
    [[maybe_unused]] const long of_one = largest_program_kb();
    const outcome done = attest(content, "--json --jobs 8 --pin " + folder + "/pins");
    EXPECT_EQ(done.status, 1);
    std::map<std::string, nlohmann::json> nodes;
    for (const nlohmann::json &line : lines_of(done.text))
        nodes[line["target"].get<std::string>()] = line;
    ASSERT_EQ(nodes.size(), GOOD + 3) << done.text.substr(0, 3000);
    EXPECT_TRUE(std::all_of(good.targets().begin(), good.targets().end(),
                            [&](const std::string &target) { return nodes[target]["verified"] == true; }));
    EXPECT_THAT(nodes[bad.targets()[0]]["verdict"], HasSubstr("NOT VERIFIED: 1 check failed"));
    EXPECT_THAT(nodes[refusing.target]["error"], HasSubstr("refused"));
    EXPECT_EQ(nodes[hanging.target]["verified"], false);
    EXPECT_THAT(done.text, HasSubstr("483 nodes: 480 verified, 1 not verified, 2 not asked to the end; "
                                     "480 pinned; "));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they hold on to what was freed
    EXPECT_LT(largest_program_kb(), 2 * of_one + 64L * 1024);
#endif

    const outcome again = attest(content, "--jobs 8 --pin " + folder + "/pins");
    EXPECT_THAT(again.text, HasSubstr(good.targets()[7] + "  VERIFIED\n")); // by the pins
    EXPECT_THAT(again.text, HasSubstr("boot log replay"));
}

TEST_F(Targets, AStreamWithoutEndComesToOne)
{
    simulated_node node;
    node.model.endless = true;
    const outcome done = attest(node.targets()[0], "--node-timeout 2");
    EXPECT_EQ(done.status, 2);
    EXPECT_THAT(done.text, HasSubstr("NOT VERIFIED: the IMA list did not come to an end in time"));
}

TEST_F(Targets, ExitStatusIsThatOfTheWorstNode)
{
    simulated_node node(2);
    const silent_port refusing(false);
    const std::string both = node.targets()[0] + '\n' + node.targets()[1] + '\n';
    EXPECT_EQ(attest(both).status, 0);
    EXPECT_EQ(attest(both + refusing.target, "--jobs 1").status, 2);
    node.model.evidence.got.hw_integrity.mutable_node_data(0)->mutable_uid_digests_db1()->RemoveLast();
    EXPECT_EQ(attest(both + refusing.target).status, 1);
}

TEST_F(Targets, AFileThatIsNoneAsksNobody)
{
    simulated_node node;
    const std::string good = node.targets()[0] + '\n';
    for (const std::string &content :
         {std::string(), std::string("# none\n \n"), good + good, good + "localhost\n", good + "a:1 b:2\n",
          good + "a\xff\x1b[2J:1\n", good + std::string(1, '\0') + ":1\n", std::string(2 << 20, '\n')}) {
        const outcome done = attest(content);
        EXPECT_EQ(done.status, 2) << content.substr(0, 100);
        EXPECT_THAT(done.text, MatchesRegex("attestctl: [^\n]*/targets[^\n\x1b]*\n"));
    }
    EXPECT_EQ(attestctl("attest --targets /absent --json").status, 2);
    EXPECT_EQ(attestctl("attest --targets " + folder).status, 2);
    EXPECT_EQ(attestctl("--target a:1 attest --targets " + folder).status, 2);
    EXPECT_TRUE(node.asked().empty());
}

} // namespace
