// Base64 as RFC 4648, section 4, has it, with padding. Not the agent's own, whose faults would undo each
// other.
#pragma once

#include <string>
#include <string_view>

std::string base64_text(std::string_view bytes);

// False for anything but what `base64_text` makes of some bytes.
bool base64_bytes(std::string_view text, std::string &bytes);
