// A node on loopback that answers with evidence of the forge, and attestctl as a user starts it.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <grpc/compression.h>

#include "tests/attestctl/evidence_forge.h"

// What a source of evidence is.
struct source_model {
    std::string name = "rack1";
    forged evidence = good_evidence(name);
    std::vector<api::IMA_EVENT> list;
    std::uint32_t resets = 3, restarts = 0;
    std::ptrdiff_t after_quote = 0; // the events at the end that came after the quote
};

// What a node is. Changed by a test while nobody asks.
struct node_model : source_model {
    std::vector<source_model> bmc;                   // one, or none
    bool endless = false;                            // the stream of the node's list goes on and on
    std::function<void()> meanwhile;                 // what else happens while the lists are asked for
    std::function<void(api::NodeIMAData &)> rewrite; // what it makes of messages of its list
};

class simulated_node {
public:
    // With this many addresses, all of the same node.
    explicit simulated_node(std::size_t addresses = 1,
                            grpc_compression_algorithm compression = GRPC_COMPRESS_NONE);
    ~simulated_node();

    node_model model;
    const std::vector<std::string> &targets() const;
    // The start events of the streams that were asked for since the last call; 0: from the begin.
    std::vector<std::uint64_t> asked();

private:
    struct parts;
    std::unique_ptr<parts> parts_;
};

struct outcome {
    int status;       // exit status
    std::string text; // standard output and, unless the words send it elsewhere, error output
};
// attestctl with these words for the shell.
outcome attestctl(const std::string &words);

std::string content_of(const std::string &path);
void write_content(const std::string &path, const std::string &content);
