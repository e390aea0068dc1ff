#include "agent/settings_check.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <syslog.h>

#include "agent/debug_trace.h"
#include "platform/bmc_address.h"
#include "platform/operator_log.h"
#include "platform/setting_list.h"
#include "platform/status.h"
#include "platform/trust_anchor_client.h"

namespace {

bool is_trace_flag(std::string_view name)
{
    return name == "all" || std::ranges::any_of(attest_dbg_flags, [name](const attest_dbg_flag_entry &entry) {
               return name == entry.name;
           });
}

void tell_wrong_trace_flags(std::string_view list)
{
    while (!list.empty()) {
        const std::string_view item = take_setting_item(list);
        if (!item.empty() && !is_trace_flag(item))
            operator_log(LOG_ERR, "ATTEST_TRACE: there is no flag \"%.*s\"",
                         static_cast<int>(std::min<std::size_t>(item.size(), 64)), item.data());
    }
}

} // namespace

void tell_wrong_settings()
{
    const std::uint32_t none = platform_status_from_errno(EINVAL);
    std::array<char, BMC_ADDRESS_SIZE> address{};
    if (platform_get_bmc_address(address.data(), address.size()) == none)
        operator_log(LOG_ERR, "ATTEST_BMC_ADDRESS is neither an IPv4 address in dotted form nor \"none\"");
    std::uint64_t device = 0;
    std::uint64_t info = 0;
    if (platform_get_kov_device_info(&device, &info) == none)
        operator_log(LOG_ERR, "ATTEST_TPM is neither device:PATH nor swtpm:path=SOCKET");
    const char *flags = std::getenv("ATTEST_TRACE");
    tell_wrong_trace_flags(flags != nullptr ? flags : "");
}
