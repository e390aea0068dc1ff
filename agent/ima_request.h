// What both IMA handlers read of their request. A field that is absent is 0, whatever lies in it.
#pragma once

#include <cstdint>

#include "platform/messages.h"

inline std::uint64_t start_event_of(const get_platform_ima_event_logs_request &request)
{
    return request.present & request.has_start_event ? request.start_event : 0;
}

inline std::uint64_t event_count_of(const get_platform_ima_event_logs_request &request)
{
    return request.present & request.has_event_count ? request.event_count : 0;
}
