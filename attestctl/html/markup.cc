#include "attestctl/html/markup.h"

#include "attestctl/text.h"

void append_escaped(html &out, std::string_view text)
{
    for (;;) {
        const std::size_t special = text.find_first_of("&<>\"'");
        out.bytes += text.substr(0, special);
        if (special == std::string_view::npos)
            return;
        switch (text[special]) {
        case '&':
            out.bytes += "&amp;";
            break;
        case '<':
            out.bytes += "&lt;";
            break;
        case '>':
            out.bytes += "&gt;";
            break;
        case '"':
            out.bytes += "&quot;";
            break;
        default:
            out.bytes += "&#39;";
        }
        text.remove_prefix(special + 1);
    }
}

void append_number(html &out, std::uint64_t number)
{
    out.bytes += grouped(number);
}
