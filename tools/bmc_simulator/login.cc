#include "tools/bmc_simulator/login.h"

#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include <nlohmann/json.hpp>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include "tools/bmc_simulator/base64.h"
#include "tools/bmc_simulator/report.h"

namespace {

using md_ctx = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

constexpr char USER[] = "root";

struct login_fields {
    std::string user, timestamp, certificate, signature; // the latter two as bytes
};

std::string read_fields(const std::string &body, login_fields &fields)
{
    const nlohmann::json object = nlohmann::json::parse(body, nullptr, false);
    struct place {
        const char *key;
        std::string *into;
    };
    const std::array<place, 4> places = {{{"user", &fields.user},
                                          {"timestamp", &fields.timestamp},
                                          {"certificate", &fields.certificate},
                                          {"signature", &fields.signature}}};
    if (!object.is_object() || object.size() != places.size())
        return "the body is no object of four members";
    for (const place &one : places) {
        const auto found = object.find(one.key);
        if (found == object.end() || !found->is_string())
            return std::string("the body has no string ") + one.key;
        *one.into = found->get<std::string>();
    }
    for (std::string *text : {&fields.certificate, &fields.signature})
        if (std::string bytes; base64_bytes(*text, bytes))
            *text = bytes;
        else
            return "certificate or signature is no base64";
    return {};
}

// A time as 2026-11-25T14:20:07Z, and nothing else.
bool read_timestamp(const std::string &text, std::time_t &time)
{
    constexpr char FORM[] = "%Y-%m-%dT%H:%M:%SZ";
    std::tm parts{};
    const char *end = strptime(text.c_str(), FORM, &parts);
    if (end != text.c_str() + text.size())
        return false;
    time = timegm(&parts);
    std::array<char, sizeof "2026-11-25T14:20:07Z"> again{};
    return std::strftime(again.data(), again.size(), FORM, &parts) != 0 && text == again.data();
}

bool is_signed(const login_fields &fields, X509 *certificate)
{
    const std::string data = fields.user + '\n' + fields.timestamp;
    EVP_PKEY *key = X509_get0_pubkey(certificate);
    const md_ctx state(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_PKEY_CTX *scheme = nullptr; // belongs to `state`
    const bool good =
        key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1 && state &&
        EVP_DigestVerifyInit(state.get(), &scheme, EVP_sha256(), nullptr, key) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(scheme, RSA_PKCS1_PADDING) == 1 &&
        EVP_DigestVerify(state.get(), reinterpret_cast<const unsigned char *>(fields.signature.data()),
                         fields.signature.size(), reinterpret_cast<const unsigned char *>(data.data()),
                         data.size()) == 1;
    ERR_clear_error();
    return good;
}

} // namespace

bool read_login_authority(const std::string &file, login_authority &into)
{
    std::ifstream input(file, std::ios::binary);
    const std::vector<std::uint8_t> both{std::istreambuf_iterator<char>(input), {}};
    std::vector<std::uint8_t> second, rest;
    into.issuing_ca = certificate_parse(both, &second);
    if (into.issuing_ca)
        into.root = certificate_parse(second, &rest);
    if (!into.root || !rest.empty())
        return fail(file + ": not an issuing CA and a root in DER");
    return true;
}

std::string login_problem(const std::string &body, const login_authority &authority, std::time_t now)
{
    login_fields fields;
    if (std::string problem = read_fields(body, fields); !problem.empty())
        return problem;
    if (fields.user != USER)
        return "not the user root";
    std::time_t made = 0;
    if (!read_timestamp(fields.timestamp, made))
        return "not a timestamp";
    if (std::abs(now - made) > LOGIN_CLOCK_WINDOW_S)
        return "made " + std::to_string(now - made) + " s ago";
    std::vector<std::uint8_t> rest;
    const x509_certificate device =
        certificate_parse({fields.certificate.begin(), fields.certificate.end()}, &rest);
    if (!device || !rest.empty())
        return "the certificate cannot be read";
    std::string reason;
    if (!certificate_path_valid(device.get(), authority.issuing_ca.get(), authority.root.get(), &reason))
        return "the certificate: " + reason;
    return is_signed(fields, device.get()) ? "" : "the signature is not the certificate's key's";
}
