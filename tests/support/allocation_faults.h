// The allocations of the code under test, made to fail at will. The program is linked with malloc, calloc,
// realloc, free, strdup, fopen and getenv wrapped, so what the C and C++ libraries allocate for themselves
// does not count.
#pragma once

#include <cstddef>

// While it lives, allocation number `fail_at` (from 0) fails, and with `from_then_on` all later ones too. It
// also keeps account of the blocks allocated under it.
class allocation_faults {
public:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    explicit allocation_faults(std::size_t fail_at = none, bool from_then_on = false);
    ~allocation_faults();
    allocation_faults(const allocation_faults &) = delete;
    allocation_faults &operator=(const allocation_faults &) = delete;

    static std::size_t asked(); // allocations asked for so far
    static std::size_t live();  // blocks not freed yet
};

// What fopen opens for "/proc/uptime"; null: the real file.
extern const char *uptime_file;

// The environment variable that getenv finds empty after `readings` more readings. A null name: none.
struct lost_variable {
    const char *name;
    int readings;
};
extern lost_variable losing_variable;
