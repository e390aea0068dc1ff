// Base64 of RFC 4648, section 4: its alphabet, its padding, no line breaks.
#pragma once

#include <cstddef>
#include <cstdint>

// The text of `length` bytes (1 GiB at most; null for none), NUL-terminated, in memory from malloc that is
// the caller's; *text_length is its length without the NUL. Null and 0 when it is too long or there is no
// memory.
char *at_base64_encode(const void *bytes, std::size_t length, std::uint32_t *text_length);

// The exact number of bytes that the text stands for, if it is base64 at all; 0 for less than four
// characters.
std::int64_t at_base64_decode_size_bytes(const char *text, std::size_t text_length);

// Decodes into `bytes`, where *length bytes fit; *length becomes the number decoded. 0; or an errno, and then
// *length is 0: EINVAL for a text that no encoder writes (other characters, white space too, missing or
// misplaced padding, bits behind the end that are not zero), ENOSPC for too little room.
int at_base64_decode(const char *text, std::size_t text_length, std::uint8_t *bytes, std::uint32_t *length);
