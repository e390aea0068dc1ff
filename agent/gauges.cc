#include "agent/gauges.h"

#include "agent/agent_state.h"
#include "ima_cache/shm_table.h"
#include "ima_cache/usage.h"
#include "platform/metrics.h"

namespace {

constexpr metric_family gauge(const char *name, const char *help)
{
    return {metric_kind::gauge, name, help, {}};
}

constexpr metric_family build = {
    metric_kind::gauge, "attest_build_info", "Always 1; the version is its label.", {"version"}};
constexpr metric_family trust_anchor =
    gauge("attest_trust_anchor_ready", "1 when PCRs could be read and quoted at the start.");
constexpr metric_family cache_ready = gauge("attest_ima_cache_ready", "1 when the IMA cache can be used.");
constexpr metric_family cache_blocks =
    gauge("attest_ima_cache_blocks", "Blocks of the IMA cache that hold events.");
constexpr metric_family cache_events = gauge("attest_ima_cache_events", "Events in the IMA cache.");
constexpr metric_family cache_bytes =
    gauge("attest_ima_cache_bytes", "What the blocks of the IMA cache take up on disk.");
constexpr metric_family table_buckets =
    gauge("attest_ima_table_buckets", "Entries that the table of known measurements has places for.");
constexpr metric_family table_entries = gauge("attest_ima_table_entries", "Measurements in the table.");
constexpr metric_family table_collisions =
    gauge("attest_ima_table_collisions", "Of these, those that had to go to the overflow area.");

void set(const metric_family &family, std::uint64_t value)
{
    metric_set(family, {}, static_cast<double>(value));
}

} // namespace

void collect_agent_gauges(void *)
{
    metric_set(build, {ATTEST_VERSION}, 1);
    set(trust_anchor, at_agent_state.capability_pcr_read & at_agent_state.capability_pcr_quote);
    set(cache_ready, at_agent_state.ima_cache_ready);
    ima_cache_usage cache{};
    if (at_agent_state.ima_cache_ready != 0 && at_ima_cache_usage(&cache)) {
        set(cache_blocks, cache.blocks);
        set(cache_events, cache.events);
        set(cache_bytes, cache.bytes);
    }
    shmht_usage table{};
    if (at_agent_state.at_ima_ht != nullptr && at_shmht_usage(at_agent_state.at_ima_ht, &table)) {
        set(table_buckets, table.buckets);
        set(table_entries, table.entries);
        set(table_collisions, table.collisions);
    }
}
