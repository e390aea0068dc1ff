#include "tools/bmc_simulator/sessions.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

#include <openssl/rand.h>

namespace {

constexpr std::string_view NAME = "SESSION=";

std::string random_token()
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), bytes.size()) != 1)
        throw std::runtime_error("no random bytes");
    std::string token;
    for (const unsigned char byte : bytes)
        token += {DIGITS[byte >> 4], DIGITS[byte & 15]};
    return token;
}

} // namespace

std::string session_store::open()
{
    const std::string token = random_token();
    const std::lock_guard guard(lock_);
    if (tokens_.size() == MOST)
        tokens_.pop_front();
    tokens_.push_back(token);
    return std::string(NAME) + token + "; Path=/; Secure; HttpOnly";
}

bool session_store::knows(const std::string &cookies)
{
    const std::size_t begin = cookies.find(NAME);
    if (begin == std::string::npos)
        return false;
    const std::size_t from = begin + NAME.size();
    const std::string token = cookies.substr(from, cookies.find(';', from) - from);
    const std::lock_guard guard(lock_);
    return std::find(tokens_.begin(), tokens_.end(), token) != tokens_.end();
}
