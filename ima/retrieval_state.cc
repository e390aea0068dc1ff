#include "ima/retrieval_state.h"

#include <sys/resource.h>

#include "agent/agent_state.h"
#include "agent/debug_trace.h"

// The usage begins with the peak as a number of KiB, on purpose, and grows by bytes: so the peak counts for
// little against the limit and what this retrieval adds for all of it. The limit guards against one request
// that would not fit, not against a large process.
bool memory_allows(ima_retrieval &retrieval, const char *operation, std::uint64_t usage, std::uint64_t chunks)
{
    if (at_soft_data_limit - usage >= chunks * CHUNK_BYTES)
        return true;
    attest_trace_as(operation, "RLIMIT is hit");
    retrieval.status = ATTEST_ERR_NO_MEMORY;
    return false;
}

bool grow_events(ima_retrieval &retrieval, const char *operation, std::uint64_t chunks)
{
    if (retrieval.events.grow(chunks))
        return true;
    attest_trace_as(operation, "Failed to allocate event log");
    retrieval.status = ATTEST_ERR_NO_MEMORY;
    return false;
}

std::uint64_t peak_resident_set()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::uint64_t>(usage.ru_maxrss);
}
