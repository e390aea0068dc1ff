#include "platform/message/utf8.h"

#include <cstdint>

namespace {

struct lead_byte {
    unsigned char first;
    unsigned char last;
    std::uint8_t continuation_bytes;
    // The second byte's bounds; those after it are 80 to BF.
    unsigned char second_first;
    unsigned char second_last;
};

constexpr lead_byte LEAD_BYTES[] = {
    {0xC2, 0xDF, 1, 0x80, 0xBF}, {0xE0, 0xE0, 2, 0xA0, 0xBF}, {0xE1, 0xEC, 2, 0x80, 0xBF},
    {0xED, 0xED, 2, 0x80, 0x9F}, {0xEE, 0xEF, 2, 0x80, 0xBF}, {0xF0, 0xF0, 3, 0x90, 0xBF},
    {0xF1, 0xF3, 3, 0x80, 0xBF}, {0xF4, 0xF4, 3, 0x80, 0x8F},
};

// Length of the sequence at `text`, which does not begin with an ASCII character; 0 when it is none.
std::size_t sequence_length(const unsigned char *text, std::size_t room)
{
    for (const lead_byte &lead : LEAD_BYTES) {
        if (text[0] < lead.first || text[0] > lead.last)
            continue;
        std::size_t length = 1u + lead.continuation_bytes;
        if (room < length || text[1] < lead.second_first || text[1] > lead.second_last)
            return 0;
        for (std::size_t i = 2; i < length; ++i) {
            if ((text[i] & 0xC0) != 0x80)
                return 0;
        }
        return length;
    }
    return 0;
}

} // namespace

bool utf8_is_valid(const char *text, std::size_t length)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(text);
    for (std::size_t i = 0; i < length;) {
        std::size_t sequence = bytes[i] < 0x80 ? 1 : sequence_length(bytes + i, length - i);
        if (sequence == 0)
            return false;
        i += sequence;
    }
    return true;
}
