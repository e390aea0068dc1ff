// A node that is provisioned and an agent that has started on it; what goes wrong is the test's to arrange.
#pragma once

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/tpm/manifest.h"
#include "tests/trust_anchor/tpm_relay.h"

// How often values and quote do not belong together, from now on.
extern int times_out_of_sync;

// What a request gave. What a record of its kind has to hold when it is whole has been looked at.
struct evidence {
    std::uint32_t status = 0;
    bool empty = true;
    bool quoted = false; // or signed
};

evidence ask_certificates(const char *name, std::size_t nonce_length = 20);
evidence ask_pcrs(std::vector<std::uint32_t> indices, std::size_t nonce_length = 20);
evidence ask_hw_integrity(std::size_t nonce_length = 20, std::uint32_t hash_algo = 1);

class operations_test : public testing::Test {
protected:
    operations_test() { restore(); }
    ~operations_test() override;

    // A provisioned node as it was at first, and the agent started on it.
    void restore();
    // What the agent does when it is started on a node as it is now.
    std::uint32_t start();

    manifest node();
    std::string object_path(const char *name);
    void without_key(const char *name);

    software_tpm tpm_{provisioned_tpm()};
    tpm_relay relay_{tpm_};
};
