#include <gtest/gtest.h>

#include "agent/server_start.h"
#include "tests/support/trace_capture.h"

// The handle cannot be created without an event manager: nothing is registered on it, that failure is not
// traced, and the activation of what is not there fails cleanly.
TEST(server_start, WithoutAHandleTheActivationFails)
{
    trace_captured.clear();
    attestation_agent_server_start(nullptr, "rat_agent_test");
    EXPECT_EQ(at_server_handle, nullptr);
    ASSERT_EQ(trace_captured.size(), 1U);
    EXPECT_EQ(trace_captured[0],
              "attestation_agent_server_start(): Failed instcmd CAPI server start: Invalid argument");
}
