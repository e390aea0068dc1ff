#include "attestctl/verify/judge.h"

#include <algorithm>

#include "attestctl/certificate_names.h"
#include "attestctl/openssl_owners.h"
#include "attestctl/text.h"
#include "attestctl/verify/boot_log.h"
#include "attestctl/verify/certificates.h"
#include "attestctl/verify/hw_integrity.h"
#include "attestctl/verify/quote.h"
#include "attestctl/verify/sources.h"

namespace {

// One source while it is judged.
struct judgement {
    const evidence &got;
    const source &from;
    bool has_namesake; // another source has the same name
    const trusted_roots &roots;
    certificate_set identity, attestation_key;
    check_list list;
};

void add_missing(judgement &j, const char *what)
{
    add(j.list, what, failed("no record came from this source"));
}

void judge_identity(judgement &j)
{
    if (j.from.identity == nullptr)
        return add_missing(j, "identity certificates");
    check_certificates(j.list, "identity", *j.from.identity, j.identity, j.got.identity_request.nonce(),
                       j.identity.device.get(), j.roots);
}

void judge_attestation_key(judgement &j)
{
    if (j.from.attestation_key == nullptr)
        return add_missing(j, "attestation key certificates");
    check_certificates(j.list, "attestation key", *j.from.attestation_key, j.attestation_key,
                       j.got.attestation_key_request.nonce(), j.identity.device.get(), j.roots);
}

void judge_quote(judgement &j)
{
    if (j.from.pcrs == nullptr)
        return add_missing(j, "quote values");
    const auto &indices = j.got.pcrs_request.pcr_indices();
    const quote_request asked{{indices.begin(), indices.end()}, &quoted_bank(), j.got.pcrs_request.nonce()};
    check_quote(j.list, "quote", asked, quote_of(*j.from.pcrs), j.attestation_key.device.get());
}

void judge_boot_log(judgement &j)
{
    if (j.from.boot_log == nullptr)
        return add_missing(j, "boot log events");
    check_boot_log(j.list, *j.from.boot_log, j.from.pcrs != nullptr ? &j.from.pcrs->pcrs() : nullptr);
}

void judge_hardware(judgement &j)
{
    const api::tpm_hw_integrity *record = j.from.hw_integrity;
    if (record == nullptr)
        return add_missing(j, "hardware identifiers");
    const auto &request = j.got.hw_integrity_request;
    const hash_algorithm *bank = request.has_hash_algo() ? hash_by_number(request.hash_algo()) : nullptr;
    if (bank == nullptr)
        bank = &quoted_bank(); // what a node takes for a number that there is not
    check_hw_integrity(j.list, *record, *bank);
    const bool other_key = record->has_key_cert_name() && record->key_cert_name() != ATTESTATION_KEY_NAME;
    check_quote(j.list, "hardware quote", {{REFERENCE_PCR}, bank, request.nonce()}, quote_of(*record),
                other_key ? nullptr : j.attestation_key.device.get());
}

void judge_ima_list(judgement &j)
{
    if (j.has_namesake)
        return add(j.list, "IMA list",
                   failed("another source has the same name: whose events came cannot be told"));
    const ima_list *const list = ima_list_of(j.got, j.from);
    if (list == nullptr)
        return add_missing(j, "IMA list numbers");
    check_ima_list(j.list, *list);
}

// What is wrong with the stream as a whole: one that broke off, or a list of a source that has nothing else.
void judge_ima_stream(const evidence &got, const std::vector<source> &sources, std::vector<check> &rows)
{
    check_list list;
    const auto arrived = std::find_if(got.arrivals.begin(), got.arrivals.end(),
                                      [](const arrival &row) { return row.kind == IMA_LOG_KIND; });
    if (arrived == got.arrivals.end() || !arrived->came)
        add(list, "IMA list", failed("did not come whole"));
    for (const ima_list &one : got.ima_lists)
        if (std::none_of(sources.begin(), sources.end(),
                         [&](const source &s) { return s.name == one.source; }))
            add(list, "IMA list",
                failed("of \"" + printable(one.source, 64) + "\", from which nothing else came"));
    std::move(list.rows.begin(), list.rows.end(), std::back_inserter(rows));
}

// Each key in its place, whatever a record calls it: the identity's key signs what the node's software gives
// it, "quotes" that no TPM has made among them, and the attestation key can sign certificates in its place.
void refuse_exchanged_keys(judgement &j)
{
    if (j.identity.device && is_for_attestation(*j.identity.device)) {
        j.identity.problem = "of an attestation key, and not of the device's identity";
        j.identity.device.reset();
    }
    if (j.attestation_key.device && !is_for_attestation(*j.attestation_key.device)) {
        j.attestation_key.problem = "not for attestation by its extended key usage";
        j.attestation_key.device.reset();
    }
    if (!j.identity.device || !j.attestation_key.device ||
        EVP_PKEY_eq(X509_get0_pubkey(j.identity.device.get()),
                    X509_get0_pubkey(j.attestation_key.device.get())) != 1)
        return;
    j.attestation_key.problem = "of the device identity's key, which signs more than quotes";
    j.attestation_key.device.reset();
}

// Sources are different devices: one that sends its records under two names must not pass for two.
void refuse_shared_keys(judgement &j, std::vector<x509_owner> &seen)
{
    for (certificate_set *set : {&j.identity, &j.attestation_key})
        if (set->device && std::any_of(seen.begin(), seen.end(), [set](const x509_owner &earlier) {
                return EVP_PKEY_eq(X509_get0_pubkey(set->device.get()), X509_get0_pubkey(earlier.get())) == 1;
            })) {
            set->problem = "of a key that another source has, too";
            set->device.reset();
        }
}

void judge_subject(judgement &j, subject what)
{
    switch (what) {
    case subject::identity:
        return judge_identity(j);
    case subject::attestation_key:
        return judge_attestation_key(j);
    case subject::quote:
        return judge_quote(j);
    case subject::boot_log:
        return judge_boot_log(j);
    case subject::hardware:
        return judge_hardware(j);
    case subject::ima_list:
        return judge_ima_list(j);
    }
}

} // namespace

std::vector<check> judge(const evidence &got, std::span<const subject> subjects, const trusted_roots &roots,
                         const trusted_roots *bmc_roots)
{
    std::vector<check> rows;
    std::vector<source> sources;
    check_list whole;
    if (!sort_by_source(got, sources))
        add(whole, "sources", failed("more of them than a node can have"));
    else if (sources.empty())
        add(whole, "sources", failed("none has evidence"));
    for (const source &one : sources)
        if (one.name.size() > LONGEST_SOURCE_NAME)
            add(whole, "sources", failed("one has a name of " + counted(one.name.size(), "byte")));
    if (!whole.rows.empty())
        return whole.rows;
    std::vector<x509_owner> seen; // of the sources so far
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const source &one = sources[i];
        const bool of_bmc = i > 0 && bmc_roots != nullptr;
        const bool has_namesake = std::count_if(sources.begin(), sources.end(), [&one](const source &other) {
                                      return other.name == one.name;
                                  }) > 1;
        judgement j{
            got, one, has_namesake, of_bmc ? *bmc_roots : roots, {}, {}, {source_name(sources, i), {}}};
        if (one.identity != nullptr)
            j.identity = read_certificates(*one.identity, got.identity_request.cert_name());
        if (one.attestation_key != nullptr)
            j.attestation_key =
                read_certificates(*one.attestation_key, got.attestation_key_request.cert_name());
        refuse_exchanged_keys(j);
        refuse_shared_keys(j, seen);
        for (const subject what : subjects)
            judge_subject(j, what);
        std::move(j.list.rows.begin(), j.list.rows.end(), std::back_inserter(rows));
        for (certificate_set *set : {&j.identity, &j.attestation_key})
            if (set->device)
                seen.push_back(std::move(set->device));
    }
    if (std::find(subjects.begin(), subjects.end(), subject::ima_list) != subjects.end())
        judge_ima_stream(got, sources, rows);
    if (bmc_roots != nullptr && sources.size() == 1) {
        add(whole, "BMC", failed("no evidence came from one"));
        rows.push_back(whole.rows.front());
    }
    return rows;
}
