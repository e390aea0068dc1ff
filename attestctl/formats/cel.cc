#include "attestctl/formats/cel.h"

#include <array>
#include <vector>

#include <tss2/tss2_tpm2_types.h>

#include "attestctl/event_types.h"
#include "attestctl/formats/boot_log_layout.h"
#include "attestctl/formats/kernel.h"
#include "attestctl/json.h"
#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"
#include "attestctl/verify/ima_list.h"

namespace {

// Names of the TCG's algorithm registry.
struct algorithm_name {
    std::uint16_t tpm_id;
    const char *name;
};
constexpr std::array<algorithm_name, 8> ALGORITHMS = {{
    {TPM2_ALG_SHA1, "sha1"},
    {TPM2_ALG_SHA256, "sha256"},
    {TPM2_ALG_SHA384, "sha384"},
    {TPM2_ALG_SHA512, "sha512"},
    {TPM2_ALG_SM3_256, "sm3_256"},
    {TPM2_ALG_SHA3_256, "sha3_256"},
    {TPM2_ALG_SHA3_384, "sha3_384"},
    {TPM2_ALG_SHA3_512, "sha3_512"},
}};

// None: nullptr.
const char *name_of(std::uint16_t tpm_id)
{
    for (const algorithm_name &one : ALGORITHMS)
        if (one.tpm_id == tpm_id)
            return one.name;
    return nullptr;
}

struct cel_digest {
    const char *algorithm;
    std::string digest;
};

// Everything of a record up to its content.
void append_head(std::string &out, std::uint64_t number, std::uint32_t pcr,
                 const std::vector<cel_digest> &digests, const char *content_type)
{
    out += "{\"recnum\":" + std::to_string(number - 1) + ",\"pcr\":" + std::to_string(pcr) + ",\"digests\":[";
    for (const cel_digest &one : digests)
        out += (&one == digests.data() ? "" : ",") + std::string("{\"hashAlg\":\"") + one.algorithm +
               "\",\"digest\":\"" + hex(one.digest) + "\"}";
    out += std::string("],\"content_type\":\"") + content_type + "\",\"content\":{";
}

} // namespace

bool append_cel_boot_log(std::string &out, const api::NodeBootIntegrityLog &log, std::string &error)
{
    boot_log_layout layout;
    if (!find_layout(log, layout, error))
        return false;
    std::string records;
    for (const api::BOOT_EVENT &event : log.events()) {
        const bool is_first = records.empty();
        std::vector<cel_digest> digests;
        for (const api::BOOT_EVENT_DIGEST &digest : event.digests()) {
            const std::uint16_t tpm_id = algorithm_of(layout, is_first, digest).value_or(0);
            if (name_of(tpm_id) == nullptr) {
                error =
                    format("the boot log cannot be written: event %u has a digest by algorithm 0x%04x, for "
                           "which there is no name",
                           event.event_num(), tpm_id);
                return false;
            }
            digests.push_back({name_of(tpm_id), digest.digest()});
        }
        records += is_first ? "" : ",\n";
        append_head(records, event.event_num(), event.pcr_index(), digests, "pcclient_std");
        records += "\"event_type\":\"" + event_type_text(event.event_type()) + "\",\"event_data\":\"" +
                   hex(event.event_data()) + "\"}}";
    }
    out += '[' + records + "]\n";
    return true;
}

bool append_cel_ima_record(std::string &out, const api::IMA_EVENT &event, std::string &error)
{
    std::string data;
    if (!prove_template_data(event, data, error))
        return false;
    std::vector<cel_digest> digests = {{"sha1", event.template_hash()},
                                       {"sha256", digest_of(quoted_bank(), {data})}};
    if (is_violation(event))
        for (cel_digest &one : digests)
            one.digest.assign(one.digest.size(), '\xff');
    append_head(out, event.event_num(), event.pcr(), digests, "ima_template");
    out += "\"template_name\":";
    append_json_string(out, event.template_name());
    out += ",\"template_data\":\"" + hex(data) + "\"}}";
    return true;
}
