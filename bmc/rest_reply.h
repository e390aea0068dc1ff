// A reply of the BMC: collected piece by piece, then checked and read in place.
//
//     {"data": "AAEC", "message": "200 OK", "status": "ok"}
//
// Each value that is found is cut off with a NUL, and later searches see only the text before it. So the keys
// have to come in this order, as the BMC's server writes them; a value may have no comma in it.
#pragma once

#include <cstddef>
#include <cstdint>

struct rest_response {
    char *payload; // the base64 value, inside `body`; null until parse_data has found it
    std::uint32_t payload_len;
    char *body; // what came so far, with a NUL behind it; from malloc, the owner of the response frees it
    std::uint32_t body_len;
};

// Longest reply that is collected: a record of 48 MiB, more than a kernel's list of 200,000 events takes.
inline constexpr std::uint32_t REPLY_SIZE_MAX = 64u << 20;

// Finds the first `pattern` in the NUL-terminated `text` and cuts the value behind it off, before the next
// comma or the end of the text: its last character, the closing quote, becomes NUL. The value, in `text`, and
// its length; or null and 0 when there is none or an argument is null. An empty value is not cut off.
char *find_json_value(char *text, const char *pattern, std::uint32_t *length);

// Whether the reply says "ok" and has data: then `payload` and `payload_len` say where, and the result is
// `body_len`. Otherwise 0, traced, and no payload. `body` has room for a NUL behind its `body_len` bytes.
std::uint32_t parse_data(rest_response *reply);

// Takes a piece of size * count bytes into the response that `reply` points to. The piece's size; 0, traced,
// when there is no memory or the reply would be longer than REPLY_SIZE_MAX: the transfer then ends.
std::size_t local_write_cb(char *bytes, std::size_t size, std::size_t count, void *reply);

// Takes a piece and forgets it.
std::size_t ignore_output(char *bytes, std::size_t size, std::size_t count, void *context);
