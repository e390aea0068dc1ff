#include "attestctl/output.h"

int run_pcrs(const settings &chosen, client &c)
{
    const std::optional<std::string> nonce = choose_nonce(chosen);
    if (!nonce)
        return EXIT_USAGE;
    api::attest_pcr_request request;
    request.mutable_pcr_indices()->Assign(chosen.pcrs.begin(), chosen.pcrs.end());
    request.set_nonce(*nonce);
    api::attest_pcr_response answer;
    const ask_result result = ask(c, request, answer);
    return show(chosen, result, answer, "PCR values");
}
