#include "attestctl/pins.h"

#include <algorithm>
#include <array>

#include <openssl/x509.h>

#include "attestctl/certificate_text.h"
#include "attestctl/kept_json.h"
#include "attestctl/openssl_owners.h"
#include "attestctl/text.h"
#include "attestctl/verify/pcr_set.h"
#include "attestctl/verify/sources.h"

using nlohmann::json;

namespace {

constexpr kept_kind KIND = {"attestctl_pins", "sources"};

// Firmware, boot loader, shim and provisioning extend these, and nobody after them.
constexpr pcr_set PINNED_PCRS = 0xc3ff;

struct pinned_digest {
    const char *member, *row; // of the file, and of the checks
    std::optional<std::string> pinned_source::*digest;
};
constexpr std::array<pinned_digest, 4> PINNED_DIGESTS = {{
    {"identity_root", "pinned identity root", &pinned_source::identity_root},
    {"attestation_key_root", "pinned attestation root", &pinned_source::attestation_key_root},
    {"identity_key", "pinned identity key", &pinned_source::identity_key},
    {"attestation_key", "pinned attestation key", &pinned_source::attestation_key},
}};

// False: it is there, and is none.
bool read_digest(const json &entry, const char *name, std::optional<std::string> &digest)
{
    return !entry.contains(name) || take_hex(entry, name, sizeof(sha256_digest), digest.emplace());
}

bool read_pcrs(const json &entry, std::map<std::uint32_t, std::string> &pcrs)
{
    for (const json &one : list_at(entry, "pcrs")) {
        std::uint32_t index = 0;
        std::string value;
        if (!take(one, "pcr", index) || !take_hex(one, "value", quoted_bank().size, value) ||
            !pcrs.emplace(index, std::move(value)).second)
            return false;
    }
    return !entry.contains("pcrs") || entry["pcrs"].is_array();
}

bool read_references(const json &entry, std::optional<std::vector<std::string>> &references)
{
    if (!entry.contains("references"))
        return true;
    references.emplace();
    for (const json &one : list_at(entry, "references"))
        if (!one.is_string() || !from_hex(one.get_ref<const std::string &>(), references->emplace_back()))
            return false;
    return entry["references"].is_array();
}

bool read_source(const json &entry, pinned_source &into)
{
    for (const pinned_digest &one : PINNED_DIGESTS)
        if (!read_digest(entry, one.member, into.*one.digest))
            return false;
    return take(entry, "source", into.source) && read_pcrs(entry, into.pcrs) &&
           read_references(entry, into.references);
}

json source_json(const pinned_source &one)
{
    json entry = {{"source", one.source}};
    for (const pinned_digest &kind : PINNED_DIGESTS)
        if (one.*kind.digest)
            entry[kind.member] = hex(*(one.*kind.digest));
    if (!one.pcrs.empty())
        entry["pcrs"] = json::array();
    for (const auto &[index, value] : one.pcrs)
        entry["pcrs"].push_back({{"pcr", index}, {"value", hex(value)}});
    if (one.references)
        entry["references"] = json::array();
    for (const std::string &digest : one.references.value_or(std::vector<std::string>()))
        entry["references"].push_back(hex(digest));
    return entry;
}

std::optional<std::string> root_of(const api::SystemCertificates *record)
{
    if (record == nullptr || record->certs().empty())
        return std::nullopt;
    return digest_of(quoted_bank(), {record->certs(0).data()});
}

// The key of the certificate, which comes last.
std::optional<std::string> key_of(const api::SystemCertificates *record)
{
    if (record == nullptr || record->certs().empty())
        return std::nullopt;
    std::string error;
    const x509_owner certificate = read_certificate(record->certs(record->certs_size() - 1).data(), error);
    const EVP_PKEY *key = certificate ? X509_get0_pubkey(certificate.get()) : nullptr;
    const int length = key != nullptr ? i2d_PUBKEY(key, nullptr) : 0;
    std::string der(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    auto *at = reinterpret_cast<unsigned char *>(der.data());
    if (der.empty() || i2d_PUBKEY(key, &at) != length)
        return std::nullopt;
    return digest_of(quoted_bank(), {der});
}

pinned_source describe(const source &from, std::string name)
{
    pinned_source now{std::move(name),
                      root_of(from.identity),
                      root_of(from.attestation_key),
                      key_of(from.identity),
                      key_of(from.attestation_key),
                      {},
                      {}};
    for (std::uint32_t i = 0; from.pcrs != nullptr && i < PINNED_PCRS.size(); ++i)
        if (const std::string *value = value_of(from.pcrs->pcrs(), i); value != nullptr)
            now.pcrs[i] = *value;
    if (from.hw_integrity == nullptr)
        return now;
    now.references.emplace();
    for (const api::UID_DIGEST &one : from.hw_integrity->uid_digests_db0())
        now.references->push_back(one.digest());
    return now;
}

std::vector<pinned_source> describe_all(const evidence &got)
{
    std::vector<source> sources;
    std::vector<pinned_source> now;
    if (sort_by_source(got, sources))
        for (std::size_t i = 0; i < sources.size(); ++i)
            now.push_back(describe(sources[i], source_name(sources, i)));
    return now;
}

// Empty texts stand for what is not there.
finding old_against_new(const std::string &then, const std::string &now)
{
    constexpr std::size_t LONGEST = 64; // bytes of SHA-512
    const auto shown = [](const std::string &digest) {
        return digest.empty() ? "nothing" : hex_preview(digest, LONGEST);
    };
    return failed("pinned is " + shown(then) + ", now it is " + shown(now));
}

void check_digest(check_list &list, const char *name, const std::optional<std::string> &pinned,
                  const std::optional<std::string> &now)
{
    if (pinned)
        add(list, name,
            pinned == now ? passed("as pinned: SHA-256 " + hex(*pinned))
                          : old_against_new(*pinned, now.value_or("")));
}

void check_pcrs(check_list &list, const pinned_source &pinned, const pinned_source &now)
{
    pcr_set same;
    for (const auto &[index, value] : pinned.pcrs) {
        const auto found = now.pcrs.find(index);
        const std::string *is = found != now.pcrs.end() ? &found->second : nullptr;
        if (is != nullptr && *is == value)
            same.set(index);
        else
            add(list, format("pinned PCR %u", index), old_against_new(value, is != nullptr ? *is : ""));
    }
    if (same.any())
        add(list, "pinned PCR values", passed(pcr_text(same) + " as pinned"));
}

void check_references(check_list &list, const pinned_source &pinned, const pinned_source &now)
{
    if (!pinned.references)
        return;
    const std::vector<std::string> &then = *pinned.references;
    const std::vector<std::string> is = now.references.value_or(std::vector<std::string>());
    for (std::size_t i = 0; i < std::max(then.size(), is.size()); ++i) {
        const std::string &old = i < then.size() ? then[i] : "";
        const std::string &fresh = i < is.size() ? is[i] : "";
        if (i >= then.size() || i >= is.size() || old != fresh)
            add(list, format("pinned reference %zu", i), old_against_new(old, fresh));
    }
    if (then == is)
        add(list, "pinned references", passed(counted(is.size(), "reference digest") + " as pinned"));
}

} // namespace

bool read_pins(const std::string &path, node_pins &into, std::string &error)
{
    into.nodes.clear();
    return read_kept_nodes(
        path, KIND, into.file,
        [&into](const std::string &target, const json &entry) {
            return read_source(entry, into.nodes[target].emplace_back());
        },
        error);
}

bool write_pins(node_pins &pins, std::string &error)
{
    kept_nodes nodes;
    for (const auto &[target, sources] : pins.nodes)
        for (const pinned_source &one : sources)
            nodes[target].push_back(source_json(one));
    return write_kept_nodes(pins.file, KIND, nodes, error);
}

std::vector<pinned_source> pins_of(const evidence &got)
{
    std::vector<pinned_source> now = describe_all(got);
    for (pinned_source &one : now)
        std::erase_if(one.pcrs, [](const auto &pcr) { return !PINNED_PCRS[pcr.first]; });
    return now;
}

void check_pins(std::vector<check> &rows, const std::vector<pinned_source> &pinned, const evidence &got)
{
    const std::vector<pinned_source> now = describe_all(got);
    const auto named = [](const std::string &name) {
        return [&name](const pinned_source &one) { return one.source == name; };
    };
    for (const pinned_source &then : pinned) {
        const auto is = std::find_if(now.begin(), now.end(), named(then.source));
        check_list list{
            is != now.end() ? is->source : printable(then.source, MAX_TEXT_BYTES, backslash::single), {}};
        if (is == now.end()) {
            add(list, "pinned source", failed("sent nothing, and is pinned"));
        } else {
            for (const pinned_digest &one : PINNED_DIGESTS)
                check_digest(list, one.row, then.*one.digest, (*is).*one.digest);
            check_pcrs(list, then, *is);
            check_references(list, then, *is);
        }
        std::move(list.rows.begin(), list.rows.end(), std::back_inserter(rows));
    }
    for (const pinned_source &is : now)
        if (std::none_of(pinned.begin(), pinned.end(), named(is.source)))
            rows.push_back({"pinned source", check_outcome::failed, "was not there when the node was pinned",
                            is.source});
}

bool pins_have_roots(const std::vector<pinned_source> &pinned)
{
    return !pinned.empty() && std::all_of(pinned.begin(), pinned.end(), [](const pinned_source &one) {
        return one.identity_root && one.attestation_key_root;
    });
}
