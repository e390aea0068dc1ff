#include "platform/base64.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <openssl/evp.h>

namespace {

constexpr std::size_t QUAD = 4;   // characters ...
constexpr std::size_t TRIPLE = 3; // ... for so many bytes
// OpenSSL counts in int: the text of so many bytes still fits.
constexpr std::size_t MAX_BYTES = std::size_t{1} << 30;

const unsigned char *as_unsigned(const void *bytes)
{
    return static_cast<const unsigned char *>(bytes);
}

// The last four characters, which alone may be padded: what they stand for has to give them back. `bytes` has
// room for all of them.
bool decode_last(const char *quad, std::uint8_t *bytes, std::size_t length)
{
    std::array<unsigned char, TRIPLE> decoded{};
    std::array<unsigned char, QUAD + 1> again{};
    if (EVP_DecodeBlock(decoded.data(), as_unsigned(quad), QUAD) != TRIPLE)
        return false;
    EVP_EncodeBlock(again.data(), decoded.data(), static_cast<int>(length));
    if (std::memcmp(again.data(), quad, QUAD) != 0)
        return false;
    std::copy_n(decoded.begin(), length, bytes);
    return true;
}

} // namespace

char *at_base64_encode(const void *bytes, std::size_t length, std::uint32_t *text_length)
{
    *text_length = 0;
    if (length > MAX_BYTES)
        return nullptr;
    std::size_t size = (length + TRIPLE - 1) / TRIPLE * QUAD;
    auto *text = static_cast<char *>(std::calloc(1, size + 1));
    if (text == nullptr)
        return nullptr;
    if (length != 0)
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text), as_unsigned(bytes),
                        static_cast<int>(length));
    *text_length = static_cast<std::uint32_t>(size);
    return text;
}

std::int64_t at_base64_decode_size_bytes(const char *text, std::size_t text_length)
{
    if (text_length < QUAD)
        return 0;
    std::size_t padding = text[text_length - 1] != '=' ? 0 : text[text_length - 2] != '=' ? 1 : 2;
    return static_cast<std::int64_t>(text_length / QUAD * TRIPLE - padding);
}

int at_base64_decode(const char *text, std::size_t text_length, std::uint8_t *bytes, std::uint32_t *length)
{
    std::size_t room = *length;
    *length = 0;
    if (text_length == 0)
        return 0;
    if (text_length % QUAD != 0 || text_length > INT_MAX)
        return EINVAL;
    auto size = static_cast<std::size_t>(at_base64_decode_size_bytes(text, text_length));
    if (size > room)
        return ENOSPC;
    // OpenSSL takes '=' anywhere for zero bits, and white space at the ends for nothing: then the count shows
    // it.
    std::size_t head = text_length - QUAD;
    std::size_t head_bytes = head / QUAD * TRIPLE;
    if (head != 0 &&
        (std::memchr(text, '=', head) != nullptr ||
         EVP_DecodeBlock(bytes, as_unsigned(text), static_cast<int>(head)) != static_cast<int>(head_bytes)))
        return EINVAL;
    if (!decode_last(text + head, bytes + head_bytes, size - head_bytes))
        return EINVAL;
    *length = static_cast<std::uint32_t>(size);
    return 0;
}
