#include "platform/bmc_address.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/status.h"

std::uint32_t platform_get_bmc_address(char *buffer, std::size_t size)
{
    if (buffer == nullptr || size < BMC_ADDRESS_SIZE)
        return platform_status_from_errno(EINVAL);
    buffer[0] = '\0';
    const char *setting = std::getenv("ATTEST_BMC_ADDRESS");
    if (setting == nullptr)
        setting = "169.254.0.17";
    if (std::strcmp(setting, "none") == 0)
        return platform_status_from_errno(ENODEV);
    in_addr address{};
    if (inet_pton(AF_INET, setting, &address) != 1)
        return platform_status_from_errno(EINVAL);
    inet_ntop(AF_INET, &address, buffer, BMC_ADDRESS_SIZE);
    return 0;
}
