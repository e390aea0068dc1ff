// What attestations of nodes leave for later ones: how far lists were verified (--state), and what nodes were
// like (--pin).
#pragma once

#include <span>
#include <string>
#include <vector>

#include "attestctl/options.h"
#include "attestctl/pins.h"
#include "attestctl/state.h"
#include "attestctl/verdict.h"

// Of the files that the user named.
struct attest_memory {
    bool keeps_lists = false, keeps_pins = false;
    verified_lists state;
    node_pins pins;
};

// False, and `error` has one line.
bool read_memory(const settings &chosen, attest_memory &into, std::string &error);

// What the list of the node is asked for after.
std::vector<remembered_list> recall_lists(const attest_memory &memory, const std::string &target);

// Whether the node is pinned.
bool is_pinned(const attest_memory &memory, const std::string &target);

// The roots that evidence of the node is judged by: those, or what the pins say of them.
chosen_roots roots_for(const attest_memory &memory, const std::string &target, const chosen_roots &roots);

// Adds the rows of the node's pins.
void check_memory(std::vector<check> &rows, const attest_memory &memory, const std::string &target,
                  const evidence &got);

// What is to be kept of one node.
struct node_memory {
    std::string target;
    bool verified = false; // else nothing of it is kept
    std::vector<remembered_list> lists;
    std::vector<pinned_source> pins;
};
node_memory memory_of(const std::string &target, const evidence &got, std::span<const check> checks);

// Keeps it; pins only of a node that has none. True when it was pinned.
bool keep(attest_memory &memory, node_memory &&node);

// Replaces the files. False, and `error` has one line.
bool write_memory(attest_memory &memory, std::string &error);
