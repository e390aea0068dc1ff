// Preloaded into a program: lets allocations of the program's own code fail, those that its executable itself
// asks for and not those of the libraries. What headers of the C++ library have put into the executable is
// used by the libraries too: there the caller behind it counts. The file named by FAILING_ALLOCATOR, of
// struct allocator_control, is how a test governs it (tests/end_to_end/allocation_test.py).
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <unwind.h>

extern "C" {
// The C library's own.
void *__libc_malloc(std::size_t size);                    // NOLINT(bugprone-reserved-identifier)
void *__libc_calloc(std::size_t items, std::size_t size); // NOLINT(bugprone-reserved-identifier)
void *__libc_realloc(void *block, std::size_t size);      // NOLINT(bugprone-reserved-identifier)
void __libc_free(void *block);                            // NOLINT(bugprone-reserved-identifier)
}

namespace {

// Where a function that is not the program's own lies in the executable, as its symbols say.
struct code_range {
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t anybodys; // not 0: of the C++ library; 0: of another one
};

struct allocator_control {
    std::atomic<std::uint32_t> armed;
    std::uint32_t fail_at; // the number of the allocation, from 0
    std::atomic<std::uint32_t> asked;
    std::atomic<std::int32_t> live; // blocks that were got while armed and not freed since
    std::uint32_t for_ever;         // not 0: all from that one on
    std::uint32_t foreign_count;
    code_range foreign[8000]; // in ascending order
};

allocator_control *control;
std::uintptr_t program_base;
std::uintptr_t program_begin;
std::uintptr_t program_end;

// The blocks that are counted as live, by address; a full table loses some.
constexpr std::size_t SLOTS = 1 << 16;
std::array<std::atomic<void *>, SLOTS> blocks;

std::size_t slot_of(const void *block)
{
    return (reinterpret_cast<std::uintptr_t>(block) >> 4) * 2654435761u % SLOTS;
}

constexpr std::size_t PROBES = 64;

void *note(void *block)
{
    if (block == nullptr || control == nullptr || control->armed == 0)
        return block;
    for (std::size_t i = 0, slot = slot_of(block); i < PROBES; ++i, slot = (slot + 1) % SLOTS) {
        void *free_slot = nullptr;
        if (blocks[slot].compare_exchange_strong(free_slot, block)) {
            ++control->live;
            break;
        }
    }
    return block;
}

void forget(void *block)
{
    if (block == nullptr || control == nullptr || control->live == 0)
        return;
    for (std::size_t i = 0, slot = slot_of(block); i < PROBES; ++i, slot = (slot + 1) % SLOTS) {
        void *noted = block;
        if (blocks[slot].compare_exchange_strong(noted, nullptr)) {
            --control->live;
            return;
        }
    }
}

enum class owner { program, anybody, library };

owner owner_of(std::uintptr_t address)
{
    if (address < program_begin || address >= program_end)
        return owner::library;
    std::uintptr_t offset = address - program_base;
    const code_range *first = control->foreign;
    const code_range *after =
        std::upper_bound(first, first + control->foreign_count, offset,
                         [](std::uintptr_t at, const code_range &one) { return at < one.begin; });
    if (after == first || offset >= (after - 1)->end)
        return owner::program;
    return (after - 1)->anybodys != 0 ? owner::anybody : owner::library;
}

struct search {
    std::uintptr_t from; // the frame to begin with
    bool begun = false;
    owner found = owner::anybody;
};

_Unwind_Reason_Code look_at_frame(_Unwind_Context *frame, void *context)
{
    auto &wanted = *static_cast<search *>(context);
    std::uintptr_t address = _Unwind_GetIP(frame);
    wanted.begun = wanted.begun || address == wanted.from;
    if (wanted.begun)
        wanted.found = owner_of(address);
    return wanted.found == owner::anybody ? _URC_NO_REASON : _URC_END_OF_STACK;
}

bool is_programs(const void *caller)
{
    if (control == nullptr || control->armed == 0)
        return false;
    auto address = reinterpret_cast<std::uintptr_t>(caller);
    owner nearest = owner_of(address);
    if (nearest != owner::anybody)
        return nearest == owner::program;
    search behind{address};
    _Unwind_Backtrace(look_at_frame, &behind);
    return behind.found == owner::program;
}

bool fails()
{
    std::uint32_t number = control->asked++;
    return control->for_ever != 0 ? number >= control->fail_at : number == control->fail_at;
}

int find_program(dl_phdr_info *info, std::size_t, void *)
{
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto &part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
            program_base = info->dlpi_addr;
            program_begin = info->dlpi_addr + part.p_vaddr;
            program_end = program_begin + part.p_memsz;
        }
    }
    return 1; // the first is the program
}

[[gnu::constructor]] void begin()
{
    const char *path = std::getenv("FAILING_ALLOCATOR");
    int file = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0)
        return;
    dl_iterate_phdr(find_program, nullptr);
    void *mapped = mmap(nullptr, sizeof(allocator_control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (mapped != MAP_FAILED)
        control = static_cast<allocator_control *>(mapped);
}

void *allocate(std::size_t size, const void *caller)
{
    if (!is_programs(caller))
        return __libc_malloc(size);
    return fails() ? nullptr : note(__libc_malloc(size));
}

} // namespace

extern "C" {

void *malloc(std::size_t size)
{
    return allocate(size, __builtin_return_address(0));
}

void *calloc(std::size_t items, std::size_t size)
{
    if (!is_programs(__builtin_return_address(0)))
        return __libc_calloc(items, size);
    return fails() ? nullptr : note(__libc_calloc(items, size));
}

void *realloc(void *block, std::size_t size)
{
    bool counted = is_programs(__builtin_return_address(0));
    if (counted && fails())
        return nullptr;
    forget(block);
    void *moved = __libc_realloc(block, size);
    return counted ? note(moved) : moved;
}

void free(void *block)
{
    forget(block);
    __libc_free(block);
}

char *strdup(const char *text)
{
    std::size_t size = std::strlen(text) + 1;
    void *copy = allocate(size, __builtin_return_address(0));
    return copy != nullptr ? static_cast<char *>(std::memcpy(copy, text, size)) : nullptr;
}
}

void *operator new(std::size_t size)
{
    void *block = allocate(size, __builtin_return_address(0));
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size, __builtin_return_address(0));
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete(void *block, std::size_t) noexcept
{
    free(block);
}
