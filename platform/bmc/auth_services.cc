#include "platform/auth_services.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/base64.h"
#include "platform/owners.h"
#include "platform/status.h"

namespace {

// A certificate that a login can be made by, its object and its key in the trust anchor.
struct login_certificate {
    const char *name;
    const char *object;
    const char *key;
};
constexpr login_certificate login_certificates[] = {{"Kestrin VOXA", "RSA_VOXACRT", "RSA_VOXAKEY"}};

// RSASSA-PKCS1-v1_5 with SHA-256.
constexpr std::uint32_t SIGNATURE_ALGORITHM = KOV_ALG_SHA256;

// A body serves for so long: a TPM takes as long for a signature as the rest of a relayed request together,
// and a BMC takes a time stamp that is some minutes old.
constexpr std::time_t BODY_LIFE_S = 30;

kovc_session *open_session;

// The last body, and what it was made of.
struct made_body {
    std::string user;
    std::vector<std::uint8_t> certificate; // of a node that is provisioned anew it is another one
    std::time_t at = 0;
    std::string text;
};
made_body last_body;

// The trust anchor's statuses have texts of their own; what crosses here is an errno that says the same.
std::uint32_t platform_status_of(kov_status status)
{
    if (status > KOV_ERR_ERRNO && status < KOV_ERR_ERRNO + 4096)
        return platform_status_from_errno(static_cast<int>(status - KOV_ERR_ERRNO));
    switch (status) {
    case KOV_SUCCESS:
        return 0;
    case KOV_ERR_INVALID_PARAM:
    case KOV_ERR_SETTING:
        return platform_status_from_errno(EINVAL);
    case KOV_ERR_NO_MEMORY:
        return platform_status_from_errno(ENOMEM);
    case KOV_ERR_LOGIN:
        return platform_status_from_errno(EACCES);
    case KOV_ERR_TIMEOUT:
        return platform_status_from_errno(ETIMEDOUT);
    case KOV_ERR_NO_OBJECT:
        return platform_status_from_errno(ENOENT);
    case KOV_ERR_NO_KEY:
    case KOV_ERR_NOT_PROVISIONED:
        return platform_status_from_errno(ENOKEY);
    default:
        return platform_status_from_errno(EIO);
    }
}

// Bytes that the trust anchor gave.
struct handed_out {
    malloc_ptr<std::uint8_t> data;
    std::uint32_t length = 0;
    std::span<const std::uint8_t> bytes() const { return {data.get(), length}; }
};

kov_status read_certificate(const char *object, handed_out &certificate)
{
    std::uint8_t *data = nullptr;
    kov_status status = kovc_so_read(open_session, 0, object, &data, &certificate.length);
    certificate.data.reset(data);
    return status == KOV_SUCCESS && data == nullptr ? kov_status{KOV_ERR_NO_OBJECT} : status;
}

kov_status sign(const char *key, const std::string &text, handed_out &signature)
{
    kovc_signing *signing = nullptr;
    kov_status status = kovc_sign_init(open_session, KOV_LOGIN_USER, key, SIGNATURE_ALGORITHM, &signing);
    if (status == KOV_SUCCESS)
        status = kovc_sign_update(open_session, signing, reinterpret_cast<const std::uint8_t *>(text.data()),
                                  static_cast<std::uint32_t>(text.size()));
    std::uint8_t *data = nullptr;
    if (status == KOV_SUCCESS)
        status = kovc_sign_final(open_session, signing, &data, &signature.length);
    signature.data.reset(data);
    return status;
}

// As RFC 3339 writes it in UTC.
std::string timestamp(std::time_t time)
{
    std::tm broken_down{};
    std::array<char, 32> text{};
    gmtime_r(&time, &broken_down);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &broken_down);
    return text.data();
}

std::string base64_of(std::span<const std::uint8_t> bytes)
{
    std::uint32_t length = 0;
    malloc_ptr<char> text(at_base64_encode(bytes.data(), bytes.size(), &length));
    if (text == nullptr)
        throw std::bad_alloc(); // the caller's guard turns it into a status, as it does for the strings
    return {text.get(), length};
}

kov_status make_body(const char *user, const char *key, std::span<const std::uint8_t> certificate,
                     std::time_t now)
{
    handed_out signature;
    const std::string time = timestamp(now);
    kov_status status = sign(key, user + ("\n" + time), signature);
    if (status != KOV_SUCCESS)
        return status;
    const nlohmann::ordered_json body = {{"user", user},
                                         {"timestamp", time},
                                         {"certificate", base64_of(certificate)},
                                         {"signature", base64_of(signature.bytes())}};
    last_body = {user, {certificate.begin(), certificate.end()}, now, body.dump()};
    return KOV_SUCCESS;
}

// Sees that the last body is one for this login, now.
kov_status ensure_body(const char *user, const login_certificate &by)
{
    handed_out certificate;
    kov_status status = read_certificate(by.object, certificate);
    if (status != KOV_SUCCESS)
        return status;
    std::time_t now = std::time(nullptr);
    bool serves = last_body.user == user && now >= last_body.at && now - last_body.at < BODY_LIFE_S &&
                  std::ranges::equal(last_body.certificate, certificate.bytes());
    return serves ? kov_status{KOV_SUCCESS} : make_body(user, by.key, certificate.bytes(), now);
}

} // namespace

std::uint32_t auth_services_login_init(kovc_context *context, std::uint64_t device_handle,
                                       const kov_login_context *login)
{
    if (context == nullptr)
        return platform_status_from_errno(ENODEV);
    if (open_session != nullptr)
        return platform_status_from_errno(EBUSY);
    return platform_status_of(kovc_app_login(context, device_handle, login, &open_session));
}

std::uint32_t generate_json_from_auth_cert_msg(char **json, std::uint32_t *length, const char *user,
                                               const char *certificate_name)
{
    *json = nullptr;
    *length = 0;
    if (open_session == nullptr)
        return platform_status_from_errno(ENOTCONN);
    const auto *by = std::find_if(
        std::begin(login_certificates), std::end(login_certificates),
        [&](const login_certificate &one) { return std::strcmp(one.name, certificate_name) == 0; });
    if (by == std::end(login_certificates))
        return platform_status_from_errno(ENOENT);
    std::uint32_t status = 0;
    try {
        status = platform_status_of(ensure_body(user, *by));
    } catch (const std::bad_alloc &) {
        status = platform_status_from_errno(ENOMEM);
    } catch (const nlohmann::json::exception &) { // a user name that is no UTF-8
        status = platform_status_from_errno(EINVAL);
    }
    if (status != 0)
        return status;
    *json = strdup(last_body.text.c_str());
    if (*json == nullptr)
        return platform_status_from_errno(ENOMEM);
    *length = static_cast<std::uint32_t>(last_body.text.size());
    return 0;
}

std::uint32_t auth_services_logout()
{
    if (open_session == nullptr)
        return platform_status_from_errno(ENOTCONN);
    return platform_status_of(kovc_app_logout(&open_session));
}
