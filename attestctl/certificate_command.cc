#include <array>

#include "attestctl/certificate_names.h"
#include "attestctl/output.h"
#include "attestctl/verdict.h"

int run_certificate(const settings &chosen, client &c)
{
    chosen_roots roots;
    const std::optional<std::string> nonce = choose_nonce(chosen);
    if (!nonce || !read_chosen_roots(chosen, roots))
        return EXIT_USAGE;
    evidence got;
    const bool is_identity = chosen.cert_name == IDENTITY_NAME;
    api::get_certificate_request &request = is_identity ? got.identity_request : got.attestation_key_request;
    api::get_certificate_response &answer = is_identity ? got.identity : got.attestation_key;
    if (chosen.cert_name)
        request.set_cert_name(*chosen.cert_name);
    request.set_nonce(*nonce);
    const ask_result result = ask(c, request, answer);
    if (const int status = show(chosen, result, answer, "certificates"); status != EXIT_DONE)
        return status;
    static constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key};
    return conclude(chosen, c, got, std::span(SUBJECTS).first(is_identity ? 1 : 2), roots);
}
