#include "attestctl/output.h"

int run_certificate(const settings &chosen, client &c)
{
    const std::optional<std::string> nonce = choose_nonce(chosen);
    if (!nonce)
        return EXIT_USAGE;
    api::get_certificate_request request;
    if (chosen.cert_name)
        request.set_cert_name(*chosen.cert_name);
    request.set_nonce(*nonce);
    api::get_certificate_response answer;
    const ask_result result = ask(c, request, answer);
    return show(chosen, result, answer, "certificates");
}
