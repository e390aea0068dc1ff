#include "platform/linux/trace_flag_table.h"

#include <cstring>

namespace {

// A damaged table may have a ring of parents: more steps than slots end the walk.
bool switched_on(const trace_flag_table &table, const trace_flag_slot &slot)
{
    const trace_flag_slot *ancestor = &slot;
    for (std::size_t steps = 0; ancestor != nullptr && steps <= TRACE_FLAGS_MAX; ++steps) {
        if (ancestor->own.load() == 0)
            return false;
        ancestor = trace_flag_parent(table, *ancestor);
    }
    return true;
}

} // namespace

bool trace_flag_table_valid(const trace_flag_table &table)
{
    return table.magic == TRACE_FLAGS_MAGIC && table.version == TRACE_FLAGS_VERSION &&
           table.capacity == TRACE_FLAGS_MAX;
}

std::string_view trace_flag_name(const trace_flag_slot &slot)
{
    return {slot.name.data(), strnlen(slot.name.data(), slot.name.size())};
}

trace_flag_slot *trace_flag_find(trace_flag_table &table, std::string_view name)
{
    for (trace_flag_slot &slot : table.slots) {
        if (slot.in_use.load() != 0 && trace_flag_name(slot) == name)
            return &slot;
    }
    return nullptr;
}

const trace_flag_slot *trace_flag_parent(const trace_flag_table &table, const trace_flag_slot &slot)
{
    std::uint32_t parent = slot.parent.load();
    if (parent >= table.slots.size() || table.slots[parent].in_use.load() == 0)
        return nullptr;
    return &table.slots[parent];
}

void trace_flag_switch(trace_flag_table &table, trace_flag_slot &slot, bool on)
{
    slot.own.store(on ? 1 : 0);
    trace_flags_changed(table);
}

// Two processes may be at this at once, one with switches that the other has changed since. Each counts its
// change first and starts over when it was not the last, so that the last words written are right.
void trace_flags_changed(trace_flag_table &table)
{
    std::uint32_t change = table.changes.fetch_add(1) + 1;
    for (;;) {
        for (trace_flag_slot &slot : table.slots) {
            if (slot.in_use.load() != 0)
                slot.flag.effective.store(switched_on(table, slot) ? 1 : 0);
        }
        std::uint32_t now = table.changes.load();
        if (now == change)
            return;
        change = now;
    }
}
