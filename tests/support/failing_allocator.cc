// Preloaded into a program: lets allocations of the program's own code fail, those that its executable itself
// asks for and not those of the libraries. The file named by FAILING_ALLOCATOR, of struct allocator_control,
// is how a test governs it (tests/end_to_end/allocation_test.py).
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

extern "C" {
// The C library's own.
void *__libc_malloc(std::size_t size);                    // NOLINT(bugprone-reserved-identifier)
void *__libc_calloc(std::size_t items, std::size_t size); // NOLINT(bugprone-reserved-identifier)
void *__libc_realloc(void *block, std::size_t size);      // NOLINT(bugprone-reserved-identifier)
void __libc_free(void *block);                            // NOLINT(bugprone-reserved-identifier)
}

namespace {

struct allocator_control {
    std::atomic<std::uint32_t> armed;
    std::uint32_t fail_at; // the number of the allocation, from 0
    std::atomic<std::uint32_t> asked;
    std::atomic<std::int32_t> live; // blocks that were got while armed and not freed since
};

allocator_control *control;
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

bool is_programs(const void *caller)
{
    auto address = reinterpret_cast<std::uintptr_t>(caller);
    return control != nullptr && control->armed != 0 && address >= program_begin && address < program_end;
}

bool fails()
{
    return control->asked++ == control->fail_at;
}

int find_program(dl_phdr_info *info, std::size_t, void *)
{
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto &part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
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
