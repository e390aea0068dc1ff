#include "attestctl/nonce.h"

#include <array>

#include <sys/random.h>

bool fresh_nonce(std::string &nonce)
{
    std::array<char, 32> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return false;
    nonce.assign(bytes.data(), bytes.size());
    return true;
}
