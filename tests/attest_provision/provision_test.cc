// attest-provision, run as an operator runs it.
#include <algorithm>
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>

#include "platform/tpm/manifest.h"
#include "tests/tpm/software_tpm.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::SizeIs;

class provision_test : public ::testing::Test {
protected:
    static std::string command(const software_tpm &tpm, const std::string &options)
    {
        return std::string(ATTEST_PROVISION) + " --tpm " + tpm.address() + " --dir " + tpm.node() + " " +
               options;
    }
    static program_result run(const software_tpm &tpm, const std::string &options)
    {
        return run_program(command(tpm, options));
    }
    static std::vector<std::uint32_t> keys_in(const software_tpm &tpm)
    {
        return tpm_handles(*connect_to(tpm), TPM2_PERSISTENT_FIRST);
    }
    // The check passes, and nothing of an earlier provisioning stays behind.
    static void expect_whole(const software_tpm &tpm)
    {
        const program_result checked = run(tpm, "--check");
        EXPECT_EQ(checked.status, 0) << checked.output;
        EXPECT_THAT(keys_in(tpm), SizeIs(2));
        const fs::directory_iterator entries(tpm.node());
        const auto is_folder = [](const fs::directory_entry &one) { return one.is_directory(); };
        EXPECT_EQ(std::count_if(begin(entries), end(entries), is_folder), 1) << "folders of certificates";
    }
    static manifest manifest_of(const software_tpm &tpm)
    {
        manifest read;
        EXPECT_EQ(manifest_load(tpm.manifest(), read), KOV_SUCCESS);
        return read;
    }
    static std::string object_path(const software_tpm &tpm, const char *name)
    {
        return tpm.node() + "/" + manifest_find_object(manifest_of(tpm), name)->file;
    }

    // A CA of the operator: root, issuing CA, their bundle, and a CA that is none.
    void make_ca()
    {
        const program_result made = run_program(
            "cd " + ca_.path() +
            " && new='openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 100' &&"
            " $new -keyout root.key -out root.pem -subj '/CN=Operator Root' -addext "
            "basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign &&"
            " $new -keyout issuing.key -out issuing.pem -subj '/CN=Operator CA' -CA root.pem -CAkey root.key"
            " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign &&"
            " $new -keyout leaf.key -out leaf.pem -subj '/CN=No CA' -CA root.pem -CAkey root.key"
            " -addext basicConstraints=critical,CA:FALSE && cat issuing.pem root.pem > bundle.pem &&"
            " cat root.pem issuing.pem > reversed.pem && cat bundle.pem leaf.pem > three.pem &&"
            " cat leaf.pem root.pem > no_ca.pem && echo nothing > empty.pem");
        ASSERT_EQ(made.status, 0) << made.output;
    }
    std::string with_ca(const std::string &certificates = "bundle.pem",
                        const std::string &key = "issuing.key") const
    {
        return " --ca-cert " + ca_.path() + "/" + certificates + " --ca-key " + ca_.path() + "/" + key;
    }

    temporary_directory ca_;
};

TEST_F(provision_test, AFreshNodeGetsWhatItNeedsAndSaysSo)
{
    const software_tpm tpm(provisioned_tpm());
    expect_whole(tpm);
    const program_result shown = run(tpm, "--show");
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.output, HasSubstr("node: card7"));
    EXPECT_THAT(shown.output, HasSubstr("O=DEMONSTRATION"));
    for (const char *object : {"RSA_VOXACRT", "RSA_SCHAIN", "RSA_AIK_CRT", "RSA_AIK_CHAIN"})
        EXPECT_EQ(file_text(object_path(tpm, object)).substr(0, 2), "\x30\x82") << object;
}

TEST_F(provision_test, AProvisionedNodeIsReplacedOnlyByForce)
{
    make_ca();
    const software_tpm tpm(provisioned_tpm());
    const std::string before = file_text(tpm.manifest());
    const program_result refused = run(tpm, with_ca());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.output, HasSubstr("--force"));
    EXPECT_EQ(file_text(tpm.manifest()), before);
    const program_result replaced = run(tpm, with_ca() + " --force --node-name card8");
    EXPECT_EQ(replaced.status, 0) << replaced.output;
    EXPECT_NE(file_text(tpm.manifest()), before);
    EXPECT_THAT(run(tpm, "--show").output, HasSubstr("card8"));
    expect_whole(tpm);
}

// A damaged manifest may come back from a backup: until another one is in force, nothing that it may name
// goes.
TEST_F(provision_test, ADamagedManifestIsReplacedWithoutLossOfWhatItNamed)
{
    const software_tpm tpm(provisioned_tpm());
    const std::string whole = file_text(tpm.manifest());
    write_file(tpm.manifest(), whole.substr(0, whole.size() / 2));
    fs::create_directory(tpm.manifest() + ".new"); // in the way of the new one
    for (int run_again = 0; run_again < 2; ++run_again) {
        EXPECT_NE(run(tpm, "--force").status, 0);
        EXPECT_THAT(keys_in(tpm), SizeIs(2)) << "what it made itself stays behind";
    }
    fs::remove(tpm.manifest() + ".new");
    write_file(tpm.manifest(), whole);
    const program_result checked = run(tpm, "--check");
    EXPECT_EQ(checked.status, 0) << checked.output;
    write_file(tpm.manifest(), whole.substr(0, whole.size() / 2));
    EXPECT_EQ(run(tpm, "--force").status, 0);
    expect_whole(tpm);
}

TEST_F(provision_test, AGivenCaIssuesChainsThatOpensslAccepts)
{
    make_ca();
    const software_tpm tpm;
    const program_result provisioned = run(tpm, with_ca() + " --node-name card9");
    ASSERT_EQ(provisioned.status, 0) << provisioned.output;
    EXPECT_EQ(provisioned.output.find("demonstration"), std::string::npos);
    for (const char *object : {"RSA_VOXACRT", "RSA_AIK_CRT"}) {
        const program_result judged = run_program(
            "cd " + ca_.path() + " && openssl x509 -inform der -in " + object_path(tpm, object) +
            " -out own.pem && openssl verify -x509_strict -CAfile root.pem -untrusted issuing.pem own.pem");
        EXPECT_EQ(judged.status, 0) << judged.output;
    }
    const program_result chain =
        run_program("cd " + ca_.path() +
                    " && openssl x509 -in issuing.pem -outform der > chain.der &&"
                    " openssl x509 -in root.pem -outform der >> chain.der && cmp chain.der " +
                    object_path(tpm, "RSA_SCHAIN"));
    EXPECT_EQ(chain.status, 0) << chain.output;
}

TEST_F(provision_test, ACaThatCannotCertifyChangesNothing)
{
    make_ca();
    const software_tpm tpm;
    const std::string cases[] = {with_ca("bundle.pem", "root.key"),
                                 with_ca("bundle.pem", "none.key"),
                                 with_ca("bundle.pem", "bundle.pem"),
                                 with_ca("empty.pem"),
                                 with_ca("issuing.pem"),
                                 with_ca("three.pem"),
                                 with_ca("reversed.pem", "root.key"),
                                 with_ca("no_ca.pem", "leaf.key"),
                                 " --ca-cert " + ca_.path() + "/bundle.pem"};
    for (const std::string &options : cases) {
        const program_result refused = run(tpm, options);
        EXPECT_EQ(refused.status, 2) << options << refused.output;
        EXPECT_THAT(refused.output, HasSubstr("attest-provision: "));
    }
    EXPECT_FALSE(fs::exists(tpm.manifest()));
    EXPECT_THAT(keys_in(tpm), SizeIs(0));
    EXPECT_EQ(run(tpm, "--check").status, 1);
    EXPECT_EQ(run(tpm, "--show").status, 1);
    EXPECT_EQ(run(tpm, "surplus").status, 2);
    EXPECT_EQ(run(tpm, with_ca() + " --node-name ''").status, 2);
    EXPECT_EQ(run_program(std::string(ATTEST_PROVISION) + " --tpm nothing --dir " + tpm.node()).status, 2);
}

struct kill_points {
    const char *call; // that changes something outside the program
    int step;         // killed at the first, the (1 + step)th, ...
};
constexpr kill_points when_first[] = {{"sendto", 15}, {"fsync", 3}, {"rename", 1}};
constexpr kill_points when_replaced[] = {{"sendto", 19}, {"rename", 1}, {"unlinkat", 1}};

// Runs the command again and again, killed ever later, until it is no longer killed; `look` after each run.
// How many kills. (The leak sanitizer cannot work under strace.)
int kill_at_each(const kill_points &points, const std::string &command,
                 const std::function<void(const std::string &)> &look)
{
    const std::string call = points.call;
    for (int kills = 0;; ++kills) {
        std::string point = call;
        point.append(":signal=KILL:when=").append(std::to_string(1 + kills * points.step));
        std::string traced = "ASAN_OPTIONS=detect_leaks=0 strace -f -qq -o /dev/null -e trace=";
        traced.append(call).append(" -e inject=").append(point).append(" ").append(command);
        const program_result result = run_program(traced);
        look(point);
        if (result.status == 0 || testing::Test::HasFailure())
            return kills;
    }
}

TEST_F(provision_test, ANodeInterruptedWhileItIsReplacedIsWholeAllTheSame)
{
    make_ca();
    const software_tpm tpm(provisioned_tpm());
    run(tpm, "--check"); // its login extends PCR 15
    int kills = 0;
    for (const kill_points &points : when_replaced)
        kills += kill_at_each(points, command(tpm, with_ca() + " --force"), [&](const std::string &point) {
            const program_result checked = run(tpm, "--check");
            EXPECT_EQ(checked.status, 0) << point << "\n" << checked.output;
        });
    EXPECT_GT(kills, 4);
    EXPECT_EQ(run(tpm, with_ca() + " --force").status, 0);
    expect_whole(tpm);
}

TEST_F(provision_test, AFirstProvisioningThatWasInterruptedIsSimplyRunAgain)
{
    make_ca();
    int kills = 0;
    for (const kill_points &points : when_first) {
        const software_tpm tpm;
        const auto is_provisioned = [&] { return fs::exists(tpm.manifest()); };
        kills += kill_at_each(points, command(tpm, with_ca()), [&](const std::string &point) {
            EXPECT_EQ(run(tpm, "--check").status, is_provisioned() ? 0 : 1) << "by half: " << point;
            if (is_provisioned())
                fs::remove(tpm.manifest()); // for the next kill
        });
        EXPECT_EQ(run(tpm, with_ca()).status, 0);
        expect_whole(tpm);
    }
    EXPECT_GT(kills, 4);
}

TEST_F(provision_test, EachSingleDamageIsFoundByTheCheck)
{
    using change = std::function<void(const software_tpm &)>;
    const auto change_manifest = [](const std::function<void(manifest &)> &edit) -> change {
        return [edit](const software_tpm &tpm) {
            manifest node = manifest_of(tpm);
            edit(node);
            write_file(tpm.manifest(), manifest_text(node));
        };
    };
    const auto swap_files = [](const char *one, const char *other) -> change {
        return [one, other](const software_tpm &tpm) {
            const std::string first = file_text(object_path(tpm, one));
            write_file(object_path(tpm, one), file_text(object_path(tpm, other)));
            write_file(object_path(tpm, other), first);
        };
    };
    const std::pair<const char *, change> cases[] = {
        {"RSA_VOXACRT certifies RSA_VOXAKEY: it is for another key",
         swap_files("RSA_VOXACRT", "RSA_AIK_CRT")},
        {"RSA_SCHAIN is an issuing CA and a root", swap_files("RSA_SCHAIN", "RSA_VOXACRT")},
        {"object RSA_AIK_CRT is readable: no such object",
         [](const software_tpm &tpm) { fs::remove(object_path(tpm, "RSA_AIK_CRT")); }},
        {"object RSA_AIK_CHAIN is readable: it is empty",
         [](const software_tpm &tpm) { write_file(object_path(tpm, "RSA_AIK_CHAIN"), ""); }},
        {"RSA_AIK_CRT is valid under RSA_AIK_CHAIN",
         [](const software_tpm &tpm) {
             std::string certificate = file_text(object_path(tpm, "RSA_AIK_CRT"));
             certificate.back() = static_cast<char>(certificate.back() ^ 1);
             write_file(object_path(tpm, "RSA_AIK_CRT"), certificate);
         }},
        {"key RSA_AIK_KEY is in the TPM",
         change_manifest([](manifest &node) { node.keys[0].handle = 0x81014177; })},
        {"key RSA_AIK_KEY is the one provisioned",
         change_manifest([](manifest &node) { node.keys[0].tpm_name[3] ^= 1; })},
        {"key RSA_VOXAKEY is in the manifest", change_manifest([](manifest &node) { node.keys.pop_back(); })},
        {"net/elsewhere: it is gone", change_manifest([](manifest &node) {
             node.identifiers.push_back({"net/elsewhere", {}});
         })},
        {"PCR 15 (sha256) holds the reference list: it holds something else", [](const software_tpm &tpm) {
             const auto connection = connect_to(tpm);
             TPM2B_EVENT event{1, {1}};
             TPML_DIGEST_VALUES *digests = nullptr;
             EXPECT_EQ(Esys_PCR_Event(connection->esys, ESYS_TR_PCR15, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                      ESYS_TR_NONE, &event, &digests),
                       TSS2_RC_SUCCESS);
             Esys_Free(digests);
         }}};
    for (const auto &[finding, damage] : cases) {
        const software_tpm tpm(provisioned_tpm());
        ASSERT_EQ(run(tpm, "--check").status, 0);
        damage(tpm);
        const program_result checked = run(tpm, "--check");
        EXPECT_EQ(checked.status, 1) << finding;
        EXPECT_THAT(checked.output, HasSubstr(std::string("FAULT ") + finding));
    }
}

} // namespace
