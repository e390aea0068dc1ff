#include "attestctl/html/quote_facts.h"

#include <algorithm>

#include <tss2/tss2_mu.h>

#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"

quote_facts read_quote(const std::string &quote)
{
    quote_facts facts;
    TPMS_ATTEST attest{};
    std::size_t offset = 0;
    const auto *const bytes = reinterpret_cast<const std::uint8_t *>(quote.data());
    if (Tss2_MU_TPMS_ATTEST_Unmarshal(bytes, quote.size(), &offset, &attest) != TSS2_RC_SUCCESS ||
        offset != quote.size() || attest.type != TPM2_ST_ATTEST_QUOTE)
        return facts;
    facts.readable = true;
    facts.nonce.assign(reinterpret_cast<const char *>(attest.extraData.buffer), attest.extraData.size);
    facts.clock_ms = attest.clockInfo.clock;
    facts.resets = attest.clockInfo.resetCount;
    facts.restarts = attest.clockInfo.restartCount;
    facts.firmware = attest.firmwareVersion;
    const TPML_PCR_SELECTION &selection = attest.attested.quote.pcrSelect;
    for (std::uint32_t i = 0; i < selection.count; ++i) {
        const TPMS_PCR_SELECTION &one = selection.pcrSelections[i];
        const hash_algorithm *bank = hash_by_tpm_id(one.hash);
        facts.banks += (i == 0 ? "" : ", ") + (bank != nullptr ? bank->name : format("0x%04x", one.hash));
        for (std::uint32_t pcr = 0; pcr < 8U * std::min<std::size_t>(one.sizeofSelect, sizeof one.pcrSelect);
             ++pcr)
            if ((one.pcrSelect[pcr / 8] >> (pcr % 8) & 1) != 0)
                facts.pcrs.set(pcr);
    }
    return facts;
}
