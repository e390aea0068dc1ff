// Nonces of requests.
#pragma once

#include <string>

// 32 bytes that nobody can guess; false, and `nonce` unchanged, where the kernel gives none.
bool fresh_nonce(std::string &nonce);
