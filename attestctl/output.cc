#include "attestctl/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "attestctl/nonce.h"

namespace {

// Of the first write that failed; 0: none has.
int write_error = 0;

} // namespace

void complain(std::string_view text)
{
    const std::string line = "attestctl: " + std::string(text) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void write_data(std::string_view data)
{
    if (write_error == 0 && std::fwrite(data.data(), 1, data.size(), stdout) != data.size())
        write_error = errno;
}

bool flush_data()
{
    if (write_error == 0 && std::fflush(stdout) != 0)
        write_error = errno;
    if (write_error != 0)
        complain(std::string("cannot write the output: ") + std::strerror(write_error));
    return write_error == 0;
}

std::optional<std::string> choose_nonce(const settings &chosen)
{
    if (chosen.nonce)
        return chosen.nonce;
    std::string nonce;
    if (fresh_nonce(nonce))
        return nonce;
    complain("no random bytes for a nonce");
    return std::nullopt;
}
