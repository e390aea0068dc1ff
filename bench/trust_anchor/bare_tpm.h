// The bare TPM commands behind a request, by nothing but ESYS. The transport below is the agent's: it takes
// half the time of the TSS's own for swtpm, which would flatter the agent.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/tpm/connection.h"

class bare_tpm {
public:
    // The TPM at an address as ATTEST_TPM has it, provisioned as the manifest says. Ends the process when it
    // cannot be had.
    bare_tpm(const std::string &address, const std::string &manifest);

    // PCRs 0 to count - 1 of the SHA-256 bank, one by one, and a quote over them. False when the TPM refuses.
    bool read_and_quote(std::uint32_t count, std::span<const std::uint8_t> nonce);
    // What a login asks: whether the TPM was reset.
    bool read_clock();
    // SHA-256 over `data` and the device-identity key's signature.
    bool sign(std::span<const std::uint8_t> data);

private:
    ESYS_TR key(const std::string &manifest, const char *name);

    std::unique_ptr<tpm_connection> connection_;
    ESYS_CONTEXT *esys_ = nullptr; // the connection's
    ESYS_TR quoting_key_ = ESYS_TR_NONE;
    ESYS_TR signing_key_ = ESYS_TR_NONE;
};
