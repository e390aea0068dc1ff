// Linked into every program that is built for the thread sanitizer: what it is not to take for a race, and
// how signals reach it.
#include <sys/epoll.h>

// Debian's gRPC, protobuf and abseil are not built for it. Their locks and hand-overs are not visible, so
// their allocations and system calls are no evidence.
extern "C" const char *__tsan_default_options()
{
    return "ignore_noninstrumented_modules=1";
}

// libsystemd is not built for it either: a signal that comes while that waits would be held back until our
// own code runs again. So it is our own code that waits.
extern "C" int epoll_wait(int descriptor, epoll_event *events, int most, int timeout_ms)
{
    return epoll_pwait(descriptor, events, most, timeout_ms, nullptr);
}

// Members of gRPC's objects whose inline code the linker took from a file that is instrumented. Our own code
// that runs on several threads has neither a std::function nor code that runs inside the others.
extern "C" const char *__tsan_default_suppressions()
{
    return "race:grpc::Status\n"
           "race:~ServerCallbackReaderWriterImpl\n"
           "race_top:std::_Function_base\n"
           "race_top:std::function\n"
           "race_top:std::swap<std::_Any_data>\n"
           "thread:grpc_core::Thread\n"; // that a program does not wait for at its end
}
