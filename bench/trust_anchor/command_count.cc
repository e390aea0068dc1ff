#include "bench/trust_anchor/command_count.h"

#include <cstdio>
#include <map>
#include <numeric>

#include "agent/agent_state.h"
#include "agent/status.h"
#include "trust_anchor/certificate_chain.h"
#include "trust_anchor/local_init.h"
#include "trust_anchor/pcr_quote.h"

namespace {

std::map<int, int> sent; // how often, by command code

kov_status counted_send(void *channel, const std::uint8_t *command, std::uint32_t length)
{
    ++sent[command[8] << 8 | command[9]];
    return kov_linux_ipc_send(channel, command, length);
}

// As the agent starts, but for the callback that counts.
bool start_counting()
{
    if (attestation_local_init() != ATTEST_OK)
        return false;
    kovc_release_context(&at_agent_state.client_context);
    return kov_register_ipc_cb(kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                               kov_linux_ipc_close, counted_send, kov_linux_ipc_receive) == KOV_SUCCESS &&
           kovc_init_context(&at_agent_state.client_context, KOV_LOGIN_USER, 0) == KOV_SUCCESS;
}

// Twice: the first time keys are resolved.
template <class Request, class Record>
bool count(const char *what, std::uint32_t (*operation)(const Request *, Record *), const Request &request)
{
    for (int i = 0; i < 2; ++i) {
        sent.clear();
        owned_message<Record> record;
        if (operation(&request, record.get()) != ATTEST_OK)
            return false;
    }
    const int total = std::accumulate(sent.begin(), sent.end(), 0,
                                      [](int sum, const auto &entry) { return sum + entry.second; });
    std::printf("%-44s %d TPM commands:", what, total);
    for (const auto &[code, times] : sent)
        std::printf(" %d x 0x%03X", times, static_cast<unsigned>(code));
    std::printf("\n");
    return true;
}

} // namespace

bool print_command_counts()
{
    std::uint8_t nonce[32] = {};
    std::uint32_t indices[24];
    std::iota(std::begin(indices), std::end(indices), 0);
    attest_pcr_request pcrs{};
    pcrs.present = pcrs.has_pcr_indices | pcrs.has_nonce;
    pcrs.pcr_indices = {indices, std::size(indices)};
    pcrs.nonce = {nonce, sizeof nonce};
    get_certificate_request certificate{};
    certificate.present = certificate.has_nonce;
    certificate.nonce = {nonce, sizeof nonce};
    const bool counted = start_counting() && count("attest_pcrs, 24 PCRs", attestation_attest_pcrs, pcrs) &&
                         count("get_certificate, with nonce", attestation_get_certchain, certificate);
    kovc_release_context(&at_agent_state.client_context);
    return counted;
}
