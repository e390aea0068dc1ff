// A measurement list for tests that are not programs of ours: write_ima_list COUNT SEED, to stdout.
#include <cstdio>
#include <cstdlib>

#include "tests/support/ima_list.h"

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fputs("usage: write_ima_list COUNT SEED\n", stderr);
        return 2;
    }
    constexpr int decimal = 10;
    const std::string list = ima_list(std::strtoul(argv[1], nullptr, decimal),
                                      IMA_KIND_OLD | IMA_KIND_NG | IMA_KIND_SIG | IMA_KIND_LISTED,
                                      static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, decimal)));
    return std::fwrite(list.data(), 1, list.size(), stdout) == list.size() && std::fflush(stdout) == 0 ? 0
                                                                                                       : 1;
}
