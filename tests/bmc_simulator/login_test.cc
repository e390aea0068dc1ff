// What the simulator takes for a login, and what it refuses: on it stands what the relay's tests say.
#include "tools/bmc_simulator/login.h"

#include <array>
#include <fstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/rsa.h>

#include "tools/attest_provision/authority.h"
#include "tools/bmc_simulator/base64.h"

namespace {

constexpr std::time_t NOW = 1795616407; // 2026-11-25T14:20:07Z
constexpr char TIMESTAMP[] = "2026-11-25T14:20:07Z";

struct node {
    login_authority authority;
    evp_pkey key;
    std::string certificate; // DER
};

node make_node()
{
    authority ca;
    node made;
    made.key.reset(EVP_RSA_gen(2048));
    EXPECT_TRUE(authority_make_demonstration(ca));
    const x509_certificate device =
        authority_certify(ca, certificate_kind::device_identity, "node", made.key.get());
    const std::vector<std::uint8_t> der = certificate_der(device.get());
    made.certificate.assign(der.begin(), der.end());
    made.authority = {std::move(ca.issuing_ca), std::move(ca.root)};
    return made;
}

std::string sign(EVP_PKEY *key, const std::string &data)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> state(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::array<unsigned char, 256> signature{};
    std::size_t length = signature.size();
    EXPECT_EQ(EVP_DigestSignInit(state.get(), nullptr, EVP_sha256(), nullptr, key), 1);
    EXPECT_EQ(EVP_DigestSign(state.get(), signature.data(), &length,
                             reinterpret_cast<const unsigned char *>(data.data()), data.size()),
              1);
    return {signature.begin(), signature.end()};
}

nlohmann::json body_of(const node &from, const std::string &user = "root",
                       const std::string &time = TIMESTAMP)
{
    return {{"user", user},
            {"timestamp", time},
            {"certificate", base64_text(from.certificate)},
            {"signature", base64_text(sign(from.key.get(), user + '\n' + time))}};
}

TEST(Login, OnlyAWholeBodyOfAKnownNodeIsAccepted)
{
    const node known = make_node();
    const node stranger = make_node();
    nlohmann::json others_key = body_of(known);
    others_key["certificate"] = body_of(stranger)["certificate"];
    nlohmann::json later = body_of(known);
    later["timestamp"] = "2026-11-25T14:20:08Z";
    nlohmann::json longer = body_of(known);
    longer["certificate"] = base64_text(known.certificate + "x");
    nlohmann::json further = body_of(known);
    further["more"] = "";

    struct attempt {
        const char *what;
        nlohmann::json body;
        std::time_t now;
        const char *problem; // begins the text
    };
    const std::array attempts = {
        attempt{"good", body_of(known), NOW, ""},
        attempt{"at the window's ends", body_of(known), NOW + LOGIN_CLOCK_WINDOW_S, ""},
        attempt{"from the future", body_of(known), NOW - LOGIN_CLOCK_WINDOW_S, ""},
        attempt{"too old", body_of(known), NOW + LOGIN_CLOCK_WINDOW_S + 1, "made 301 s ago"},
        attempt{"too early", body_of(known), NOW - LOGIN_CLOCK_WINDOW_S - 1, "made -301 s ago"},
        attempt{"another user", body_of(known, "admin"), NOW, "not the user root"},
        attempt{"another form", body_of(known, "root", "2026-11-25T14:20:7Z"), NOW, "not a timestamp"},
        attempt{"more behind it", body_of(known, "root", "2026-11-25T14:20:07Z\n"), NOW, "not a timestamp"},
        attempt{"unsigned time", later, NOW, "the signature"},
        attempt{"a stranger", body_of(stranger), NOW, "the certificate: "},
        attempt{"a stranger's certificate", others_key, NOW, "the certificate: "},
        attempt{"certificate and more", longer, NOW, "the certificate cannot be read"},
        attempt{"a fifth member", further, NOW, "the body is no object"},
        attempt{"an array", nlohmann::json::array(), NOW, "the body is no object"},
    };
    for (const attempt &one : attempts) {
        const std::string problem = login_problem(one.body.dump(), known.authority, one.now);
        EXPECT_TRUE(problem.starts_with(one.problem) && problem.empty() == (*one.problem == '\0'))
            << one.what << ": " << problem;
    }
}

} // namespace
