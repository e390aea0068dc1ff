#include "tools/bmc_simulator/base64.h"

#include <openssl/evp.h>

namespace {

const unsigned char *octets(std::string_view text)
{
    return reinterpret_cast<const unsigned char *>(text.data());
}

unsigned char *octets(std::string &text)
{
    return reinterpret_cast<unsigned char *>(text.data());
}

} // namespace

std::string base64_text(std::string_view bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4, '\0'); // the NUL behind it goes where the string has its own
    EVP_EncodeBlock(octets(text), octets(bytes), static_cast<int>(bytes.size()));
    return text;
}

bool base64_bytes(std::string_view text, std::string &bytes)
{
    bytes.assign(text.size() / 4 * 3, '\0');
    if (EVP_DecodeBlock(octets(bytes), octets(text), static_cast<int>(text.size())) !=
        static_cast<int>(bytes.size()))
        return false;
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    bytes.resize(bytes.size() - padding);
    // OpenSSL overlooks blanks around the text and bits that are left over.
    return base64_text(bytes) == text;
}
