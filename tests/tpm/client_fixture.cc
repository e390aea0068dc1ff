#include "tests/tpm/client_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

client_traffic traffic;

namespace {

kov_status counted_send(void *channel, const std::uint8_t *command, std::uint32_t length)
{
    traffic.commands.push_back(length < 10 ? 0 : command[8] << 8 | command[9]);
    return kov_linux_ipc_send(channel, command, length);
}

kov_status watched_receive(void *channel, std::uint8_t *response, std::uint32_t capacity,
                           std::uint32_t *length)
{
    const kov_status status = kov_linux_ipc_receive(channel, response, capacity, length);
    if (status == KOV_SUCCESS && traffic.on_response)
        traffic.on_response(response, capacity, *length);
    return status;
}

void *counted_alloc(std::size_t size)
{
    ++traffic.allocations;
    return kov_linux_mem_alloc(size);
}

// Bytes from the library, with their owner.
handed_out take(kov_status status, std::uint8_t *data, std::uint32_t length)
{
    EXPECT_NE(status, 0u);
    if (status != KOV_SUCCESS) {
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(length, 0u);
    }
    return {status, malloc_ptr<std::uint8_t>(data), length};
}

} // namespace

client_fixture::client_fixture()
{
    traffic = {};
    EXPECT_EQ(kov_register_ipc_cb(kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                                  kov_linux_ipc_close, counted_send, watched_receive),
              KOV_SUCCESS);
    EXPECT_EQ(kov_register_mem_cb(counted_alloc, kov_linux_mem_free), KOV_SUCCESS);
}

client_fixture::~client_fixture()
{
    release();
}

void client_fixture::use(const std::string &address, const std::string &manifest)
{
    release();
    setenv("ATTEST_TPM", address.c_str(), 1);
    setenv("ATTEST_TRUST_ANCHOR", manifest.c_str(), 1);
    ASSERT_EQ(kovc_init_context(&context_, KOV_LOGIN_USER, 0), KOV_SUCCESS);
}

void client_fixture::use(const software_tpm &tpm)
{
    use(tpm.address(), tpm.manifest());
}

session_owner client_fixture::login(const char *secret)
{
    kov_login_context login{KOV_LOGIN_KIND_SECRET, {}, {}};
    std::snprintf(login.user_name, sizeof login.user_name, "%s", KOV_LOGIN_USER);
    std::snprintf(login.secret, sizeof login.secret, "%s", secret);
    kovc_session *session = nullptr;
    const kov_status status = kovc_app_login(context_, 1, &login, &session);
    EXPECT_EQ(session != nullptr, status == KOV_SUCCESS);
    return {session, status};
}

handed_out session_owner::pcr(std::uint32_t algorithm, std::uint32_t index) const
{
    std::uint8_t *value = nullptr;
    std::uint32_t length = 0;
    const kov_status status = kovc_pcr_read(session_, algorithm, index, &value, &length, nullptr);
    return take(status, value, length);
}

quote_result session_owner::quote(const char *key, std::uint32_t algorithm, std::uint64_t mask,
                                  const std::vector<std::uint8_t> &nonce) const
{
    std::uint8_t *quote = nullptr;
    std::uint8_t *signature = nullptr;
    std::uint32_t quote_length = 0;
    std::uint32_t signature_length = 0;
    const kov_status status = kovc_tpm2_pcr_quote(session_, 0, key, algorithm, mask, algorithm, nonce.data(),
                                                  static_cast<std::uint32_t>(nonce.size()), &quote,
                                                  &quote_length, &signature, &signature_length);
    handed_out quoted = take(status, quote, quote_length);
    return {std::move(quoted), take(status, signature, signature_length)};
}

handed_out session_owner::sign(const char *key, const std::vector<std::uint8_t> &data,
                               std::uint32_t algorithm) const
{
    kovc_signing *signing = nullptr;
    std::uint8_t *signature = nullptr;
    std::uint32_t length = 0;
    const auto half = static_cast<std::uint32_t>(data.size() / 2);
    const auto rest = static_cast<std::uint32_t>(data.size()) - half;
    kov_status status = kovc_sign_init(session_, KOV_LOGIN_USER, key, algorithm, &signing);
    if (status == KOV_SUCCESS)
        status = kovc_sign_update(session_, signing, data.data(), half);
    if (status == KOV_SUCCESS)
        status = kovc_sign_update(session_, signing, data.data() + half, rest);
    if (status == KOV_SUCCESS)
        status = kovc_sign_final(session_, signing, &signature, &length);
    return take(status, signature, length);
}

handed_out session_owner::object(const char *name) const
{
    std::uint8_t *data = nullptr;
    std::uint32_t length = 0;
    const kov_status status = kovc_so_read(session_, 0, name, &data, &length);
    return take(status, data, length);
}

uid_result session_owner::uids(std::uint32_t db_type, std::uint32_t algorithm) const
{
    std::uint8_t *data = nullptr;
    std::uint32_t length = 0;
    std::uint16_t count = 0;
    const kov_status status =
        kovc_partward_get_uniqueid_digests(session_, db_type, algorithm, &count, &length, &data);
    return {take(status, data, length), count};
}
