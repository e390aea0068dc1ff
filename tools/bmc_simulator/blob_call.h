// The action get_blob: three strings in, a record out.
#pragma once

#include <string>

#include "tools/bmc_simulator/evidence_node.h"

// A call as its body says it.
struct blob_call {
    unsigned operation = 0;
    std::string node_name;
    std::string request; // encoded
};

// Why the body is refused; empty: `call` holds it.
std::string read_blob_call(const std::string &body, blob_call &call);

// Has the node answer the call; `record` gets its first record, encoded anew by the message library. Why not;
// empty: done. No text has a comma or a quote.
std::string answer_blob_call(const blob_call &call, evidence_node &node, std::string &record);
