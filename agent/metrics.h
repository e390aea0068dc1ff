// What the agent's rooms count (platform/metrics.h). Ground floor: the sources are counted where they fail.
#pragma once

#include <cstdint>

// A source that gave nothing: of which operation (as the contract names it), the node itself or the BMC, and
// with which status.
inline constexpr const char *SOURCE_NODE = "node";
inline constexpr const char *SOURCE_BMC = "bmc";
void count_source(const char *operation, const char *source, std::uint32_t status);

// An answer in which no source has anything.
void count_empty_answer(const char *operation);

// A transfer to or from the BMC that failed, with libcurl's code.
void count_bmc_error(int code);

// How many events the kernel's list had when it was last read to its end.
void note_list_length(std::uint64_t events);

// A system message that was raised.
void count_system_message(const char *mnemonic);
