#include "ima/ima_field_parsers.h"

#include <cstdlib>
#include <cstring>

#include "agent/debug_trace.h"
#include "ima/event_copies.h"

namespace {

// The parsers of both name fields, apart from the limit.
std::int32_t parse_name(const std::byte *field, std::uint32_t length, IMA_EVENT *event)
{
    char *name = nullptr;
    std::int32_t result = ima_parse_string(field, length, &name);
    if (result == 0)
        give_text(event, IMA_EVENT::has_event_name, event->event_name, name);
    return result;
}

} // namespace

std::int32_t ima_eventdigest_parse(const std::byte *field, std::uint32_t, IMA_EVENT *event)
{
    if (!copy_bytes(event, IMA_EVENT::has_digest, event->digest, {field, IMA_DIGEST_SIZE}) ||
        !copy_text(event, IMA_EVENT::has_digest_algo, event->digest_algo, "SHA1")) {
        attest_trace("No memory");
        return -1;
    }
    return 0;
}

std::int32_t ima_eventdigest_ng_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event)
{
    const char *text = reinterpret_cast<const char *>(field);
    std::size_t text_length = strnlen(text, length);
    if (text_length == length || text_length == 0) {
        attest_trace("Hash algorithm name missing\n");
        return -1;
    }
    std::size_t name_length = text_length - 1;
    if (name_length > IMA_ALGORITHM_NAME_MAX) {
        attest_trace("Hash algorithm name too long\n");
        return -1;
    }
    attest_trace("%s", text);
    // Not below zero: the text and its NUL are inside the field.
    std::size_t digest_length = length - 2 - name_length;
    if (digest_length == 0) {
        attest_trace("DIGEST not found %d", static_cast<int>(digest_length));
        return -2;
    }
    if (!copy_bytes(event, IMA_EVENT::has_digest, event->digest, {field + name_length + 2, digest_length}) ||
        !copy_text(event, IMA_EVENT::has_digest_algo, event->digest_algo, {text, name_length})) {
        attest_trace("No memory");
        return -1;
    }
    return 0;
}

std::int32_t ima_eventname_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event)
{
    if (length > IMA_EVENT_NAME_MAX) {
        attest_trace("Event name too long\n");
        return -1;
    }
    return parse_name(field, length, event);
}

std::int32_t ima_eventname_ng_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event)
{
    return parse_name(field, length, event);
}

std::int32_t ima_eventsig_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event)
{
    if (length == 0)
        return 0;
    if (!copy_bytes(event, IMA_EVENT::has_signature, event->signature, {field, length})) {
        attest_trace("No memory");
        return -1;
    }
    return 0;
}

std::int32_t ima_parse_string(const std::byte *field, std::uint32_t length, char **text)
{
    char *copy = duplicate_text({reinterpret_cast<const char *>(field), length});
    if (copy == nullptr) {
        attest_trace("Out of memory\n");
        return -1;
    }
    attest_trace("%s", copy);
    *text = copy;
    return 0;
}
