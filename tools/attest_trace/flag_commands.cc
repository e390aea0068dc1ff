#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "platform/linux/trace_file.h"
#include "platform/linux/trace_flag_table.h"
#include "platform/owners.h"
#include "tools/attest_trace/commands.h"

namespace {

class mapped_flags {
public:
    mapped_flags() = default;
    mapped_flags(const mapped_flags &) = delete;
    mapped_flags &operator=(const mapped_flags &) = delete;
    ~mapped_flags()
    {
        if (table_ != nullptr)
            munmap(table_, TRACE_FLAGS_FILE_SIZE);
    }

    // Without `writable` the table is only to be read. False when there is none, with the reason on stderr.
    bool open(const trace_place &place, bool writable)
    {
        const std::string path = place.run_directory + "/" + TRACE_FLAGS_FILE;
        fd_.reset(::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat file {};
        if (!fd_ || fstat(fd_.get(), &file) != 0)
            return refuse(path, strerrordesc_np(errno));
        if (!S_ISREG(file.st_mode) || file.st_size != static_cast<off_t>(TRACE_FLAGS_FILE_SIZE))
            return refuse(path, NOT_FLAGS);
        int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
        void *memory = mmap(nullptr, TRACE_FLAGS_FILE_SIZE, protection, MAP_SHARED, fd_.get(), 0);
        if (memory == MAP_FAILED)
            return refuse(path, strerrordesc_np(errno));
        table_ = static_cast<trace_flag_table *>(memory);
        return trace_flag_table_valid(*table_) || refuse(path, NOT_FLAGS);
    }

    bool agent_running() const { return trace_file_in_use(fd_.get()); }
    trace_flag_table &table() const { return *table_; }

private:
    static constexpr const char *NOT_FLAGS = "not a table of trace flags";
    static bool refuse(const std::string &path, const char *reason)
    {
        complain(path + ": " + reason);
        return false;
    }

    unique_fd fd_;
    trace_flag_table *table_ = nullptr;
};

const char *on_off(std::uint32_t value)
{
    return value != 0 ? "on" : "off";
}

} // namespace

int list_flags(const trace_place &place)
{
    mapped_flags flags;
    if (!flags.open(place, false))
        return EXIT_NOTHING;
    if (!flags.agent_running())
        std::fputs("attest-trace: no agent is running; the flags are those of the last one\n", stderr);
    std::printf("%-16s %-16s %-6s %s\n", "FLAG", "PARENT", "SWITCH", "EFFECTIVE");
    for (const trace_flag_slot &slot : flags.table().slots) {
        if (slot.in_use.load() == 0)
            continue;
        std::string name(trace_flag_name(slot));
        const trace_flag_slot *parent = trace_flag_parent(flags.table(), slot);
        std::string parent_name(parent == nullptr ? "-" : trace_flag_name(*parent));
        std::printf("%-16s %-16s %-6s %s\n", name.c_str(), parent_name.c_str(), on_off(slot.own.load()),
                    on_off(slot.flag.effective.load()));
    }
    return EXIT_DONE;
}

int switch_flag(const trace_place &place, const std::string &name, bool on)
{
    mapped_flags flags;
    if (!flags.open(place, true))
        return EXIT_NOTHING;
    if (!flags.agent_running())
        return complain("no agent is running in " + place.run_directory);
    trace_flag_slot *slot = trace_flag_find(flags.table(), name);
    if (slot == nullptr)
        return complain("the agent has no flag \"" + name + "\"");
    trace_flag_switch(flags.table(), *slot, on);
    if (on && slot->flag.effective.load() == 0)
        std::fprintf(stderr, "attest-trace: \"%s\" has no effect while a flag above it is off\n",
                     name.c_str());
    return EXIT_DONE;
}
