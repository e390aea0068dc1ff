#include <array>

#include "attestctl/output.h"
#include "attestctl/verdict.h"

int run_hw_integrity(const settings &chosen, client &c)
{
    chosen_roots roots;
    const std::optional<std::string> nonce = choose_nonce(chosen);
    if (!nonce || !read_chosen_roots(chosen, roots))
        return EXIT_USAGE;
    evidence got;
    got.hw_integrity_request.set_nonce(*nonce);
    if (chosen.hash_algo)
        got.hw_integrity_request.set_hash_algo(*chosen.hash_algo);
    const ask_result result = ask(c, got.hw_integrity_request, got.hw_integrity);
    if (const int status = show(chosen, result, got.hw_integrity, "hardware digests"); status != EXIT_DONE)
        return status;
    static constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key, subject::hardware};
    return conclude(chosen, c, got, SUBJECTS, roots);
}
