#include "platform/node_identity.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

#include "platform/operator_log.h"
#include "platform/status.h"

namespace {

std::uint32_t refuse_setting(const char *setting, const char *what, int error)
{
    operator_log(LOG_ERR, "%s %s", setting, what);
    return platform_status_from_errno(error);
}

bool printable_ascii(std::string_view text)
{
    return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c <= 0x7E; });
}

void copy_text(char *buffer, std::string_view text)
{
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
}

std::uint32_t host_name(char *buffer, std::size_t size)
{
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (gethostname(name.data(), name.size()) != 0)
        return platform_status_from_errno(errno);
    std::string_view text(name.data(), strnlen(name.data(), name.size()));
    if (text.empty())
        return refuse_setting("ATTEST_NODE_NAME", "is not set, and this host has no name", ENODATA);
    if (!printable_ascii(text)) // it goes into messages as a text
        return refuse_setting("ATTEST_NODE_NAME",
                              "is not set, and this host's name has bytes other than printable ASCII",
                              EINVAL);
    copy_text(buffer, text.substr(0, size - 1));
    return 0;
}

} // namespace

std::uint32_t platform_get_node_name(char *buffer, std::size_t size)
{
    if (buffer == nullptr || size == 0)
        return platform_status_from_errno(EINVAL);
    buffer[0] = '\0';
    const char *setting = std::getenv("ATTEST_NODE_NAME");
    if (setting == nullptr)
        return host_name(buffer, size);
    std::string_view name = setting;
    if (name.empty())
        return refuse_setting("ATTEST_NODE_NAME", "is set to nothing: leave it out to use the host name",
                              EINVAL);
    if (!printable_ascii(name))
        return refuse_setting("ATTEST_NODE_NAME", "has bytes other than printable ASCII", EINVAL);
    if (name.size() >= size) {
        operator_log(LOG_ERR, "ATTEST_NODE_NAME has %zu characters: at most %zu fit", name.size(), size - 1);
        return platform_status_from_errno(ENAMETOOLONG);
    }
    copy_text(buffer, name);
    return 0;
}

std::uint32_t platform_get_my_nodeid(std::uint32_t *node_id)
{
    if (node_id == nullptr)
        return platform_status_from_errno(EINVAL);
    const char *setting = std::getenv("ATTEST_NODE_ID");
    std::string_view text = setting == nullptr ? "0" : setting;
    std::uint32_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        return refuse_setting("ATTEST_NODE_ID", "is not a decimal number of 32 bits", EINVAL);
    *node_id = value;
    return 0;
}

// One process serves one node, so the setting holds whatever that node's id is.
std::uint32_t nodeid_to_InternalEtherIPAddr(std::uint32_t /*node_id*/, std::uint32_t *address)
{
    if (address == nullptr)
        return platform_status_from_errno(EINVAL);
    const char *setting = std::getenv("ATTEST_NODE_ADDRESS");
    in_addr parsed{};
    if (inet_pton(AF_INET, setting == nullptr ? "127.0.0.1" : setting, &parsed) != 1)
        return refuse_setting("ATTEST_NODE_ADDRESS", "is not an IPv4 address in dotted form", EINVAL);
    *address = ntohl(parsed.s_addr);
    return 0;
}
