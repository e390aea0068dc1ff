// What goes to the BMC and comes back as text: base64, the call's body, replies of any bytes.
#include <cerrno>
#include <cstring>
#include <random>

#include <gmock/gmock.h>

#include "bmc/rest_reply.h"
#include "bmc/rest_transport.h"
#include "platform/base64.h"
#include "tests/support/trace_capture.h"
#include "tests/tpm/software_tpm.h"

namespace {

using bytes = std::vector<std::uint8_t>;

std::string encode(const bytes &data)
{
    std::uint32_t length = 0;
    malloc_ptr<char> text(at_base64_encode(data.data(), data.size(), &length));
    EXPECT_EQ(std::strlen(text.get()), length);
    return text.get();
}

// Decodes into memory of exactly the size announced, which the sanitizer watches.
int decode(const std::string &text, bytes &data)
{
    const std::vector<char> exact(text.begin(), text.end());
    data.resize(static_cast<std::size_t>(at_base64_decode_size_bytes(exact.data(), exact.size())));
    data.shrink_to_fit();
    auto length = static_cast<std::uint32_t>(data.size());
    int error = at_base64_decode(exact.data(), exact.size(), data.data(), &length);
    EXPECT_EQ(length, error == 0 ? data.size() : 0) << text;
    return error;
}

TEST(base64, IsOpensslsAndDecodesBack)
{
    temporary_directory directory;
    std::mt19937 random(64);
    for (std::size_t length : {0, 1, 2, 3, 4, 47, 48, 49, 1000, 70001}) {
        bytes data(length);
        for (std::uint8_t &byte : data)
            byte = static_cast<std::uint8_t>(random());
        std::string file = directory.path() + "/data";
        write_file(file, {data.begin(), data.end()});
        std::string text = encode(data);
        EXPECT_EQ(text, run_program("openssl base64 -A -in " + file).output);
        bytes again;
        EXPECT_EQ(decode(text, again), 0);
        EXPECT_EQ(again, data);
    }
}

// Whatever byte stands wherever: a text is taken only if it is what an encoder writes.
TEST(base64, TakesNoTextThatAnEncoderDoesNotWrite)
{
    for (const bytes &data : {bytes{0, 16, 131}, bytes{0, 16, 131, 16}, bytes{0, 16, 131, 16, 81}}) {
        const std::string text = encode(data);
        std::size_t taken = 0;
        for (std::size_t at = 0; at < text.size(); ++at) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string changed = text;
                changed[at] = static_cast<char>(byte);
                bytes decoded;
                if (decode(changed, decoded) == 0) {
                    ++taken;
                    EXPECT_EQ(encode(decoded), changed);
                }
            }
        }
        EXPECT_GE(taken, (data.size() * 8 / 6) * 64);
        for (const std::string &wrong : {text.substr(1), text + "=", text + "\n", text + "====", " " + text,
                                         "    " + text, text + "    ", text + "\n\n\n\n"}) {
            bytes decoded;
            EXPECT_EQ(decode(wrong, decoded), EINVAL) << wrong;
        }
    }
    std::uint8_t room[2];
    std::uint32_t length = sizeof room;
    EXPECT_EQ(at_base64_decode("AAEC", 4, room, &length), ENOSPC);
}

TEST(call_body, HoldsThreeStringsAndANumberOfAnyWidth)
{
    EXPECT_STREQ(make_call_body(3, "node1", "QUJD", 4).get(), R"({"data":["3","node1","QUJD"]})");
    EXPECT_STREQ(make_call_body(4294967295, "", "", 0).get(), R"({"data":["4294967295","",""]})");
}

TEST(call, WithoutItsArgumentsIsRefused)
{
    const std::uint8_t request = 0;
    std::uint8_t *response = nullptr;
    std::uint32_t length = 0;
    trace_captured.clear();
    EXPECT_EQ(rest_operation(1, nullptr, &request, 1, &response, &length), -1);
    EXPECT_EQ(rest_operation(1, "node", nullptr, 1, &response, &length), -1);
    EXPECT_EQ(rest_operation(1, "node", &request, -1, &response, &length), -1);
    EXPECT_EQ(rest_operation(1, "node", &request, 1, nullptr, &length), -1);
    EXPECT_EQ(rest_operation(1, "node", &request, 1, &response, nullptr), -1);
    EXPECT_EQ(rest_operation(1, "no\"de", &request, 1, &response, &length), -1);
    EXPECT_THAT(trace_captured, testing::Each("rest_operation(): Invalid params"));
    EXPECT_EQ(trace_captured.size(), 6u);
}

// A reply that came in pieces of `piece` bytes.
struct collected : rest_response {
    explicit collected(std::string text, std::size_t piece = 7) : rest_response{}
    {
        body = static_cast<char *>(std::calloc(1, 1));
        for (std::size_t at = 0; at < text.size(); at += piece) {
            std::size_t size = std::min(piece, text.size() - at);
            EXPECT_EQ(local_write_cb(text.data() + at, 1, size, this), size);
        }
    }
    collected(const collected &) = delete;
    collected &operator=(const collected &) = delete;
    ~collected() { std::free(body); }
};

TEST(reply, GivesItsDataOrSaysWhyNot)
{
    const struct {
        std::string text;
        const char *payload; // null: none
        const char *line;
    } replies[] = {
        {R"({"data": "AAEC", "message": "200 OK", "status": "ok"})", "AAEC", nullptr},
        {"{\n  \"data\": \"AAEC\",\n  \"message\": \"200 OK\",\n  \"status\": \"OK\"\n}", "AAEC", nullptr},
        {R"({"data": "", "status": "ok"})", "", nullptr},
        {R"({"message": "No blob", "status": "error"})", nullptr, "Failure on BMC, msg: No blob"},
        {R"({"message": ,"status": "error"})", nullptr, "Failure on BMC, msg: No message"},
        {R"({"message": ",", "status": "error"})", nullptr, "Failure on BMC, msg: "},
        {R"({"data": "AAEC"})", nullptr, "Failure on BMC, msg: No message"},
        {R"({"status": "o)", nullptr, "Failure on BMC, msg: No message"},
        {R"({"status": "ok", "data": "AAEC"})", nullptr, "Malformed Response 32 "},
        {R"({"message": "x", "status": "ok"})", nullptr, "Malformed Response 32 "},
        {std::string("\0\"data\": \"AAEC\", \"status\": \"ok\"}", 32), nullptr,
         "Failure on BMC, msg: No message"},
        {"", nullptr, "Failure on BMC, msg: No message"},
    };
    for (const auto &[text, payload, line] : replies) {
        trace_captured.clear();
        collected reply(text);
        EXPECT_EQ(parse_data(&reply), payload != nullptr ? text.size() : 0) << text;
        if (payload != nullptr)
            EXPECT_EQ(std::string(reply.payload, reply.payload_len), payload) << text;
        else
            EXPECT_EQ(reply.payload, nullptr) << text;
        if (line != nullptr)
            EXPECT_THAT(trace_captured, testing::ElementsAre("parse_data(): " + std::string(line))) << text;
        else
            EXPECT_THAT(trace_captured, testing::IsEmpty()) << text;
    }
    trace_captured.clear();
    EXPECT_EQ(parse_data(nullptr), 0u);
    EXPECT_TRUE(trace_has("parse_data(): Parameter error"));
}

TEST(reply, IsCollectedUpToItsBound)
{
    collected reply("");
    reply.body = static_cast<char *>(std::realloc(reply.body, REPLY_SIZE_MAX)); // all but the last two bytes
    reply.body_len = REPLY_SIZE_MAX - 2;
    char piece[] = "AAA";
    trace_captured.clear();
    EXPECT_EQ(local_write_cb(piece, 1, 3, &reply), 0u);
    EXPECT_TRUE(trace_has("local_write_cb(): Failed to realloc 67108866 bytes"));
    EXPECT_EQ(local_write_cb(piece, SIZE_MAX, 3, &reply), 0u);
    EXPECT_EQ(reply.body_len, REPLY_SIZE_MAX - 2);
    EXPECT_EQ(local_write_cb(piece, 1, 2, &reply), 2u);
    EXPECT_EQ(reply.body[REPLY_SIZE_MAX - 1], 'A');
    EXPECT_EQ(reply.body[REPLY_SIZE_MAX], '\0');
}

} // namespace
