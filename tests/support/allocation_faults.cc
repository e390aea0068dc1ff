#include "tests/support/allocation_faults.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string_view>

const char *uptime_file;
lost_variable losing_variable;

namespace {

bool armed;
bool all_later_fail;
std::size_t failing;
std::size_t count;
std::set<void *> blocks;

bool next_fails()
{
    if (!armed)
        return false;
    std::size_t number = count++;
    return number == failing || (all_later_fail && number > failing);
}

void *note(void *block)
{
    if (armed && block != nullptr)
        blocks.insert(block);
    return block;
}

} // namespace

allocation_faults::allocation_faults(std::size_t fail_at, bool from_then_on)
{
    armed = true;
    all_later_fail = from_then_on;
    failing = fail_at;
    count = 0;
    blocks.clear();
}

allocation_faults::~allocation_faults()
{
    armed = false;
    blocks.clear();
}

std::size_t allocation_faults::asked()
{
    return count;
}

std::size_t allocation_faults::live()
{
    return blocks.size();
}

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t items, std::size_t size);
void *__real_realloc(void *block, std::size_t size);
void __real_free(void *block);
char *__real_strdup(const char *text);
char *__real_getenv(const char *name);
FILE *__real_fopen(const char *path, const char *mode);

void *__wrap_malloc(std::size_t size)
{
    return next_fails() ? nullptr : note(__real_malloc(size));
}

void *__wrap_calloc(std::size_t items, std::size_t size)
{
    return next_fails() ? nullptr : note(__real_calloc(items, size));
}

void *__wrap_realloc(void *block, std::size_t size)
{
    if (next_fails())
        return nullptr;
    blocks.erase(block);
    return note(__real_realloc(block, size));
}

void __wrap_free(void *block)
{
    blocks.erase(block);
    __real_free(block);
}

char *__wrap_strdup(const char *text)
{
    return next_fails() ? nullptr : static_cast<char *>(note(__real_strdup(text)));
}

char *__wrap_getenv(const char *name)
{
    static char empty[] = "";
    bool lost = losing_variable.name != nullptr && std::string_view(name) == losing_variable.name;
    return lost && losing_variable.readings-- <= 0 ? empty : __real_getenv(name);
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    bool redirected = uptime_file != nullptr && std::string_view(path) == "/proc/uptime";
    return __real_fopen(redirected ? uptime_file : path, mode);
}
}
// NOLINTEND(bugprone-reserved-identifier)
