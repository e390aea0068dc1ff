// Certificate objects of any bytes, as the trust anchor may give them: the chain is split where its parts'
// headers say, and what is signed is what is listed.
//
// The input: the length of the chain object (2 bytes), the chain, the certificate.
#include <cstring>
#include <string>

#include "agent/status.h"
#include "fuzz/fuzz_input.h"
#include "platform/trust_anchor_client.h"
#include "trust_anchor/certificate_chain.h"

namespace {

std::string_view chain_object;
std::string_view certificate_object;
std::string signed_bytes;

std::string_view bytes_of(const message_bytes &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data), bytes.length};
}

// A DER SEQUENCE with a length of two bytes that is its own.
bool is_certificate(std::string_view der)
{
    return der.size() >= 4 && der.substr(0, 2) == "\x30\x82" &&
           der.size() - 4 == (static_cast<std::size_t>(static_cast<unsigned char>(der[2])) << 8 |
                              static_cast<unsigned char>(der[3]));
}

} // namespace

// The trust anchor, as far as the operation asks it.
kov_status kovc_app_login(kovc_context *, std::uint64_t, const kov_login_context *, kovc_session **session)
{
    static char logged_in;
    *session = reinterpret_cast<kovc_session *>(&logged_in);
    return KOV_SUCCESS;
}
kov_status kovc_app_logout(kovc_session **session)
{
    *session = nullptr;
    return KOV_SUCCESS;
}
kov_status kovc_so_read(kovc_session *, std::uint32_t, const char *name, std::uint8_t **data,
                        std::uint32_t *length)
{
    const std::string_view content =
        std::strstr(name, "CHAIN") != nullptr ? chain_object : certificate_object;
    *length = static_cast<std::uint32_t>(content.size());
    *data = content.empty() ? nullptr : static_cast<std::uint8_t *>(std::malloc(content.size()));
    content.copy(reinterpret_cast<char *>(*data), content.size());
    return KOV_SUCCESS;
}
kov_status kovc_sign_init(kovc_session *, const char *, const char *, std::uint32_t, kovc_signing **signing)
{
    *signing = nullptr;
    return KOV_SUCCESS;
}
kov_status kovc_sign_update(kovc_session *, kovc_signing *, const std::uint8_t *data, std::uint32_t length)
{
    signed_bytes.assign(reinterpret_cast<const char *>(data), length);
    return KOV_SUCCESS;
}
kov_status kovc_sign_final(kovc_session *, kovc_signing *, std::uint8_t **signature, std::uint32_t *length)
{
    *signature = static_cast<std::uint8_t *>(std::calloc(1, 1));
    *length = 1;
    return KOV_SUCCESS;
}
const char *kov_status_string(kov_status)
{
    return "";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input{{data, size}};
    const std::size_t chain_length = input.u16();
    chain_object = input.text(chain_length);
    certificate_object = input.text(input.left.size());
    std::uint8_t nonce[] = {1, 2, 3};
    const get_certificate_request request{
        get_certificate_request::has_nonce, nullptr, nullptr, {nonce, sizeof nonce}};
    owned_message<SystemCertificates> record;
    const std::uint32_t status = attestation_get_certchain(&request, record.get());
    if (status != ATTEST_OK) {
        require(status == ATTEST_ERR_KOV_COMM && record->present == 0);
        return 0;
    }
    require(record->certs.count == 3);
    const std::string_view root = bytes_of(record->certs.items[0].data);
    const std::string_view ca = bytes_of(record->certs.items[1].data);
    require(is_certificate(root) && is_certificate(ca));
    require(chain_object.starts_with(std::string(ca) + std::string(root)));
    require(bytes_of(record->certs.items[2].data) == certificate_object);
    std::string expected("\1\2\3\0\0\0\2", 7);
    expected.append(root).append(ca).append(certificate_object);
    require(signed_bytes == expected);
    return 0;
}
