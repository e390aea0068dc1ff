#include "bmc/rest_reply.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "agent/debug_trace.h"

char *find_json_value(char *text, const char *pattern, std::uint32_t *length)
{
    if (text == nullptr || pattern == nullptr || length == nullptr)
        return nullptr;
    *length = 0;
    char *value = std::strstr(text, pattern);
    if (value == nullptr)
        return nullptr;
    value += std::strlen(pattern);
    std::size_t stretch = std::strcspn(value, ",");
    if (stretch != 0) {
        value[stretch - 1] = '\0';
        *length = static_cast<std::uint32_t>(stretch - 1);
    }
    return value;
}

std::uint32_t parse_data(rest_response *reply)
{
    if (reply == nullptr || reply->body == nullptr) {
        attest_trace("Parameter error");
        return 0;
    }
    reply->payload = nullptr;
    reply->payload_len = 0;
    reply->body[reply->body_len] = '\0';
    std::uint32_t length = 0;
    const char *status = find_json_value(reply->body, "status\": \"", &length);
    if (status != nullptr && length >= 2 && strncasecmp(status, "ok", 2) == 0) {
        reply->payload = find_json_value(reply->body, "data\": \"", &reply->payload_len);
        if (reply->payload != nullptr)
            return reply->body_len;
        attest_trace("Malformed Response %d ", static_cast<int>(reply->body_len));
        return 0;
    }
    const char *message = find_json_value(reply->body, "message\": \"", &length);
    if (message == nullptr)
        message = "No message";
    else if (length == 0) // not cut off, then
        message = "";
    attest_trace("Failure on BMC, msg: %s", message);
    return 0;
}

std::size_t local_write_cb(char *bytes, std::size_t size, std::size_t count, void *reply)
{
    auto *response = static_cast<rest_response *>(reply);
    std::size_t room = REPLY_SIZE_MAX - response->body_len;
    std::size_t piece = 0;
    bool fits = !__builtin_mul_overflow(size, count, &piece) && piece <= room;
    std::size_t wanted = response->body_len + piece + 1;
    void *grown = fits ? std::realloc(response->body, wanted) : nullptr;
    if (grown == nullptr) {
        attest_trace("Failed to realloc %d bytes", static_cast<int>(wanted));
        return 0;
    }
    response->body = static_cast<char *>(grown);
    std::memcpy(response->body + response->body_len, bytes, piece);
    response->body_len += static_cast<std::uint32_t>(piece);
    response->body[response->body_len] = '\0';
    return piece;
}

std::size_t ignore_output(char * /*bytes*/, std::size_t size, std::size_t count, void * /*context*/)
{
    return size * count;
}
