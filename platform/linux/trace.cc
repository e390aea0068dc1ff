// The writer's side of the trace: rings and the flag table, both shared with attest-trace through files in
// the run directory (trace_ring_format.h, trace_flag_table.h).
#include "platform/trace.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "platform/linux/trace_file.h"
#include "platform/linux/trace_flag_table.h"
#include "platform/linux/trace_ring_format.h"
#include "platform/setting_list.h"
#include "platform/status.h"

struct trace_buffer {
    trace_file file;
    trace_ring_header *header = nullptr;
    trace_word *words = nullptr;
    std::uint64_t word_mask = 0; // count of words, less one
};

namespace {

// ---- who writes ----

// Asking the kernel for both would cost as much as formatting the line, so they are kept. The handler below
// renews them in a forked child, which has but one thread.
std::atomic<std::uint32_t> process_id;
thread_local constinit std::uint32_t thread_id = 0;

void note_process()
{
    process_id.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
    thread_id = 0;
}

void watch_for_forks()
{
    static const int registered = pthread_atfork(nullptr, nullptr, note_process);
    static_cast<void>(registered);
    note_process();
}

std::uint64_t writer_word(std::size_t length, bool cut)
{
    if (thread_id == 0)
        thread_id = static_cast<std::uint32_t>(gettid());
    return trace_writer_word({process_id.load(std::memory_order_relaxed), thread_id, length, cut});
}

// ---- the ring ----

std::string ring_file_name(const char *buffer_name)
{
    return std::string(TRACE_RING_FILE_PREFIX) + buffer_name;
}

constexpr std::size_t BUFFER_NAME_MAX = 64;

bool plain_name(std::string_view name, std::size_t longest)
{
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return !name.empty() && name.size() <= longest &&
           name.find_first_not_of(allowed) == std::string_view::npos;
}

bool recognise_ring(const void *memory, std::size_t size)
{
    return trace_ring_recognised(*static_cast<const trace_ring_header *>(memory), size);
}

void initialise_ring(trace_ring_header &header, std::size_t data_size)
{
    header.version = TRACE_RING_VERSION;
    header.header_size = TRACE_RING_HEADER_SIZE;
    header.data_size = data_size;
    header.head.store(data_size);
    std::atomic_ref(header.magic).store(TRACE_RING_MAGIC);
}

// The coarse clock has the kernel's tick (1 to 10 ms). The fine one costs nearly as much as formatting a
// short line, and lines keep their order without it.
std::uint64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// The first word of the cell at `position`. Cells do not run over the end of the data.
trace_word *cell_at(const trace_buffer &buffer, std::uint64_t position)
{
    return &buffer.words[(position / 8) & buffer.word_mask];
}

// Two words that the processor moves at once; their store is two atomic ones for everybody who looks. The
// language has no name for that, and single words made long lines a fifth dearer.
typedef std::uint64_t word_pair __attribute__((vector_size(16), may_alias, aligned(8)));

// Copies the text's cells and gives their sums. A writer that slept for a whole lap may meet another one in
// these stores: the checksum is there to tell, so the thread sanitizer need not.
__attribute__((no_sanitize("thread"))) trace_checksum
put_text(const trace_buffer &buffer, std::uint64_t position, const char *text, std::size_t cells)
{
    word_pair sums[2] = {};
    word_pair sums_of_sums[2] = {};
    for (std::size_t cell = 0; cell < cells; ++cell, text += TRACE_CELL_SIZE, position += TRACE_CELL_SIZE) {
        auto *to = reinterpret_cast<word_pair *>(cell_at(buffer, position));
        for (std::size_t half = 0; half < 2; ++half) {
            word_pair words;
            std::memcpy(&words, text + 16 * half, sizeof words);
            sums[half] += words;
            sums_of_sums[half] += sums[half];
            to[half] = words;
        }
    }
    return {{sums[0][0], sums[0][1], sums[1][0], sums[1][1]},
            {sums_of_sums[0][0], sums_of_sums[0][1], sums_of_sums[1][0], sums_of_sums[1][1]}};
}

// `text` has room for a cell behind its `length` bytes.
void append_record(const trace_buffer &buffer, char *text, std::size_t length, bool cut)
{
    std::memset(text + length, 0xFF, TRACE_CELL_SIZE);
    const std::size_t cells = trace_text_cells(length);
    const std::size_t size = (1 + cells) * TRACE_CELL_SIZE;
    const std::uint64_t time = now_ns();
    const std::uint64_t writer = writer_word(length, cut);
    const std::uint64_t position = buffer.header->head.fetch_add(size, std::memory_order_relaxed);
    const std::uint64_t sequence =
        buffer.header->sequence.fetch_add(1, std::memory_order_relaxed) & 0xFFFFFFFF;

    const trace_checksum text_sums = put_text(buffer, position + TRACE_CELL_SIZE, text, cells);
    const std::uint32_t checksum = text_sums.value(position, sequence, time, writer);
    trace_word *first = cell_at(buffer, position);
    first[TRACE_WORD_CHECK].store(checksum | sequence << 32, std::memory_order_relaxed);
    first[TRACE_WORD_TIME].store(time, std::memory_order_relaxed);
    first[TRACE_WORD_WRITER].store(writer, std::memory_order_relaxed);
    first[TRACE_WORD_POSITION].store(position, std::memory_order_release);
}

// ---- flags ----

// The table of this process: mapped while it has flags.
struct flag_registry {
    std::mutex lock;
    trace_file file;
    std::size_t count = 0;

    trace_flag_table &table() { return *static_cast<trace_flag_table *>(file.memory()); }
};

flag_registry &registry()
{
    static flag_registry instance;
    return instance;
}

bool recognise_flags(const void *memory, std::size_t)
{
    return trace_flag_table_valid(*static_cast<const trace_flag_table *>(memory));
}

// Flags of an earlier process are dropped: each start takes its switches from its environment.
std::uint32_t open_flags(flag_registry &flags)
{
    if (std::uint32_t status = flags.file.open(TRACE_FLAGS_FILE, TRACE_FLAGS_FILE_SIZE, recognise_flags))
        return status;
    trace_flag_table &table = flags.table();
    for (trace_flag_slot &slot : table.slots)
        slot.in_use.store(0);
    table.version = TRACE_FLAGS_VERSION;
    table.capacity = TRACE_FLAGS_MAX;
    table.writer.store(static_cast<std::uint32_t>(getpid()));
    std::atomic_ref(table.magic).store(TRACE_FLAGS_MAGIC);
    return 0;
}

// What ATTEST_TRACE says of a flag. Empty counts as not set.
bool starts_on(std::string_view name)
{
    const char *setting = std::getenv("ATTEST_TRACE");
    std::string_view list = setting == nullptr || *setting == '\0' ? "all" : setting;
    while (!list.empty()) {
        const std::string_view item = take_setting_item(list);
        if (item == "all" || item == name)
            return true;
    }
    return false;
}

trace_flag_slot *slot_of(flag_registry &flags, const trace_flag *flag)
{
    if (flags.count == 0)
        return nullptr;
    for (trace_flag_slot &slot : flags.table().slots) {
        if (&slot.flag == flag && slot.in_use.load() != 0)
            return &slot;
    }
    return nullptr;
}

std::uint32_t index_of(trace_flag_table &table, const trace_flag_slot *slot)
{
    return slot == nullptr ? TRACE_FLAG_NO_PARENT : static_cast<std::uint32_t>(slot - table.slots.data());
}

// A flag that is named in ATTEST_TRACE switches on what it depends on, or naming it would do nothing.
void switch_on_with_parents(trace_flag_table &table, trace_flag_slot &slot)
{
    slot.own.store(1);
    std::uint32_t parent = slot.parent.load();
    // No chain is longer than the table, even in one that was damaged meanwhile.
    for (std::size_t step = 0; step < table.slots.size() && parent < table.slots.size(); ++step) {
        table.slots[parent].own.store(1);
        parent = table.slots[parent].parent.load();
    }
}

std::uint32_t register_flag(flag_registry &flags, trace_flag **flag, std::string_view name,
                            trace_flag *parent)
{
    trace_flag_table &table = flags.table();
    trace_flag_slot *parent_slot = slot_of(flags, parent);
    if (parent != nullptr && parent_slot == nullptr)
        return platform_status_from_errno(EINVAL);
    if (trace_flag_find(table, name) != nullptr)
        return platform_status_from_errno(EEXIST);
    auto slot = std::ranges::find_if(table.slots, [](const auto &entry) { return entry.in_use.load() == 0; });
    if (slot == table.slots.end())
        return platform_status_from_errno(ENOSPC);
    slot->name = {};
    std::ranges::copy(name, slot->name.begin());
    slot->parent.store(index_of(table, parent_slot));
    slot->own.store(0);
    if (starts_on(name))
        switch_on_with_parents(table, *slot);
    slot->in_use.store(1);
    trace_flags_changed(table);
    ++flags.count;
    *flag = &slot->flag;
    return 0;
}

} // namespace

std::uint32_t trace_buffer_init(trace_buffer **buffer, const char *name, std::uint32_t options,
                                std::size_t size)
{
    if (buffer == nullptr)
        return platform_status_from_errno(EINVAL);
    *buffer = nullptr;
    if (name == nullptr || !plain_name(name, BUFFER_NAME_MAX) || options != 0 || !std::has_single_bit(size) ||
        size < TRACE_RING_SIZE_MIN || size > TRACE_RING_SIZE_MAX)
        return platform_status_from_errno(EINVAL);
    auto opened = std::unique_ptr<trace_buffer>(new (std::nothrow) trace_buffer);
    if (!opened)
        return platform_status_from_errno(ENOMEM);
    if (std::uint32_t status =
            opened->file.open(ring_file_name(name).c_str(), TRACE_RING_HEADER_SIZE + size, recognise_ring))
        return status;
    watch_for_forks();
    auto *memory = static_cast<std::byte *>(opened->file.memory());
    opened->header = reinterpret_cast<trace_ring_header *>(memory);
    opened->words = reinterpret_cast<trace_word *>(memory + TRACE_RING_HEADER_SIZE);
    opened->word_mask = size / 8 - 1;
    if (opened->file.is_new())
        initialise_ring(*opened->header, size);
    opened->header->writer.store(process_id.load());
    *buffer = opened.release();
    return 0;
}

std::uint32_t trace_buffer_close(trace_buffer **buffer)
{
    if (buffer == nullptr || *buffer == nullptr)
        return platform_status_from_errno(EINVAL);
    // The handle goes first, for the sake of a signal handler that traces now.
    std::unique_ptr<trace_buffer> closing(std::exchange(*buffer, nullptr));
    std::atomic_signal_fence(std::memory_order_seq_cst);
    closing->header->writer.store(0);
    return 0;
}

std::uint32_t trace_flag_init(trace_flag **flag, const char *name, trace_flag *parent, std::uint32_t,
                              std::uint32_t)
{
    if (flag == nullptr)
        return platform_status_from_errno(EINVAL);
    *flag = nullptr;
    if (name == nullptr || !plain_name(name, TRACE_FLAG_NAME_SIZE - 1))
        return platform_status_from_errno(EINVAL);
    flag_registry &flags = registry();
    std::lock_guard guard(flags.lock);
    if (flags.count == 0) {
        if (std::uint32_t status = open_flags(flags))
            return status;
    }
    std::uint32_t status = register_flag(flags, flag, name, parent);
    if (flags.count == 0)
        flags.file.close();
    return status;
}

std::uint32_t trace_flag_destroy(trace_flag **flag)
{
    flag_registry &flags = registry();
    std::lock_guard guard(flags.lock);
    trace_flag_slot *slot = flag == nullptr ? nullptr : slot_of(flags, *flag);
    if (slot == nullptr)
        return platform_status_from_errno(EINVAL);
    *flag = nullptr;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    trace_flag_table &table = flags.table();
    std::uint32_t index = index_of(table, slot);
    for (trace_flag_slot &child : table.slots) {
        if (child.parent.load() == index)
            child.parent.store(slot->parent.load());
    }
    slot->in_use.store(0);
    slot->flag.effective.store(0);
    trace_flags_changed(table);
    if (--flags.count == 0)
        flags.file.close();
    return 0;
}

// vsnprintf takes no lock and allocates nothing in glibc for conversions without floating point, positional
// arguments, wide characters, or widths and precisions over a thousand; so neither does this.
void trace_log(trace_flag *flag, trace_buffer *buffer, std::uint32_t *site_state, const char *format, ...)
{
    if (!trace_flag_enabled(flag) || buffer == nullptr)
        return;
    const int saved_errno = errno;
    char text[TRACE_TEXT_MAX + TRACE_CELL_SIZE]; // not initialised: clearing it would cost more than the line
    va_list arguments;
    va_start(arguments, format);
    int wanted = std::vsnprintf(text, TRACE_TEXT_MAX + 1, format, arguments);
    va_end(arguments);
    if (wanted < 0) // a wide character that cannot be converted: the format at least names the site
        wanted = std::snprintf(text, TRACE_TEXT_MAX + 1, "%s", format);
    std::size_t length = static_cast<std::size_t>(wanted);
    const bool cut = length > TRACE_TEXT_MAX;
    if (cut) {
        length = TRACE_TEXT_MAX;
        std::memcpy(text + length - (sizeof TRACE_CUT_MARK - 1), TRACE_CUT_MARK, sizeof TRACE_CUT_MARK - 1);
    }
    std::atomic_ref(*site_state).fetch_add(1, std::memory_order_relaxed);
    append_record(*buffer, text, length, cut);
    errno = saved_errno;
}
