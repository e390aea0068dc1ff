// Contexts, sessions, and what they keep of the TPM.
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "platform/tpm/client.h"
#include "platform/tpm/reference_list.h"

namespace {

// What a key with a SHA-256 name takes as its authorisation value.
constexpr std::size_t SECRET_MAX = 32;

kov_ipc_callbacks registered_ipc{};
kov_mem_alloc_callback registered_alloc = nullptr;
kov_mem_free_callback registered_free = nullptr;
std::size_t contexts_alive = 0; // the IPC is set up for the first and cleaned up after the last

void forget_keys(kovc_context &context)
{
    if (context.connection) {
        for (auto &[name, key] : context.keys)
            Esys_TR_Close(context.connection->esys, &key);
    }
    context.keys.clear();
}

// Reads the manifest when it is not the file that was read last, so that a node may be provisioned, or anew,
// while the agent runs.
void refresh_manifest(kovc_context &context)
{
    manifest_cache &cache = context.provisioned;
    const std::string path = manifest_path();
    const file_mark mark = file_mark_of(path);
    if (path == cache.path && mark == cache.mark)
        return;
    forget_keys(context);
    context.binding = KOV_ERR_NOT_PROVISIONED;
    cache.status = manifest_load(path, cache.content);
    // What could not be read now is read again at the next login.
    const bool settled = cache.status == KOV_SUCCESS || cache.status == KOV_ERR_MANIFEST ||
                         cache.status == KOV_ERR_NOT_PROVISIONED;
    cache.path = settled ? path : std::string();
    cache.mark = mark;
}

void bind_reference_list(kovc_context &context)
{
    if (context.provisioned.status != KOV_SUCCESS) {
        context.binding = context.provisioned.status;
    } else if (context.binding != KOV_SUCCESS) {
        bool extended = false;
        context.binding =
            reference_list_bind(*context.connection, context.provisioned.content.identifiers, &extended);
    }
}

kov_status connect(kovc_context &context, std::uint64_t device)
{
    context.keys.clear();
    context.binding = KOV_ERR_NOT_PROVISIONED;
    return tpm_connection_open(context.ipc, device, context.connection);
}

// Sees that the TPM answers. A connection that turns out to be broken is replaced once; after a TPM that did
// not answer in time there is no second wait.
kov_status ensure_connection(kovc_context &context, std::uint64_t device)
{
    if (!context.connection || !tpm_connection_whole(*context.connection))
        return connect(context, device);
    bool was_reset = false;
    const kov_status status = tpm_connection_check(*context.connection, &was_reset);
    if (!tpm_connection_whole(*context.connection) && status != KOV_ERR_TIMEOUT)
        return connect(context, device);
    if (was_reset) {
        forget_keys(context);
        context.binding = KOV_ERR_NOT_PROVISIONED;
    }
    return status;
}

// The secret's length; none of it is looked at beyond its field.
kov_status accept_login(const kovc_context &context, const kov_login_context &login, TPM2B_AUTH &secret)
{
    const std::string_view user(login.user_name, strnlen(login.user_name, sizeof login.user_name));
    const std::size_t length = strnlen(login.secret, sizeof login.secret);
    if (login.kind != KOV_LOGIN_KIND_SECRET || user != context.user || length > SECRET_MAX)
        return KOV_ERR_LOGIN;
    secret.size = static_cast<UINT16>(length);
    std::memcpy(secret.buffer, login.secret, length);
    return KOV_SUCCESS;
}

} // namespace

kovc_session::~kovc_session()
{
    OPENSSL_cleanse(&secret, sizeof secret);
}

void *client_alloc(std::size_t size)
{
    return registered_alloc == nullptr ? nullptr : registered_alloc(size);
}

void client_free(void *memory)
{
    if (registered_free != nullptr)
        registered_free(memory);
}

kov_status hand_out(std::span<const std::uint8_t> bytes, std::uint8_t **data, std::uint32_t *length)
{
    *data = nullptr;
    *length = 0;
    if (bytes.empty())
        return KOV_SUCCESS;
    *data = static_cast<std::uint8_t *>(client_alloc(bytes.size()));
    if (*data == nullptr)
        return KOV_ERR_NO_MEMORY;
    std::memcpy(*data, bytes.data(), bytes.size());
    *length = static_cast<std::uint32_t>(bytes.size());
    return KOV_SUCCESS;
}

kov_status kov_register_ipc_cb(kov_ipc_init_callback init, kov_ipc_cleanup_callback cleanup,
                               kov_ipc_open_callback open, kov_ipc_close_callback close,
                               kov_ipc_send_callback send, kov_ipc_receive_callback receive)
{
    if (init == nullptr || cleanup == nullptr || open == nullptr || close == nullptr || send == nullptr ||
        receive == nullptr)
        return KOV_ERR_INVALID_PARAM;
    registered_ipc = {init, cleanup, open, close, send, receive};
    setenv("TSS2_LOG", "all+none", 0);
    return KOV_SUCCESS;
}

kov_status kov_register_mem_cb(kov_mem_alloc_callback alloc, kov_mem_free_callback free)
{
    if (alloc == nullptr || free == nullptr)
        return KOV_ERR_INVALID_PARAM;
    registered_alloc = alloc;
    registered_free = free;
    return KOV_SUCCESS;
}

kov_status kovc_init_context(kovc_context **context, const char *user_name, std::uint32_t options)
{
    if (context == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *context = nullptr;
    if (user_name == nullptr || options != 0)
        return KOV_ERR_INVALID_PARAM;
    if (registered_ipc.init == nullptr || registered_alloc == nullptr)
        return KOV_ERR_NO_CALLBACKS;
    return counted([&] {
        auto made = std::make_unique<kovc_context>();
        made->user = user_name;
        made->ipc = registered_ipc;
        const kov_status status = contexts_alive == 0 ? registered_ipc.init() : kov_status{KOV_SUCCESS};
        if (status != KOV_SUCCESS)
            return status;
        ++contexts_alive;
        *context = made.release();
        return status;
    });
}

void kovc_release_context(kovc_context **context)
{
    if (context == nullptr || *context == nullptr)
        return;
    const auto cleanup = (*context)->ipc.cleanup;
    delete *context;
    *context = nullptr;
    if (--contexts_alive == 0)
        cleanup();
}

kov_status kovc_app_login(kovc_context *context, std::uint64_t device_handle, const kov_login_context *login,
                          kovc_session **session)
{
    if (session == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *session = nullptr;
    if (context == nullptr || login == nullptr)
        return KOV_ERR_INVALID_PARAM;
    return counted([&] {
        auto opened = std::make_unique<kovc_session>(context);
        kov_status status = accept_login(*context, *login, opened->secret);
        if (status != KOV_SUCCESS)
            return status;
        status = ensure_connection(*context, device_handle);
        if (status != KOV_SUCCESS)
            return status;
        refresh_manifest(*context);
        bind_reference_list(*context);
        // A TPM that refuses the extension is the identifiers' affair; one that is gone is the login's.
        if (!tpm_connection_whole(*context->connection))
            return context->connection->tcti.failure;
        *session = opened.release();
        return kov_status{KOV_SUCCESS};
    });
}

kov_status kovc_app_logout(kovc_session **session)
{
    if (session == nullptr || *session == nullptr)
        return KOV_ERR_INVALID_PARAM;
    const std::unique_ptr<kovc_session> ending(*session);
    *session = nullptr;
    tpm_connection *connection = nullptr;
    const kov_status status = session_connection(*ending, &connection);
    return status == KOV_SUCCESS ? connection->tcti.failure : status;
}

kov_status session_connection(const kovc_session &session, tpm_connection **connection)
{
    *connection = session.context->connection.get();
    return *connection != nullptr ? KOV_SUCCESS : KOV_ERR_CLOSED;
}

kov_status session_key(kovc_session &session, const char *key_name, ESYS_TR *key)
{
    kovc_context &context = *session.context;
    if (context.provisioned.status != KOV_SUCCESS)
        return context.provisioned.status;
    if (!context.connection)
        return KOV_ERR_CLOSED;
    tpm_connection &connection = *context.connection;
    auto known = context.keys.find(key_name);
    if (known == context.keys.end()) {
        const manifest_key *wanted = manifest_find_key(context.provisioned.content, key_name);
        if (wanted == nullptr)
            return KOV_ERR_NO_KEY;
        ESYS_TR resolved = ESYS_TR_NONE;
        const TSS2_RC code = Esys_TR_FromTPMPublic(connection.esys, wanted->handle, ESYS_TR_NONE,
                                                   ESYS_TR_NONE, ESYS_TR_NONE, &resolved);
        if (code != TSS2_RC_SUCCESS)
            return tpm_connection_result(connection, code);
        known = context.keys.emplace(key_name, resolved).first;
    }
    *key = known->second;
    return tpm_connection_result(connection, Esys_TR_SetAuth(connection.esys, *key, &session.secret));
}
