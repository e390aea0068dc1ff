// The flags as they lie in the file "trace_flags" beside the rings, and what the agent and attest-trace both
// do with them.
//
//   byte 0     trace_flag_table's head, 64 bytes
//   byte 64    TRACE_FLAGS_MAX slots of 32 bytes
//
// Both sides map the file shared and change it by single words only; no lock is needed and none can be left
// behind by a process that dies.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/trace.h"

inline constexpr std::uint64_t TRACE_FLAGS_MAGIC = 0x5347414C46435254; // "TRCFLAGS"
inline constexpr std::uint32_t TRACE_FLAGS_VERSION = 1;
inline constexpr std::size_t TRACE_FLAGS_FILE_SIZE = 4096;
inline constexpr std::size_t TRACE_FLAGS_MAX = 64;
inline constexpr std::size_t TRACE_FLAG_NAME_SIZE = 16; // with its NUL
inline constexpr std::uint32_t TRACE_FLAG_NO_PARENT = 0xFFFFFFFF;
inline constexpr const char *TRACE_FLAGS_FILE = "trace_flags";

struct trace_flag_slot {
    trace_flag flag;                   // what the agent's lines look at
    std::atomic<std::uint32_t> own;    // the flag's own switch, 0 or 1
    std::atomic<std::uint32_t> parent; // index of the parent's slot, or TRACE_FLAG_NO_PARENT
    std::atomic<std::uint32_t> in_use; // set last when a flag is registered
    std::array<char, TRACE_FLAG_NAME_SIZE> name;
};

struct trace_flag_table {
    std::uint64_t magic; // written last when the file is made
    std::uint32_t version;
    std::uint32_t capacity;
    std::atomic<std::uint32_t> changes; // counts the changes of switches and parents
    std::atomic<std::uint32_t> writer;  // process id
    std::uint8_t reserved[40];
    std::array<trace_flag_slot, TRACE_FLAGS_MAX> slots;
};
static_assert(sizeof(trace_flag_slot) == 32 && offsetof(trace_flag_slot, flag) == 0);
static_assert(offsetof(trace_flag_slot, name) == 16);
static_assert(offsetof(trace_flag_table, slots) == 64 && sizeof(trace_flag_table) <= TRACE_FLAGS_FILE_SIZE);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "shared between processes");

// Whether the head is one that this program understands.
bool trace_flag_table_valid(const trace_flag_table &table);

std::string_view trace_flag_name(const trace_flag_slot &slot);

// The slot in use with that name, or null.
trace_flag_slot *trace_flag_find(trace_flag_table &table, std::string_view name);

// The parent's slot, or null; also null for a parent that is not in use (a damaged table).
const trace_flag_slot *trace_flag_parent(const trace_flag_table &table, const trace_flag_slot &slot);

// Sets a flag's own switch and with it what is effective for it and all below it.
void trace_flag_switch(trace_flag_table &table, trace_flag_slot &slot, bool on);

// Works out `effective` of every flag after a change of switches or parents.
void trace_flags_changed(trace_flag_table &table);
