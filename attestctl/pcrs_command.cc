#include <array>

#include "attestctl/output.h"
#include "attestctl/verdict.h"

int run_pcrs(const settings &chosen, client &c)
{
    chosen_roots roots;
    const std::optional<std::string> nonce = choose_nonce(chosen);
    if (!nonce || !read_chosen_roots(chosen, roots))
        return EXIT_USAGE;
    evidence got;
    got.pcrs_request.mutable_pcr_indices()->Assign(chosen.pcrs.begin(), chosen.pcrs.end());
    got.pcrs_request.set_nonce(*nonce);
    const ask_result result = ask(c, got.pcrs_request, got.pcrs);
    if (const int status = show(chosen, result, got.pcrs, "PCR values"); status != EXIT_DONE)
        return status;
    static constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key, subject::quote};
    return conclude(chosen, c, got, SUBJECTS, roots);
}
