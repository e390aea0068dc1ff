#include "attestctl/verify/hw_integrity.h"

#include <algorithm>

#include "attestctl/text.h"
#include "attestctl/verify/quote.h"

namespace api = remote_attestation_api;

namespace {

using digest_list = google::protobuf::RepeatedPtrField<api::UID_DIGEST>;

constexpr int DIFFERENCES_SHOWN = 8;

// What is wrong with a list by itself; empty: nothing.
std::string list_problem(const char *which, const digest_list &digests, const hash_algorithm &bank)
{
    if (digests.size() > MOST_IDENTIFIERS)
        return format("%s list: %d entries, more than a board has", which, digests.size());
    for (int i = 0; i < digests.size(); ++i) {
        if (!digests[i].has_index() || digests[i].index() != static_cast<std::uint32_t>(i))
            return format("%s list: entry %d has index %u", which, i, digests[i].index());
        if (digests[i].digest().size() != bank.size)
            return format("%s list: entry %d has %zu bytes, ", which, i, digests[i].digest().size()) +
                   bank.name + format(" has %zu", bank.size);
    }
    return {};
}

// What became of an identifier; nullptr: it is as it was.
const char *change_of(int index, const digest_list &recorded, const digest_list &now)
{
    if (index >= recorded.size())
        return "added";
    if (index >= now.size())
        return "not reported";
    const std::string &digest = now[index].digest();
    if (digest == recorded[index].digest())
        return nullptr;
    return std::all_of(digest.begin(), digest.end(), [](char c) { return c == 0; }) ? "gone" : "changed";
}

finding check_identifiers(const api::tpm_hw_integrity &record, const hash_algorithm &bank)
{
    const digest_list &recorded = record.uid_digests_db0();
    const digest_list &now = record.uid_digests_db1();
    if (recorded.empty() && now.empty())
        return not_made("there are none to compare");
    std::string problem = list_problem("recorded", recorded, bank);
    if (problem.empty())
        problem = list_problem("present", now, bank);
    if (!problem.empty())
        return failed(problem);
    int differences = 0;
    std::string text;
    for (int i = 0; i < std::max(recorded.size(), now.size()); ++i) {
        const char *change = change_of(i, recorded, now);
        if (change != nullptr && ++differences <= DIFFERENCES_SHOWN)
            text += format("%s%d %s", text.empty() ? "" : ", ", i, change);
    }
    if (differences == 0)
        return passed(counted(static_cast<std::uint64_t>(now.size()), "identifier") + ", all as recorded");
    return failed(counted(static_cast<std::uint64_t>(differences), "difference") + ": " + text +
                  (differences > DIFFERENCES_SHOWN ? ", ..." : ""));
}

finding check_binding(const api::tpm_hw_integrity &record, const hash_algorithm &bank)
{
    const std::string *value = value_of(record.pcrs(), REFERENCE_PCR);
    if (value == nullptr)
        return failed("there is no value of PCR 15");
    const std::string expected = reference_pcr_value(record, bank);
    return !expected.empty() && *value == expected
               ? passed("PCR 15 was extended by the recorded list alone")
               : failed("PCR 15 is not the extension by the recorded list");
}

} // namespace

std::string reference_pcr_value(const api::tpm_hw_integrity &record, const hash_algorithm &bank)
{
    std::string digests;
    for (const api::UID_DIGEST &one : record.uid_digests_db0())
        digests += one.digest();
    const std::string extension = digest_of(bank, {digests});
    return extension.empty() ? extension : digest_of(bank, {std::string(bank.size, '\0'), extension});
}

void check_hw_integrity(check_list &list, const api::tpm_hw_integrity &record, const hash_algorithm &bank)
{
    add(list, "hardware identifiers", check_identifiers(record, bank));
    add(list, "hardware binding", check_binding(record, bank));
}
