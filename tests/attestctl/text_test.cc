// Texts of a node as they are shown, the verdict over checks, and what is no certificate.
#include <gtest/gtest.h>

#include "attestctl/certificate_text.h"
#include "attestctl/check.h"
#include "attestctl/json.h"
#include "attestctl/text.h"

using namespace std::string_literals;

TEST(text, hostile_text_is_shown_and_not_obeyed)
{
    const struct {
        std::string from, to;
    } cases[] = {
        {"/usr/bin/caf\xc3\xa9 x", "/usr/bin/caf\xc3\xa9 x"},
        {"a\nb\x1b[31m\x7f", "a\\x0ab\\x1b[31m\\x7f"},
        {"\\x0a", "\\\\x0a"},
        {"\xff\xc0\xaf", "\\xff\\xc0\\xaf"},          // overlong '/'
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},          // a surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, // beyond U+10FFFF
        {"\xe2\x82", "\\xe2\\x82"},                   // cut
        {"\xc2\x9b", "\\u{9b}"},                      // a one-character escape introducer
        {"a\xe2\x80\xae"
         "b",
         "a\\u{202e}b"}, // right-to-left override
        {"\xf0\x9f\x90\xa7", "\xf0\x9f\x90\xa7"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(printable(c.from), c.to);
    EXPECT_EQ(printable("abcdef", 3), "abc... (6 bytes)");
    EXPECT_EQ(printable_utf16("a\0b\0c\0d\0e\0f\0"s, 6), "abc... (12 bytes)");
    EXPECT_EQ(printable_utf16("\x3d\xd8"), "\\u{d83d}") << "half a pair at the end";
    std::string json;
    append_json_string(json, "\"\\\n\xff\xf0\x9f\x90\xa7\xf3\xa0\x81\x81");
    EXPECT_EQ(json, "\"\\\"\\\\\\u000a\xef\xbf\xbd\xf0\x9f\x90\xa7\\udb40\\udc41\"");
    std::string unchanged = "x";
    for (const char *no_hex : {"0", "0g", "g0", "/0", ":0", "@0", "0`"})
        EXPECT_FALSE(from_hex(no_hex, unchanged)) << no_hex;
    EXPECT_EQ(unchanged, "x");
    EXPECT_EQ(format("%s", std::string(3000, 'l').c_str()), std::string(3000, 'l'));
    EXPECT_EQ(printable_utf16("\x3d\xd8\x27\xdc\x3d\xd8"
                              "a\0"s),
              "\xf0\x9f\x90\xa7\\u{d83d}a");
}

TEST(check, only_passes_verify)
{
    using enum check_outcome;
    const check good{"a", passed, "", ""}, bad{"b", failed, "", ""}, open{"c", not_made, "", ""};
    EXPECT_EQ(verdict_line(std::vector{good, good}, true), "VERIFIED");
    EXPECT_EQ(verdict_line(std::vector{good}, false),
              "VERIFIED, but against roots that are not pinned (see --root)");
    EXPECT_EQ(verdict_line({}, true), "NOT VERIFIED: no check was made");
    EXPECT_EQ(verdict_line(std::vector{open}, true), "NOT VERIFIED: no check was made");
    EXPECT_EQ(verdict_line(std::vector{good, open}, true), "NOT VERIFIED: 0 checks failed, 1 not made");
    EXPECT_EQ(verdict_line(std::vector{good, bad}, true), "NOT VERIFIED: 1 check failed");
    EXPECT_FALSE(all_passed({}));
    EXPECT_FALSE(all_passed(std::vector{good, open}));
}

TEST(certificate, garbage_is_no_certificate)
{
    EXPECT_EQ(certificate_lines("\x30\x82\x00"s), std::vector<std::string>{"no DER certificate: 308200"});
    EXPECT_EQ(certificate_lines(""), std::vector<std::string>{"no DER certificate: "});
}
