#include "platform/linux/run_directory.h"

#include <cstdlib>

std::string run_directory()
{
    if (const char *setting = std::getenv("ATTEST_RUN_DIR"); setting != nullptr && *setting != '\0')
        return setting;
    if (const char *list = std::getenv("RUNTIME_DIRECTORY"); list != nullptr) {
        std::string first(list);
        first.resize(first.find(':') == std::string::npos ? first.size() : first.find(':'));
        if (!first.empty())
            return first;
    }
    return "/run/attestation_agent";
}
