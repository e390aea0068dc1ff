#include "attestctl/output.h"

int run_hw_integrity(const settings &chosen, client &c)
{
    const std::optional<std::string> nonce = choose_nonce(chosen);
    if (!nonce)
        return EXIT_USAGE;
    api::get_platform_hw_integrity_request request;
    request.set_nonce(*nonce);
    if (chosen.hash_algo)
        request.set_hash_algo(*chosen.hash_algo);
    api::get_platform_hw_integrity_response answer;
    const ask_result result = ask(c, request, answer);
    return show(chosen, result, answer, "hardware digests");
}
