#include "attestctl/attest_memory.h"

bool read_memory(const settings &chosen, attest_memory &into, std::string &error)
{
    into.keeps_lists = !chosen.state_file.empty();
    into.keeps_pins = !chosen.pin_file.empty();
    return (!into.keeps_lists || read_state(chosen.state_file, into.state, error)) &&
           (!into.keeps_pins || read_pins(chosen.pin_file, into.pins, error));
}

std::vector<remembered_list> recall_lists(const attest_memory &memory, const std::string &target)
{
    const auto found = memory.state.nodes.find(target);
    return found != memory.state.nodes.end() ? found->second : std::vector<remembered_list>();
}

bool is_pinned(const attest_memory &memory, const std::string &target)
{
    return memory.pins.nodes.contains(target);
}

chosen_roots roots_for(const attest_memory &memory, const std::string &target, const chosen_roots &roots)
{
    chosen_roots out = roots;
    if (const auto pins = memory.pins.nodes.find(target); pins != memory.pins.nodes.end())
        out.node.demanded_by_pins = pins_have_roots(pins->second);
    if (out.bmc)
        out.bmc->demanded_by_pins = out.node.demanded_by_pins;
    return out;
}

void check_memory(std::vector<check> &rows, const attest_memory &memory, const std::string &target,
                  const evidence &got)
{
    if (const auto pins = memory.pins.nodes.find(target); pins != memory.pins.nodes.end())
        check_pins(rows, pins->second, got);
}

node_memory memory_of(const std::string &target, const evidence &got, std::span<const check> checks)
{
    if (!all_passed(checks))
        return {target, false, {}, {}};
    return {target, true, lists_to_remember(got), pins_of(got)};
}

bool keep(attest_memory &memory, node_memory &&node)
{
    if (node.verified && memory.keeps_lists)
        memory.state.nodes[node.target] = std::move(node.lists);
    return node.verified && memory.keeps_pins &&
           memory.pins.nodes.emplace(node.target, std::move(node.pins)).second;
}

bool write_memory(attest_memory &memory, std::string &error)
{
    // Pins first: a position that was verified by pins that are lost would be worth less.
    return (!memory.keeps_pins || write_pins(memory.pins, error)) &&
           (!memory.keeps_lists || write_state(memory.state, error));
}
