#include "attestctl/state.h"

#include <algorithm>

#include "attestctl/kept_json.h"
#include "attestctl/text.h"
#include "attestctl/verify/pcr_set.h"

using nlohmann::json;

namespace {

constexpr kept_kind KIND = {"attestctl_state", "lists"};

bool read_pcrs(const json &entry, ima_position &position)
{
    for (const json &one : list_at(entry, "pcrs")) {
        ima_position::pcr pcr;
        if (!take(one, "pcr", pcr.index) || pcr.index >= PCR_COUNT || !take(one, "padded", pcr.padded) ||
            !take_hex(one, "value", quoted_bank().size, pcr.value))
            return false;
        position.pcrs.push_back(std::move(pcr));
    }
    return !position.pcrs.empty();
}

bool read_list(const json &entry, remembered_list &list)
{
    return take(entry, "source", list.source) && take_hex(entry, "key", sizeof(sha256_digest), list.key) &&
           take(entry, "resets", list.boot.resets) && take(entry, "restarts", list.boot.restarts) &&
           take(entry, "event", list.position.event) && read_pcrs(entry, list.position);
}

json list_json(const remembered_list &list)
{
    json pcrs = json::array();
    for (const ima_position::pcr &pcr : list.position.pcrs)
        pcrs.push_back({{"pcr", pcr.index}, {"value", hex(pcr.value)}, {"padded", pcr.padded}});
    return {{"source", list.source},          {"key", hex(list.key)},         {"resets", list.boot.resets},
            {"restarts", list.boot.restarts}, {"event", list.position.event}, {"pcrs", std::move(pcrs)}};
}

// The record of the source, none: nullptr.
template <typename Answer>
auto record_of(const Answer &answer, const std::string &source)
{
    const auto found = std::find_if(answer.node_data().begin(), answer.node_data().end(),
                                    [&source](const auto &record) { return record.node_name() == source; });
    return found == answer.node_data().end() ? nullptr : &*found;
}

// Who quoted in which boot; false where that cannot be told.
bool identify(const evidence &got, const std::string &source, remembered_list &into)
{
    const api::SystemCertificates *certificates = record_of(got.attestation_key, source);
    const api::NodePCRData *pcrs = record_of(got.pcrs, source);
    if (certificates == nullptr || certificates->certs().empty() || pcrs == nullptr)
        return false;
    const std::optional<boot_counts> boot = boot_of(*pcrs);
    if (!boot)
        return false;
    into.source = source;
    into.boot = *boot;
    const sha256_digest key = sha256_of(certificates->certs(certificates->certs_size() - 1).data());
    into.key.assign(key.begin(), key.end());
    return true;
}

// Why what is remembered says nothing about the list that is there now; empty: it does.
std::string change_since(const remembered_list &then, const remembered_list &now)
{
    if (then.key != now.key)
        return "another attestation key than when it was verified before";
    if (then.boot.resets != now.boot.resets)
        return "the node was booted since it was verified before (reset count " + grouped(now.boot.resets) +
               ", was " + grouped(then.boot.resets) + ')';
    if (then.boot.restarts != now.boot.restarts)
        return "the TPM was restarted since it was verified before (restart count " +
               grouped(now.boot.restarts) + ", was " + grouped(then.boot.restarts) + ')';
    return {};
}

} // namespace

bool read_state(const std::string &path, verified_lists &into, std::string &error)
{
    into.nodes.clear();
    return read_kept_nodes(
        path, KIND, into.file,
        [&into](const std::string &target, const json &entry) {
            return read_list(entry, into.nodes[target].emplace_back());
        },
        error);
}

bool write_state(verified_lists &state, std::string &error)
{
    kept_nodes nodes;
    for (const auto &[target, lists] : state.nodes)
        for (const remembered_list &list : lists)
            nodes[target].push_back(list_json(list));
    return write_kept_nodes(state.file, KIND, nodes, error);
}

std::vector<remembered_list> lists_to_remember(const evidence &got)
{
    std::vector<remembered_list> lists;
    for (const ima_list &list : got.ima_lists) {
        remembered_list one;
        one.position = position_of(list);
        if (one.position.event != 0 && identify(got, list.source, one))
            lists.push_back(std::move(one));
    }
    return lists;
}

ima_start start_after(const std::vector<remembered_list> &remembered, const evidence &got)
{
    ima_start start;
    for (const remembered_list &then : remembered) {
        remembered_list now;
        if (!identify(got, then.source, now))
            continue;
        if (std::string change = change_since(then, now); !change.empty()) {
            start.notes[then.source] = std::move(change);
            continue;
        }
        start.positions[then.source] = then.position;
        start.asked_after = std::max(start.asked_after, then.position.event);
    }
    return start;
}
