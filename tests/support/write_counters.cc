// Linked into an agent that counts what of it is reached: the signal that it raises against itself ends it
// without a word, so the counters are written before.
#include <csignal>

extern "C" void __gcov_dump();
extern "C" int __real_raise(int signal_number);

extern "C" int __wrap_raise(int signal_number)
{
    __gcov_dump();
    return __real_raise(signal_number);
}
