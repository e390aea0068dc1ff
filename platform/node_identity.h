// Who this node is.
#pragma once

#include <cstddef>
#include <cstdint>

// Writes the node's name, NUL-terminated, into `buffer` of `size` bytes: ATTEST_NODE_NAME, or the host name,
// cut to fit. 0; or a platform status, with `buffer` an empty text: bytes other than printable ASCII, and an
// ATTEST_NODE_NAME that is empty or does not fit, are refused, not mended.
std::uint32_t platform_get_node_name(char *buffer, std::size_t size);

// ATTEST_NODE_ID, decimal; 0 when not set. 0 or a platform status.
std::uint32_t platform_get_my_nodeid(std::uint32_t *node_id);

// The node's internal IPv4 address in host byte order: ATTEST_NODE_ADDRESS, 127.0.0.1 when not set.
// 0 or a platform status.
std::uint32_t nodeid_to_InternalEtherIPAddr(std::uint32_t node_id, std::uint32_t *address);
