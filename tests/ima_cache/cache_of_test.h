// A cache on a machine of the test's own (tests/support/own_machine), with small blocks.
#pragma once

#include <cstdint>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "ima_cache/cache_context.h"
#include "tests/ima_cache/source_list.h"

// The system messages raised since the start of the test: mnemonic, ": ", argument.
extern std::vector<std::string> messages_raised;

class cache_of_test : public testing::Test {
protected:
    static constexpr std::uint64_t CHUNKS = 3; // in a block

    cache_of_test();
    ~cache_of_test() override;

    static void reboot();
    static std::int32_t restart() { return at_ima_cache_init(); }
    // Offers `chunks` chunks behind the last event; all must be taken.
    static void append(unsigned chunks);
    // What is served is the source up to this event, no more and no less.
    static void expect_events(std::uint64_t last_event);

    static std::string path_of(unsigned index);
    static std::vector<std::uint8_t> read_block(unsigned index);
    static cache_block_hdr header_of(unsigned index);
    static sha256_digest hash_of(const sha256_digest &previous, const std::vector<std::uint8_t> &block);
    // Changes the file behind the cache's back.
    static void write_block(unsigned index, const std::vector<std::uint8_t> &bytes);
    static void damage_block(unsigned index, std::size_t place, unsigned bits = 1);
    // Writes it with the hash put right.
    static void write_block_with_hash(unsigned index, std::vector<std::uint8_t> bytes);

    // The cache as it lies on the machine, to come back to.
    struct saved_cache {
        std::vector<std::vector<std::uint8_t>> blocks;
        ima_cache_meta meta;
    };
    static saved_cache save(unsigned blocks);
    static void put_back(const saved_cache &saved);
};
