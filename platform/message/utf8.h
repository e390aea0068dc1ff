// Whether bytes are UTF-8, as protobuf asks of every `string`: a reader refuses a whole message for one that
// is not.
#pragma once

#include <cstddef>

// No overlong forms, no surrogates, nothing above U+10FFFF.
bool utf8_is_valid(const char *text, std::size_t length);
