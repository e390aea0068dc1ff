// Responses of any bytes to what the trust-anchor client asks a TPM, in the order in which it asks: statuses
// and outputs that fit each other, nothing read beyond a response.
//
// The input: whether the size in a response's header is put right (1 byte, odd: it is), then responses, each
// a length (2 bytes) and that many bytes. The seed is what a TPM answers.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

#include "fuzz/fuzz_input.h"
#include "platform/trust_anchor_client.h"

namespace {

constexpr char MANIFEST[] = R"({"version": 1, "node": "card7", "demonstration_ca": false,
 "keys": {"AIK": {"handle": "0x81014101", "name": "000b0000000000000000000000000000000000000000000000000000000000000000"},
          "VOXA": {"handle": "0x81014100", "name": "000b0000000000000000000000000000000000000000000000000000000000000000"}},
 "objects": {"CHAIN": {"nv_index": "0x01c00002"}}, "identifiers": []})";

fuzz_input responses;
bool sizes_put_right;

// A manifest in a directory of its own, for the life of the program.
struct provisioned_node {
    std::string directory = "/dev/shm/attest_fuzz_" + std::to_string(getpid());

    provisioned_node()
    {
        std::filesystem::create_directory(directory);
        std::ofstream(directory + "/trust_anchor.json") << MANIFEST;
        setenv("ATTEST_TRUST_ANCHOR", (directory + "/trust_anchor.json").c_str(), 1);
    }
    ~provisioned_node() { std::filesystem::remove_all(directory); }
};

kov_status init()
{
    return KOV_SUCCESS;
}
void cleanup() {}
kov_status open_channel(std::uint64_t, void **channel)
{
    *channel = &responses;
    return KOV_SUCCESS;
}
void close_channel(void *) {}
kov_status send(void *, const std::uint8_t *, std::uint32_t)
{
    return KOV_SUCCESS;
}
kov_status receive(void *, std::uint8_t *response, std::uint32_t capacity, std::uint32_t *length)
{
    if (responses.at_end())
        return KOV_ERR_CLOSED;
    const auto bytes = responses.bytes(responses.u16());
    *length = static_cast<std::uint32_t>(std::min<std::size_t>(capacity, bytes.size()));
    std::memcpy(response, bytes.data(), *length);
    constexpr std::size_t size_at = 2;
    if (sizes_put_right && *length >= size_at + sizeof *length) {
        const std::uint32_t size = __builtin_bswap32(*length);
        std::memcpy(response + size_at, &size, sizeof size);
    }
    return KOV_SUCCESS;
}

// Frees what came, which is nothing when it failed.
void take(kov_status status, std::uint8_t *data, std::uint32_t length)
{
    require(status != 0);
    require(status == KOV_SUCCESS || (data == nullptr && length == 0));
    require((data == nullptr) == (length == 0));
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < length; ++i)
        sum += data[i];
    static_cast<void>(sum);
    std::free(data);
}

void ask_everything(kovc_session *session)
{
    std::uint8_t *data = nullptr;
    std::uint8_t *signature = nullptr;
    std::uint32_t length = 0;
    std::uint32_t signature_length = 0;
    for (std::uint32_t capability : {KOV_CAPABILITY_PCR_READ, KOV_CAPABILITY_PCR_QUOTE}) {
        kov_capability *result = nullptr;
        const kov_status told = kovc_device_capability(session, capability, &result);
        require((told == KOV_SUCCESS) == (result != nullptr));
        std::free(result);
    }
    kov_status status = kovc_pcr_read(session, KOV_ALG_SHA256, 10, &data, &length, nullptr);
    take(status, data, length);
    const std::uint8_t nonce[] = {1, 2, 3};
    status = kovc_tpm2_pcr_quote(session, 0, "AIK", KOV_ALG_SHA256, 0xFF, KOV_ALG_SHA256, nonce, sizeof nonce,
                                 &data, &length, &signature, &signature_length);
    take(status, data, length);
    take(status, signature, signature_length);
    status = kovc_so_read(session, 0, "CHAIN", &data, &length);
    take(status, data, length);
    kovc_signing *signing = nullptr;
    if (kovc_sign_init(session, KOV_LOGIN_USER, "VOXA", KOV_ALG_SHA256, &signing) != KOV_SUCCESS)
        return;
    kovc_sign_update(session, signing, nonce, sizeof nonce);
    status = kovc_sign_final(session, signing, &data, &length);
    take(status, data, length);
}

void run()
{
    kovc_context *context = nullptr;
    require(kovc_init_context(&context, KOV_LOGIN_USER, 0) == KOV_SUCCESS);
    kov_login_context login{KOV_LOGIN_KIND_SECRET, {}, {}};
    std::snprintf(login.user_name, sizeof login.user_name, "%s", KOV_LOGIN_USER);
    std::snprintf(login.secret, sizeof login.secret, "%s", KOV_LOGIN_SECRET);
    for (int sessions = 0; sessions < 2; ++sessions) {
        kovc_session *session = nullptr;
        const kov_status status = kovc_app_login(context, 1, &login, &session);
        require((status == KOV_SUCCESS) == (session != nullptr));
        if (session == nullptr)
            break;
        ask_everything(session);
        kovc_app_logout(&session);
    }
    kovc_release_context(&context);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const provisioned_node node;
    static const bool registered =
        kov_register_ipc_cb(init, cleanup, open_channel, close_channel, send, receive) == KOV_SUCCESS &&
        kov_register_mem_cb(kov_linux_mem_alloc, kov_linux_mem_free) == KOV_SUCCESS;
    require(registered);
    responses = {{data, size}};
    sizes_put_right = (responses.u8() & 1) != 0;
    run();
    return 0;
}
