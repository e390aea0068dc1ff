#include "attestctl/formats/boot_log_layout.h"

#include <tss2/tss2_tpm2_types.h>

#include "attestctl/byte_reader.h"
#include "attestctl/event_types.h"
#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"

namespace {

constexpr std::string_view CRYPTO_AGILE_SIGNATURE("Spec ID Event03\0", 16);
constexpr std::size_t BEFORE_ALGORITHMS = 8; // platform class, version, errata, size of UINTN
constexpr std::size_t MOST_ALGORITHMS = 16;  // banks of a TPM
constexpr std::size_t SHA1_SIZE = 20;

// The number that the contract has for the algorithm: the node looks at the identifier's low byte alone.
std::uint32_t contract_number(std::uint16_t tpm_id)
{
    const hash_algorithm *known = hash_by_tpm_id(tpm_id & 0xff);
    return known != nullptr ? known->number : 0;
}

bool read_listed(const std::string &event_data, std::vector<listed_algorithm> &listed)
{
    byte_reader data(event_data);
    data.bytes(CRYPTO_AGILE_SIGNATURE.size() + BEFORE_ALGORITHMS);
    const std::uint32_t count = data.u32();
    if (!data.ok() || count == 0 || count > MOST_ALGORITHMS)
        return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint16_t tpm_id = data.u16();
        listed.push_back({tpm_id, data.u16()});
    }
    return data.ok();
}

// What is wrong with an event; empty: nothing.
std::string event_problem(const boot_log_layout &layout, const api::BOOT_EVENT &event, bool is_first)
{
    if (!event.has_event_type() || !event.has_pcr_index())
        return "has no type or no PCR";
    if (!event.has_event_data() || event.event_size() != event.event_data().size())
        return "has not the data that it says";
    const std::size_t expected = layout.is_crypto_agile && !is_first ? layout.listed.size() : 1;
    if (static_cast<std::size_t>(event.digests_size()) != expected)
        return "has " + counted(static_cast<std::uint64_t>(event.digests_size()), "digest");
    for (const api::BOOT_EVENT_DIGEST &digest : event.digests())
        if (!algorithm_of(layout, is_first, digest))
            return "has a digest of which the log does not tell the algorithm";
    return {};
}

} // namespace

bool find_layout(const api::NodeBootIntegrityLog &log, boot_log_layout &layout, std::string &error)
{
    layout = {};
    if (!log.events().empty()) {
        const api::BOOT_EVENT &first = log.events(0);
        layout.is_crypto_agile = first.event_type() == event_type::NO_ACTION && first.pcr_index() == 0 &&
                                 first.event_data().starts_with(CRYPTO_AGILE_SIGNATURE);
        if (layout.is_crypto_agile && !read_listed(first.event_data(), layout.listed)) {
            error = "the boot log cannot be written: its Spec ID event has no list of algorithms";
            return false;
        }
    }
    for (int i = 0; i < log.events_size(); ++i) {
        const std::uint64_t number = static_cast<std::uint64_t>(i) + 1;
        std::string problem = event_problem(layout, log.events(i), i == 0);
        if (problem.empty() && log.events(i).event_num() != number)
            problem = "has number " + grouped(log.events(i).event_num());
        if (!problem.empty()) {
            error = "the boot log cannot be written: event " + grouped(number) + ' ' + problem;
            return false;
        }
    }
    return true;
}

std::optional<std::uint16_t> algorithm_of(const boot_log_layout &layout, bool is_first,
                                          const api::BOOT_EVENT_DIGEST &digest)
{
    const std::size_t size = digest.digest().size();
    if (!digest.has_hash_alg() || !digest.has_digest())
        return std::nullopt;
    if (is_first || !layout.is_crypto_agile)
        return digest.hash_alg() == 0 && size == SHA1_SIZE ? std::optional(TPM2_ALG_SHA1) : std::nullopt;
    std::optional<std::uint16_t> found;
    for (const listed_algorithm &one : layout.listed) {
        if (contract_number(one.tpm_id) != digest.hash_alg() || one.size != size)
            continue;
        if (found)
            return std::nullopt;
        found = one.tpm_id;
    }
    return found;
}
