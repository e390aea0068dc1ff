// A run directory of its own for each test, and what the tests of the trace read from it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/trace.h"
#include "tools/attest_trace/ring_reader.h"

class run_directory_fixture : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "run.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
        setenv("ATTEST_RUN_DIR", directory.c_str(), 1);
        unsetenv("ATTEST_TRACE");
    }
    void TearDown() override
    {
        unsetenv("ATTEST_RUN_DIR");
        std::filesystem::remove_all(directory);
    }

    std::string path(const std::string &name) const { return directory + "/" + name; }

    // All whole lines of the buffer. Their fates stand in the entries.
    std::vector<trace_entry> entries(const std::string &buffer = "test") const
    {
        std::vector<trace_entry> found;
        ring_reader ring;
        std::string problem = ring.open(path("trace-" + buffer));
        EXPECT_EQ(problem, "");
        trace_entry entry;
        for (ring_read result{}; problem.empty() && (result = ring.next(entry)) != ring_read::end;) {
            if (result == ring_read::entry)
                found.push_back(entry);
            else
                ring.skip_unfinished();
        }
        return found;
    }

    std::vector<std::string> lines(const std::string &buffer = "test") const
    {
        std::vector<std::string> found;
        for (const trace_entry &entry : entries(buffer))
            found.push_back(entry.text);
        return found;
    }

    std::string directory;
};
