#include "platform/message/descriptors.h"
#include "platform/message/encode.h"

#include <array>
#include <bit>
#include <cstddef>
#include <type_traits>

// name and fields of a message; below, one specialisation each.
template <class Message>
struct message_table;

namespace {

template <class Message>
constexpr message_descriptor descriptor = {
    message_table<Message>::name,
    sizeof(Message),
    message_table<Message>::fields,
    message_size<message_table<Message>::fields>,
    put_message<message_table<Message>::fields>,
};

// What a member's type says about its field.
template <class Member>
struct member_traits;
template <>
struct member_traits<std::uint32_t> {
    static constexpr field_kind kind = field_kind::u32;
    static constexpr const message_descriptor *child = nullptr;
};
template <>
struct member_traits<std::uint64_t> {
    static constexpr field_kind kind = field_kind::u64;
    static constexpr const message_descriptor *child = nullptr;
};
template <>
struct member_traits<message_text> {
    static constexpr field_kind kind = field_kind::string;
    static constexpr const message_descriptor *child = nullptr;
};
template <>
struct member_traits<message_bytes> {
    static constexpr field_kind kind = field_kind::bytes;
    static constexpr const message_descriptor *child = nullptr;
};
template <>
struct member_traits<message_list<std::uint32_t>> {
    static constexpr field_kind kind = field_kind::u32_list;
    static constexpr const message_descriptor *child = nullptr;
    static_assert(sizeof(message_list<std::uint32_t>) == sizeof(any_list));
};
template <class Item>
struct member_traits<message_list<Item>> {
    static constexpr field_kind kind = field_kind::messages;
    static constexpr const message_descriptor *child = &descriptor<Item>;
    static_assert(sizeof(message_list<Item>) == sizeof(any_list) && alignof(message_list<Item>) == 8);
    static_assert(offsetof(message_list<Item>, count) == offsetof(any_list, count));
};

constexpr std::uint8_t wire_tag(field_kind kind, int number)
{
    bool varint = kind == field_kind::u32 || kind == field_kind::u64;
    return static_cast<std::uint8_t>(number << 3 | (varint ? 0 : 2));
}

template <class Member>
constexpr field_descriptor field_of(const char *name, std::size_t offset, std::uint32_t presence,
                                    field_kind kind = member_traits<Member>::kind)
{
    int number = std::countr_zero(presence) + 1;
    return {name,
            member_traits<Member>::child,
            presence,
            static_cast<std::uint16_t>(offset),
            sizeof(Member),
            kind,
            static_cast<std::uint8_t>(number),
            wire_tag(kind, number)};
}

// The table names every member of the structure, in order and without a gap, with its own presence bit.
template <class Message>
constexpr bool table_fits()
{
    static_assert(std::is_standard_layout_v<Message> && std::is_trivially_copyable_v<Message>);
    static_assert(offsetof(Message, present) == 0 &&
                  std::is_same_v<decltype(Message::present), std::uint32_t>);
    std::size_t end = sizeof(std::uint32_t);
    std::uint32_t presence = 1;
    for (const field_descriptor &field : message_table<Message>::fields) {
        std::size_t alignment = field.kind == field_kind::u32 ? 4 : 8;
        std::size_t expected = (end + alignment - 1) / alignment * alignment;
        if (field.offset != expected || field.presence != presence || field.number > FIELD_NUMBER_MAX)
            return false;
        end = field.offset + field.size;
        presence <<= 1;
    }
    return (end + alignof(Message) - 1) / alignof(Message) * alignof(Message) == sizeof(Message);
}

} // namespace

template <class Message>
const message_descriptor &message_descriptor_of()
{
    static_assert(table_fits<Message>());
    return descriptor<Message>;
}

// MESSAGE_TABLE(message, rows...): the table and the public descriptor of one message. FIELD takes the kind
// from the member's type; NAME_FIELD is a text that travels as bytes.
#define FIELD(member) field_of<decltype(type::member)>(#member, offsetof(type, member), type::has_##member)
#define NAME_FIELD(member)                                                                                   \
    field_of<decltype(type::member)>(#member, offsetof(type, member), type::has_##member, field_kind::name)
#define MESSAGE_TABLE(message, ...)                                                                          \
    template <>                                                                                              \
    struct message_table<message> {                                                                          \
        using type = message;                                                                                \
        static constexpr const char *name = #message;                                                        \
        static constexpr std::array fields = {__VA_ARGS__};                                                  \
    };                                                                                                       \
    template const message_descriptor &message_descriptor_of<message>()

// Children stand above their parents.

MESSAGE_TABLE(CERTIFICATE_ENTRY, FIELD(name), FIELD(data));
MESSAGE_TABLE(SystemCertificates, FIELD(node_name), FIELD(nonce), FIELD(certs), FIELD(sig_alg),
              FIELD(signature));
MESSAGE_TABLE(PCR_DUMP, FIELD(index), FIELD(value));
MESSAGE_TABLE(NodePCRData, FIELD(node_name), FIELD(uptime), FIELD(pcrs), FIELD(quote),
              FIELD(quote_signature));
MESSAGE_TABLE(UID_DIGEST, FIELD(index), FIELD(digest));
MESSAGE_TABLE(tpm_hw_integrity, FIELD(source_name), FIELD(node_name), FIELD(uptime), FIELD(uid_digests_db0),
              FIELD(uid_digests_db1), FIELD(pcrs), FIELD(key_cert_name), FIELD(quote), FIELD(sig_alg),
              FIELD(quote_signature));
MESSAGE_TABLE(BOOT_EVENT_DIGEST, FIELD(hash_alg), FIELD(digest));
MESSAGE_TABLE(BOOT_EVENT, FIELD(event_num), FIELD(event_type), FIELD(pcr_index), FIELD(digests),
              FIELD(event_size), FIELD(event_data));
MESSAGE_TABLE(NodeBootIntegrityLog, FIELD(node_name), FIELD(events), FIELD(uptime));
MESSAGE_TABLE(IMA_EVENT, FIELD(event_num), NAME_FIELD(template_name), NAME_FIELD(event_name), FIELD(digest),
              NAME_FIELD(digest_algo), FIELD(template_hash), FIELD(pcr), FIELD(signature), FIELD(duplicate));
MESSAGE_TABLE(NodeIMAData, FIELD(node_name), FIELD(events), FIELD(uptime));
MESSAGE_TABLE(IMACacheBlock, FIELD(events));

MESSAGE_TABLE(get_certificate_request, FIELD(cert_name), FIELD(node_name), FIELD(nonce));
MESSAGE_TABLE(attest_pcr_request, FIELD(pcr_indices), FIELD(nonce), FIELD(node_name), FIELD(hash_algo));
MESSAGE_TABLE(get_platform_boot_integrity_event_logs_request, FIELD(node_name));
MESSAGE_TABLE(get_platform_hw_integrity_request, FIELD(nonce), FIELD(hash_algo));
MESSAGE_TABLE(get_platform_ima_event_logs_request, FIELD(node_name), FIELD(start_event), FIELD(event_count));

MESSAGE_TABLE(get_certificate_response, FIELD(node_data));
MESSAGE_TABLE(attest_pcr_response, FIELD(node_data), FIELD(nonce), FIELD(flags));
MESSAGE_TABLE(get_platform_boot_integrity_event_logs_response, FIELD(node_data), FIELD(flags));
MESSAGE_TABLE(get_platform_ima_event_logs_response, FIELD(node_data), FIELD(nonce), FIELD(flags));
MESSAGE_TABLE(get_platform_hw_integrity_response, FIELD(nonce), FIELD(node_data));
