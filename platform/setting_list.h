// Settings that are lists: items with commas between them, and blanks around them that do not count.
#pragma once

#include <algorithm>
#include <string_view>

// Takes the first item and its comma off `list`, which is not empty. The item may be empty.
inline std::string_view take_setting_item(std::string_view &list)
{
    std::string_view item = list.substr(0, list.find(','));
    list.remove_prefix(std::min(item.size() + 1, list.size()));
    item.remove_prefix(std::min(item.find_first_not_of(' '), item.size()));
    return item.substr(0, item.find_last_not_of(' ') + 1);
}
