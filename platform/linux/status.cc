#include "platform/status.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

namespace {

// The agent has one domain; the rest is room for libraries that bring their own.
std::array<const status_domain *, 8> domains;
std::size_t domain_count;

std::span<const status_domain *const> registered_domains()
{
    return std::span(domains).first(domain_count);
}

const char *errno_text(std::uint32_t code)
{
    // strerrordesc_np returns constant text and needs no buffer, unlike strerror.
    if ((code & 0xFF000000) != PLATFORM_STATUS_ERRNO)
        return nullptr;
    return strerrordesc_np(static_cast<int>(code & 0x00FFFFFF));
}

} // namespace

std::uint32_t status_domain_register(const status_domain *domain)
{
    if (domain == nullptr || (domain->count > 0 && domain->texts == nullptr))
        return platform_status_from_errno(EINVAL);
    if (std::ranges::count(registered_domains(), domain) > 0)
        return 0;
    if (domain_count == domains.size())
        return platform_status_from_errno(ENOSPC);
    domains[domain_count++] = domain;
    return 0;
}

const char *status_strerror(std::uint32_t code)
{
    if (code == 0)
        return "Success";
    for (const status_domain *domain : registered_domains()) {
        for (const status_text &entry : std::span(domain->texts, domain->count)) {
            if (entry.code == code)
                return entry.text;
        }
    }
    const char *text = errno_text(code);
    return text != nullptr ? text : "Unknown status";
}
