// A boot event log of any bytes: the record that is made of it, and its dump in the trace.
#include <sys/mman.h>
#include <unistd.h>

#include "boot_log/event_log_reader.h"
#include "fuzz/fuzz_input.h"
#include "tests/support/trace_capture.h"

namespace {

// The log lies in a file of memory, for the life of the program.
int log_file()
{
    static const int file = [] {
        const int made = memfd_create("log", 0);
        static const std::string path = "/proc/self/fd/" + std::to_string(made);
        sb_log_name = path.c_str();
        return made;
    }();
    return file;
}

void write_log(const std::uint8_t *data, std::size_t size)
{
    require(ftruncate(log_file(), 0) == 0);
    require(pwrite(log_file(), data, size, 0) == static_cast<ssize_t>(size));
}

// No record says more than there is in the log.
void check(const NodeBootIntegrityLog &log, std::size_t size)
{
    std::uint64_t taken = 0;
    for (std::uint32_t i = 0; i < log.events.count; ++i) {
        const BOOT_EVENT &event = log.events.items[i];
        require(event.event_num == i + 1);
        for (std::uint32_t d = 0; d < event.digests.count; ++d)
            taken += event.digests.items[d].digest.length;
        taken += event.event_data.length;
    }
    require(taken <= size);
    require(message_encoded_size(log) > 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    write_log(data, size);
    trace_captured.clear();
    owned_message<NodeBootIntegrityLog> log;
    const std::uint32_t status = attestation_get_local_sb_event_logs(log.get());
    require(status == ATTEST_OK || status == ATTEST_ERR_BOOT_LOG_READ);
    if (status == ATTEST_OK)
        check(*log, size);
    else
        require(log->present == 0);
    return 0;
}
