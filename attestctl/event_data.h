// The data of a boot event, decoded where a person can read it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Lines that say what the data is; at least one, each fit for a terminal and without a line break. Data that
// does not fit the layout of its type is shown as text or bytes, with a word that says so. The number of
// lines is bounded, whatever the data claims.
std::vector<std::string> event_data_lines(std::uint32_t type, std::string_view data);
