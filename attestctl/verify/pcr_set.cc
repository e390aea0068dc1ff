#include "attestctl/verify/pcr_set.h"

std::string pcr_text(const pcr_set &pcrs)
{
    if (pcrs.none())
        return "no PCR";
    std::string out;
    for (std::size_t first = 0; first < pcrs.size(); ++first) {
        if (!pcrs[first])
            continue;
        std::size_t last = first;
        while (last + 1 < pcrs.size() && pcrs[last + 1])
            ++last;
        out += (out.empty() ? " " : ", ") + std::to_string(first);
        if (last > first)
            out += '-' + std::to_string(last);
        first = last;
    }
    return (pcrs.count() == 1 ? "PCR" : "PCRs") + out;
}
