// The fields of a measurement's template, each with its parser.
//
// A parser puts what the field holds into the event as heap copies that the event owns; what the event had
// there before is freed. It traces under its own name what it finds and what is wrong. It returns 0; -1 for a
// failure; -2 when a "d-ng" field holds no digest.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ima/ima_record_format.h"
#include "platform/messages.h"

// `field` has `length` bytes, and no fewer than the parser's row says it reads.
using ima_field_parser = std::int32_t (*)(const std::byte *field, std::uint32_t length, IMA_EVENT *event);

// "d": 20 bytes whatever the length says, into `digest`; `digest_algo` is "SHA1".
std::int32_t ima_eventdigest_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event);
// "n": a name of at most 256 bytes into `event_name`.
std::int32_t ima_eventname_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event);
// "d-ng": an algorithm name, ":", NUL and the digest, into `digest_algo` and `digest`.
std::int32_t ima_eventdigest_ng_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event);
// "n-ng": a name of any length into `event_name`.
std::int32_t ima_eventname_ng_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event);
// "sig": bytes into `signature`; an empty field sets nothing.
std::int32_t ima_eventsig_parse(const std::byte *field, std::uint32_t length, IMA_EVENT *event);

// The field as a text of its own, which the caller frees; a NUL in it ends the text. 0; or -1 without memory,
// with *text unchanged.
std::int32_t ima_parse_string(const std::byte *field, std::uint32_t length, char **text);

struct ima_field {
    std::array<char, 16> id; // NUL-terminated
    ima_field_parser parse;
    std::uint32_t least_bytes; // what the parser reads even of a shorter field
};

// Searched in this order.
inline constexpr std::array<ima_field, 5> ima_field_table = {{
    {{"d"}, ima_eventdigest_parse, IMA_DIGEST_SIZE},
    {{"n"}, ima_eventname_parse, 0},
    {{"d-ng"}, ima_eventdigest_ng_parse, 0},
    {{"n-ng"}, ima_eventname_ng_parse, 0},
    {{"sig"}, ima_eventsig_parse, 0},
}};
