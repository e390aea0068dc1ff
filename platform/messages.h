// The messages of the remote attestation API as plain structures, and the library that encodes, decodes and
// releases them. Their wire form is api/remote_attestation_api.proto, field for field; meanings and units
// stand there.
//
// Every field is optional: it counts only when its presence bit is set. Bit i of `present` stands for field i
// of the structure, from 0. All memory of a message comes from malloc and belongs to the message; release
// frees it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct message_bytes {
    std::uint8_t *data;
    std::uint64_t length;
};

template <class T>
struct message_list {
    T *items;
    std::uint32_t count;
};

// A text is NUL-terminated. On the wire a NUL inside a text ends it.
using message_text = char *;

// Bit 0 of `flags` in the responses that have it.
inline constexpr std::uint32_t RESPONSE_ALL_SOURCES_ASKED = 1;

// ---- records ----

struct CERTIFICATE_ENTRY {
    enum : std::uint32_t { has_name = 1u << 0, has_data = 1u << 1 };
    std::uint32_t present;
    message_text name;
    message_bytes data;
};

struct SystemCertificates {
    enum : std::uint32_t {
        has_node_name = 1u << 0,
        has_nonce = 1u << 1,
        has_certs = 1u << 2,
        has_sig_alg = 1u << 3,
        has_signature = 1u << 4
    };
    std::uint32_t present;
    message_text node_name;
    message_bytes nonce;
    message_list<CERTIFICATE_ENTRY> certs;
    std::uint32_t sig_alg;
    message_bytes signature;
};

struct PCR_DUMP {
    enum : std::uint32_t { has_index = 1u << 0, has_value = 1u << 1 };
    std::uint32_t present;
    std::uint32_t index;
    message_bytes value;
};

struct NodePCRData {
    enum : std::uint32_t {
        has_node_name = 1u << 0,
        has_uptime = 1u << 1,
        has_pcrs = 1u << 2,
        has_quote = 1u << 3,
        has_quote_signature = 1u << 4
    };
    std::uint32_t present;
    message_text node_name;
    std::uint64_t uptime;
    message_list<PCR_DUMP> pcrs;
    message_bytes quote;
    message_bytes quote_signature;
};

struct UID_DIGEST {
    enum : std::uint32_t { has_index = 1u << 0, has_digest = 1u << 1 };
    std::uint32_t present;
    std::uint32_t index;
    message_bytes digest;
};

struct tpm_hw_integrity {
    enum : std::uint32_t {
        has_source_name = 1u << 0,
        has_node_name = 1u << 1,
        has_uptime = 1u << 2,
        has_uid_digests_db0 = 1u << 3,
        has_uid_digests_db1 = 1u << 4,
        has_pcrs = 1u << 5,
        has_key_cert_name = 1u << 6,
        has_quote = 1u << 7,
        has_sig_alg = 1u << 8,
        has_quote_signature = 1u << 9
    };
    std::uint32_t present;
    message_text source_name;
    message_text node_name;
    std::uint64_t uptime;
    message_list<UID_DIGEST> uid_digests_db0;
    message_list<UID_DIGEST> uid_digests_db1;
    message_list<PCR_DUMP> pcrs;
    message_text key_cert_name;
    message_bytes quote;
    std::uint32_t sig_alg;
    message_bytes quote_signature;
};

struct BOOT_EVENT_DIGEST {
    enum : std::uint32_t { has_hash_alg = 1u << 0, has_digest = 1u << 1 };
    std::uint32_t present;
    std::uint32_t hash_alg;
    message_bytes digest;
};

struct BOOT_EVENT {
    enum : std::uint32_t {
        has_event_num = 1u << 0,
        has_event_type = 1u << 1,
        has_pcr_index = 1u << 2,
        has_digests = 1u << 3,
        has_event_size = 1u << 4,
        has_event_data = 1u << 5
    };
    std::uint32_t present;
    std::uint32_t event_num;
    std::uint32_t event_type;
    std::uint32_t pcr_index;
    message_list<BOOT_EVENT_DIGEST> digests;
    std::uint32_t event_size;
    message_bytes event_data;
};

struct NodeBootIntegrityLog {
    enum : std::uint32_t { has_node_name = 1u << 0, has_events = 1u << 1, has_uptime = 1u << 2 };
    std::uint32_t present;
    message_text node_name;
    message_list<BOOT_EVENT> events;
    std::uint64_t uptime;
};

struct IMA_EVENT {
    enum : std::uint32_t {
        has_event_num = 1u << 0,
        has_template_name = 1u << 1,
        has_event_name = 1u << 2,
        has_digest = 1u << 3,
        has_digest_algo = 1u << 4,
        has_template_hash = 1u << 5,
        has_pcr = 1u << 6,
        has_signature = 1u << 7,
        has_duplicate = 1u << 8
    };
    std::uint32_t present;
    std::uint64_t event_num;
    message_text template_name;
    message_text event_name;
    message_bytes digest;
    message_text digest_algo;
    message_bytes template_hash;
    std::uint32_t pcr;
    message_bytes signature;
    std::uint32_t duplicate;
};

struct NodeIMAData {
    enum : std::uint32_t { has_node_name = 1u << 0, has_events = 1u << 1, has_uptime = 1u << 2 };
    std::uint32_t present;
    message_text node_name;
    message_list<IMA_EVENT> events;
    std::uint64_t uptime;
};

// The unit in which events are stored in the cache on disk; it never travels. Field 1 is `events`.
struct IMACacheBlock {
    enum : std::uint32_t { has_events = 1u << 0 };
    std::uint32_t present;
    message_list<IMA_EVENT> events;
};

// ---- requests ----

struct get_certificate_request {
    enum : std::uint32_t { has_cert_name = 1u << 0, has_node_name = 1u << 1, has_nonce = 1u << 2 };
    std::uint32_t present;
    message_text cert_name;
    message_text node_name;
    message_bytes nonce;
};

struct attest_pcr_request {
    enum : std::uint32_t {
        has_pcr_indices = 1u << 0,
        has_nonce = 1u << 1,
        has_node_name = 1u << 2,
        has_hash_algo = 1u << 3
    };
    std::uint32_t present;
    message_list<std::uint32_t> pcr_indices;
    message_bytes nonce;
    message_text node_name;
    std::uint32_t hash_algo;
};

struct get_platform_boot_integrity_event_logs_request {
    enum : std::uint32_t { has_node_name = 1u << 0 };
    std::uint32_t present;
    message_text node_name;
};

struct get_platform_hw_integrity_request {
    enum : std::uint32_t { has_nonce = 1u << 0, has_hash_algo = 1u << 1 };
    std::uint32_t present;
    message_bytes nonce;
    std::uint32_t hash_algo;
};

struct get_platform_ima_event_logs_request {
    enum : std::uint32_t { has_node_name = 1u << 0, has_start_event = 1u << 1, has_event_count = 1u << 2 };
    std::uint32_t present;
    message_text node_name;
    std::uint64_t start_event;
    std::uint64_t event_count;
};

// ---- responses ----

struct get_certificate_response {
    enum : std::uint32_t { has_node_data = 1u << 0 };
    std::uint32_t present;
    message_list<SystemCertificates> node_data;
};

struct attest_pcr_response {
    enum : std::uint32_t { has_node_data = 1u << 0, has_nonce = 1u << 1, has_flags = 1u << 2 };
    std::uint32_t present;
    message_list<NodePCRData> node_data;
    message_bytes nonce;
    std::uint32_t flags;
};

struct get_platform_boot_integrity_event_logs_response {
    enum : std::uint32_t { has_node_data = 1u << 0, has_flags = 1u << 1 };
    std::uint32_t present;
    message_list<NodeBootIntegrityLog> node_data;
    std::uint32_t flags;
};

struct get_platform_ima_event_logs_response {
    enum : std::uint32_t { has_node_data = 1u << 0, has_nonce = 1u << 1, has_flags = 1u << 2 };
    std::uint32_t present;
    message_list<NodeIMAData> node_data;
    message_bytes nonce;
    std::uint32_t flags;
};

struct get_platform_hw_integrity_response {
    enum : std::uint32_t { has_nonce = 1u << 0, has_node_data = 1u << 1 };
    std::uint32_t present;
    message_bytes nonce;
    message_list<tpm_hw_integrity> node_data;
};

// ---- the library ----

// What the one encoder, sizer, decoder and release know about a message type; defined beside the tables.
struct message_descriptor;

// The descriptor of a message type; there is one for every structure above.
template <class Message>
const message_descriptor &message_descriptor_of();

// Bytes that the message takes when encoded; -1 when it cannot be encoded: a list or bytes field that is
// present, not empty and null; a text that is present and null; a text that is no UTF-8 where the wire form
// has `string`, for which a reader would refuse the whole message; 2 GiB or more, which the wire form cannot
// carry.
std::int64_t message_encoded_size(const message_descriptor &descriptor, const void *message);

// Encodes into `out`. The encoded length; when that is larger than `out`, nothing is written and the caller
// tries again with enough room; -1 as above. Fields whose presence bit is clear are left out; a present empty
// list looks like an absent one, for the wire form knows no difference.
std::int64_t message_encode(const message_descriptor &descriptor, const void *message,
                            std::span<std::byte> out);

// Decodes `bytes` into `message`, whose former content is overwritten, not released. True, with memory that
// the caller releases; or false, with the message empty and nothing allocated: bytes that are cut or
// malformed (also a `string` that is no UTF-8), or out of memory. The verdict is that of protobuf's own
// parsers. Unknown fields are skipped; of a field that comes several times the last counts, of a list all
// items. A present text is never null; present empty bytes have a null pointer. Depth is that of the
// structures; memory is at most 64 bytes for each byte decoded. Where that is too much, `list_memory` bounds
// what the items of all lists take, in bytes: a message whose lists take more is malformed.
bool message_decode(const message_descriptor &descriptor, std::span<const std::byte> bytes, void *message,
                    std::uint64_t list_memory = UINT64_MAX);

// Frees everything the message owns and leaves it empty, so that a second release does nothing.
void message_release(const message_descriptor &descriptor, void *message);

// Copies `bytes` into memory of their own, for a message's field. False when there is no memory; `copy` is
// then empty, as it is, with a null pointer, for no bytes.
bool message_copy_bytes(std::span<const std::byte> bytes, message_bytes &copy);

template <class Message>
std::int64_t message_encoded_size(const Message &message)
{
    return message_encoded_size(message_descriptor_of<Message>(), &message);
}

template <class Message>
std::int64_t message_encode(const Message &message, std::span<std::byte> out)
{
    return message_encode(message_descriptor_of<Message>(), &message, out);
}

template <class Message>
bool message_decode(std::span<const std::byte> bytes, Message &message)
{
    return message_decode(message_descriptor_of<Message>(), bytes, &message);
}

template <class Message>
void message_release(Message &message)
{
    message_release(message_descriptor_of<Message>(), &message);
}

// A message that releases itself unless it is handed over.
template <class Message>
class owned_message {
public:
    owned_message() = default;
    owned_message(const owned_message &) = delete;
    owned_message &operator=(const owned_message &) = delete;
    ~owned_message() { message_release(message_); }

    Message *get() noexcept { return &message_; }
    Message *operator->() noexcept { return &message_; }
    Message &operator*() noexcept { return message_; }

    // Gives the content up: the caller owns it, this is empty.
    Message hand_over() noexcept
    {
        Message message = message_;
        message_ = {};
        return message;
    }

private:
    Message message_{};
};
