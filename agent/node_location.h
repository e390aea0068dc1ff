// Where evidence comes from: the node's name, which every record carries.
#pragma once

#include <cstddef>

#include "platform/owners.h"

// Bytes of a node's name with its NUL.
inline constexpr std::size_t NODE_NAME_SIZE = 32;

// The node's name in memory of its own, for a record to take over. Null, traced under the operation's name,
// when there is no memory or the platform gives no name.
malloc_ptr<char> allocate_node_location(const char *operation);
