// The trust-anchor client library: what the agent may ask of the node's TPM 2.0.
//
// Every operation returns a status: KOV_SUCCESS (1), else a failure that kov_status_string puts into words,
// and then every output is null or 0. 0 is never returned. A null argument, or a signing handle that is not
// the session's, is a failure like any other. No call waits longer than the transport's bound for each
// command to the TPM (kov_linux_ipc_*: 30 s); after a transport failure the remaining calls of the session
// fail at once and the next login connects anew.
//
// Memory that an operation hands out comes from the registered alloc callback and is the caller's. With
// kov_linux_mem_alloc that is malloc: free it with the ordinary free.
//
// One thread at a time per context.
#pragma once

#include <cstddef>
#include <cstdint>

using kov_status = std::uint32_t;
inline constexpr kov_status KOV_SUCCESS = 1;

// Failures of the library itself. Other values are the TPM's response codes (and those of its software stack)
// as they came, or KOV_ERR_ERRNO with the errno of a failed system call.
inline constexpr kov_status KOV_ERR_BASE = 0x4B000000;
inline constexpr kov_status KOV_ERR_ERRNO = 0x4B010000;
enum : kov_status {
    KOV_ERR_INVALID_PARAM = KOV_ERR_BASE + 1, // a null, unknown or malformed argument
    KOV_ERR_NO_MEMORY = KOV_ERR_BASE + 2,
    KOV_ERR_NO_CALLBACKS = KOV_ERR_BASE + 3,    // IPC or memory callbacks were not registered
    KOV_ERR_SETTING = KOV_ERR_BASE + 4,         // ATTEST_TPM cannot be understood
    KOV_ERR_LOGIN = KOV_ERR_BASE + 5,           // kind, user or form of the secret cannot be right
    KOV_ERR_TIMEOUT = KOV_ERR_BASE + 6,         // the TPM did not answer within the bound
    KOV_ERR_CLOSED = KOV_ERR_BASE + 7,          // the TPM's end of the transport is gone
    KOV_ERR_BAD_RESPONSE = KOV_ERR_BASE + 8,    // what came back is no TPM 2.0 response
    KOV_ERR_NOT_PROVISIONED = KOV_ERR_BASE + 9, // no manifest
    KOV_ERR_MANIFEST = KOV_ERR_BASE + 10,       // the manifest is damaged
    KOV_ERR_NO_KEY = KOV_ERR_BASE + 11,
    KOV_ERR_NO_OBJECT = KOV_ERR_BASE + 12,
    KOV_ERR_OBJECT_SIZE = KOV_ERR_BASE + 13, // an object is larger than KOV_MAX_OBJECT_BYTES
    KOV_ERR_ALGORITHM = KOV_ERR_BASE + 14,   // not an algorithm number
    KOV_ERR_PCR_INDEX = KOV_ERR_BASE + 15,   // not a PCR of the TPM
    KOV_ERR_PCR_BANK = KOV_ERR_BASE + 16,    // the TPM keeps no such bank
    KOV_ERR_NONCE_SIZE = KOV_ERR_BASE + 17,  // more than KOV_MAX_NONCE_BYTES
    KOV_ERR_CAPABILITY = KOV_ERR_BASE + 18,  // not a capability number
    KOV_ERR_CRYPTO = KOV_ERR_BASE + 19,      // the digest library failed
};

inline constexpr std::uint32_t KOV_MAX_NONCE_BYTES = 64;
inline constexpr std::uint32_t KOV_MAX_OBJECT_BYTES = 65536;

// Algorithm numbers of PCR banks and digests.
inline constexpr std::uint32_t KOV_ALG_SHA1 = 1;
inline constexpr std::uint32_t KOV_ALG_SHA256 = 2;
inline constexpr std::uint32_t KOV_ALG_SHA384 = 3;
inline constexpr std::uint32_t KOV_ALG_SHA512 = 4;

// The text of a status, never null: the TPM's own words for a TPM error. Valid until the next call of the
// same thread; neither kept nor freed by the caller.
const char *kov_status_string(kov_status status);

// ---- what carries the commands, and what memory comes from ----

// A channel is the callbacks' own; a command and its response are one send and one receive. `device` is a
// handle from platform_get_kov_device_info.
using kov_ipc_init_callback = kov_status (*)();
using kov_ipc_cleanup_callback = void (*)();
using kov_ipc_open_callback = kov_status (*)(std::uint64_t device, void **channel);
using kov_ipc_close_callback = void (*)(void *channel);
using kov_ipc_send_callback = kov_status (*)(void *channel, const std::uint8_t *command,
                                             std::uint32_t length);
// Receives one whole response into `response` of `capacity` bytes.
using kov_ipc_receive_callback = kov_status (*)(void *channel, std::uint8_t *response, std::uint32_t capacity,
                                                std::uint32_t *length);
using kov_mem_alloc_callback = void *(*)(std::size_t size);
using kov_mem_free_callback = void (*)(void *memory);

// To be called before any other thread runs: they also keep the TSS libraries from writing to stderr what
// statuses already say (the environment variable TSS2_LOG, when set, is left alone).
kov_status kov_register_ipc_cb(kov_ipc_init_callback init, kov_ipc_cleanup_callback cleanup,
                               kov_ipc_open_callback open, kov_ipc_close_callback close,
                               kov_ipc_send_callback send, kov_ipc_receive_callback receive);
kov_status kov_register_mem_cb(kov_mem_alloc_callback alloc, kov_mem_free_callback free);

// The library's own callbacks for Linux. ATTEST_TPM says where the TPM is: "device:PATH", by default
// "device:/dev/tpmrm0", or "swtpm:path=SOCKET", the unix socket of a software TPM (which serves one
// connection at a time).
kov_status kov_linux_ipc_init();
void kov_linux_ipc_cleanup();
kov_status kov_linux_ipc_open(std::uint64_t device, void **channel);
void kov_linux_ipc_close(void *channel);
kov_status kov_linux_ipc_send(void *channel, const std::uint8_t *command, std::uint32_t length);
kov_status kov_linux_ipc_receive(void *channel, std::uint8_t *response, std::uint32_t capacity,
                                 std::uint32_t *length);
void *kov_linux_mem_alloc(std::size_t size);
void kov_linux_mem_free(void *memory);

// The node's trust anchor: its handle (1) and the device-info word, the kind of transport in ATTEST_TPM.
// 0; or a platform status (platform/status.h) when the setting cannot be understood. The TPM is not asked:
// one that comes up later is found by a later login.
inline constexpr std::uint64_t KOV_DEVICE_INFO_DEVICE = 1;
inline constexpr std::uint64_t KOV_DEVICE_INFO_SWTPM = 2;
std::uint32_t platform_get_kov_device_info(std::uint64_t *device_handle, std::uint64_t *device_info);

// ---- contexts and sessions ----

struct kovc_context;
struct kovc_session;
struct kovc_signing;

// Kind 2: the secret is the authorisation value of the trust anchor's keys, at most 32 bytes.
inline constexpr std::uint32_t KOV_LOGIN_KIND_SECRET = 2;
struct kov_login_context {
    std::uint32_t kind;
    char user_name[64];
    char secret[256];
};
// User and secret that a node is provisioned with.
inline constexpr char KOV_LOGIN_USER[] = "Init";
inline constexpr char KOV_LOGIN_SECRET[] = "Pobrekd307";

// A context for the user; `options` is 0. It connects to the TPM at the first login and keeps the connection
// and the resolved keys from then on.
kov_status kovc_init_context(kovc_context **context, const char *user_name, std::uint32_t options);
// Disconnects and releases a context whose sessions are all logged out; clears *context. Null is allowed.
void kovc_release_context(kovc_context **context);

// Opens a session. Asks the TPM one command (ReadClock) to see that it answers and was not reset; connects
// first where there is no connection or it has broken, and issues TPM2_Startup(CLEAR) to a TPM that waits for
// it. After a connect or a reset it extends PCR 15 if that is still due (see the reference list below). A
// wrong secret shows at the first use of a key, and never counts against the TPM's dictionary-attack limit.
// A node without a manifest can log in and read PCRs.
kov_status kovc_app_login(kovc_context *context, std::uint64_t device_handle, const kov_login_context *login,
                          kovc_session **session);
// Ends the session and releases what it holds, whatever happened in it; clears *session. The status tells of
// a transport that failed on the way: everything is released all the same.
kov_status kovc_app_logout(kovc_session **session);

struct kov_capability {
    std::uint32_t capability; // the number that was asked for
    std::uint32_t present;    // 1 or 0
};
// 0xC00: PCR values can be read: the TPM keeps a SHA-256 bank of 24 PCRs.
// 0xC01: PCR values can be quoted: the TPM implements TPM2_Quote. (Not whether a key is there now: a node may
// be provisioned later.)
inline constexpr std::uint32_t KOV_CAPABILITY_PCR_READ = 0xC00;
inline constexpr std::uint32_t KOV_CAPABILITY_PCR_QUOTE = 0xC01;
kov_status kovc_device_capability(kovc_session *session, std::uint32_t capability, kov_capability **result);

// ---- evidence ----

// One PCR (0 to 23) of a bank. *update_counter, which may be null, gets the TPM's PCR update counter.
// KOV_ERR_PCR_INDEX, KOV_ERR_PCR_BANK.
kov_status kovc_pcr_read(kovc_session *session, std::uint32_t algorithm, std::uint32_t pcr_index,
                         std::uint8_t **value, std::uint32_t *length, std::uint32_t *update_counter);

// A quote over the PCRs of the bank `algorithm` whose bits are set in `mask` (bits 24 to 63:
// KOV_ERR_PCR_INDEX), with the nonce (null and 0, or at most KOV_MAX_NONCE_BYTES) as extra data. `reserved`
// is 0. *quote is the TPMS_ATTEST as the TPM signed it, *signature the marshalled TPMT_SIGNATURE. Its scheme
// is the restricted key's own, RSASSA with SHA-256, which also makes the digest over the PCR values;
// `quote_algorithm` has to be an algorithm number and changes nothing else.
kov_status kovc_tpm2_pcr_quote(kovc_session *session, std::uint32_t reserved, const char *key_name,
                               std::uint32_t algorithm, std::uint64_t mask, std::uint32_t quote_algorithm,
                               const std::uint8_t *nonce, std::uint32_t nonce_length, std::uint8_t **quote,
                               std::uint32_t *quote_length, std::uint8_t **signature,
                               std::uint32_t *signature_length);

// The whole object `name`; `reserved` is 0. An object that exists and is empty gives a null buffer and 0.
// KOV_ERR_NO_OBJECT for an empty or unknown name.
kov_status kovc_so_read(kovc_session *session, std::uint32_t reserved, const char *name, std::uint8_t **data,
                        std::uint32_t *length);

// Signing in pieces, by the key `key_name` with the digest `algorithm` (2: SHA-256). The signature is the
// bare RSASSA-PKCS1-v1_5 signature, as many bytes as the key's modulus. kovc_sign_final ends the handle
// whatever comes of it; one not finished is released at logout.
kov_status kovc_sign_init(kovc_session *session, const char *user_name, const char *key_name,
                          std::uint32_t algorithm, kovc_signing **signing);
kov_status kovc_sign_update(kovc_session *session, kovc_signing *signing, const std::uint8_t *data,
                            std::uint32_t length);
kov_status kovc_sign_final(kovc_session *session, kovc_signing *signing, std::uint8_t **signature,
                           std::uint32_t *length);

// The digests of the board's unique identifiers: *count digests of the algorithm's size, laid end to end in
// *total_length bytes. An identifier is the text the firmware or kernel gives (serial number, UUID, MAC
// address, processor signature); its digest is the hash of that text. With no identifiers: a null buffer, 0,
// 0.
//
// Type 0 is the reference list, as it was recorded when the node was provisioned. Type 1 is what the board
// shows now, in the order of the reference list: entry i of both stands for the same place on the board; a
// digest of zeros stands for an identifier that is gone; identifiers that the reference list does not know
// follow at the end. The lists are equal exactly when no chip was changed, removed or added. On a node that
// is not provisioned type 0 fails (KOV_ERR_NOT_PROVISIONED) and type 1 is in the order of the places' names.
//
// The reference list is bound to PCR 15, and so to a quote over it: for every bank b that the TPM keeps, with
// hash H_b and the type 0 digests d_0 .. d_n-1 of that algorithm, PCR 15 is extended once a boot with
// H_b(d_0 || .. || d_n-1), so that PCR 15 = H_b(zeros || H_b(d_0 || .. || d_n-1)). "Once a boot" is
// recognised by PCR 15 being zero in the bank; a PCR 15 that something else extends first is left alone and
// does not match. While extending fails, both types fail with the status of that.
inline constexpr std::uint32_t KOV_UID_REFERENCE = 0;
inline constexpr std::uint32_t KOV_UID_BOARD = 1;
kov_status kovc_partward_get_uniqueid_digests(kovc_session *session, std::uint32_t db_type,
                                              std::uint32_t algorithm, std::uint16_t *count,
                                              std::uint32_t *total_length, std::uint8_t **data);
