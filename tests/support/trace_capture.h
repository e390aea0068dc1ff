// A debug trace that a test can read: it stands in for the platform's trace (the lines go to memory instead
// of the ring), for tests of what is traced. Link attest_trace_capture before the room under test.
#pragma once

#include <string>
#include <vector>

// The lines since the last clear, as the ring would have them.
extern std::vector<std::string> trace_captured;

// While true, no flag is on: no line is captured and no argument may be rendered.
void trace_capture_switch_off(bool off);

// Whether a captured line equals / contains the text.
bool trace_has(const std::string &line);
bool trace_has_part(const std::string &part);
