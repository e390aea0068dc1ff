// Status codes of several domains, and their texts.
//
// 0 is success in every domain. A domain owns the codes of its table; errors of the operating system travel
// as platform_status_from_errno() makes them, so that they never look like a domain's code.
#pragma once

#include <cstdint>

struct status_text {
    std::uint64_t code;
    const char *text;
};

// A domain's constant description. It and its texts live as long as the process.
struct status_domain {
    const char *name;
    std::uint32_t number;
    std::uint32_t count;
    const status_text *texts; // `count` of them
};

inline constexpr std::uint32_t PLATFORM_STATUS_ERRNO = 0x0E000000;

constexpr std::uint32_t platform_status_from_errno(int error)
{
    return error == 0 ? 0 : PLATFORM_STATUS_ERRNO | static_cast<std::uint32_t>(error);
}

// Makes the domain's texts known to status_strerror; registering it again changes nothing. Not for use beside
// running threads. 0, or ENOSPC's status when too many domains are registered.
std::uint32_t status_domain_register(const status_domain *domain);

// The text of a code: of the registered domain that has it, else of the errno it stands for, else "Unknown
// status". Constant, NUL-terminated, never null; neither copied nor freed by the caller. Callable from any
// thread.
const char *status_strerror(std::uint32_t code);
