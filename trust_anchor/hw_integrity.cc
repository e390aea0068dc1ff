#include "trust_anchor/hw_integrity.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/debug_trace.h"
#include "agent/node_location.h"
#include "agent/status.h"
#include "agent/system_messages.h"
#include "boot_log/trace_dump.h"
#include "boot_log/uptime.h"
#include "platform/node_identity.h"
#include "trust_anchor/record_parts.h"
#include "trust_anchor/session.h"

namespace {

constexpr const char *OPERATION = "get_platform_hw_integrity_local";

// The PCR into which the reference identifiers are extended.
constexpr std::uint32_t UID_PCR = 15;
constexpr std::uint64_t UID_PCR_MASK = 1u << UID_PCR;

constexpr std::uint32_t algorithm_of(std::uint32_t hash_algo)
{
    constexpr std::uint32_t algorithms[] = {KOV_ALG_SHA1, KOV_ALG_SHA256, KOV_ALG_SHA384, KOV_ALG_SHA512};
    return hash_algo < std::size(algorithms) ? algorithms[hash_algo] : KOV_ALG_SHA256;
}

// What of the request the collection needs.
struct collection {
    kovc_session *session;
    std::uint32_t algorithm;
    message_bytes nonce;
};

// Makes a list of the `count` digests that lie end to end in `data`; bytes that are left over belong to none.
std::uint32_t split_digests(std::span<std::uint8_t> data, std::uint16_t count, message_list<UID_DIGEST> &list)
{
    std::size_t size = data.size() / count;
    list.items = allocate_items<UID_DIGEST>(count);
    if (list.items == nullptr)
        return ATTEST_ERR_NO_MEMORY;
    list.count = count;
    for (std::uint16_t i = 0; i < count; ++i) {
        UID_DIGEST &entry = list.items[i];
        if (!message_copy_bytes(std::as_bytes(data.subspan(i * size, size)), entry.digest))
            return ATTEST_ERR_NO_MEMORY;
        print_hexstring(entry.digest.data, static_cast<std::uint32_t>(size));
        entry.index = i;
        entry.present = entry.has_index | entry.has_digest;
    }
    return ATTEST_OK;
}

// Fetches the digests of one database into its field. ATTEST_ERR_KOV_COMM, traced, when the module refuses.
std::uint32_t fetch_digests(const collection &asked, std::uint32_t db_type, std::uint32_t field,
                            message_list<UID_DIGEST> &list, tpm_hw_integrity &record)
{
    std::uint16_t count = 0;
    std::uint32_t total = 0;
    std::uint8_t *data = nullptr;
    kov_status status =
        kovc_partward_get_uniqueid_digests(asked.session, db_type, asked.algorithm, &count, &total, &data);
    malloc_ptr<std::uint8_t> owner(data);
    if (status != KOV_SUCCESS) {
        attest_trace_as(OPERATION, "Failed to fetch  %s for %d type db uids", kov_status_string(status),
                        static_cast<int>(db_type));
        return ATTEST_ERR_KOV_COMM;
    }
    if (count == 0 || data == nullptr)
        return ATTEST_OK;
    attest_trace_as(OPERATION, "Got from %d db %d hashes, total len %d, hashsize %d",
                    static_cast<int>(db_type), count, static_cast<int>(total),
                    static_cast<int>(total / count));
    print_hexstring(data, total);
    record.present |= field;
    return split_digests({data, total}, count, list);
}

// Collects digests, PCR and quote. *deferred is ATTEST_ERR_KOV_COMM when digests are missing: that fails the
// operation, but only after everything else was collected.
std::uint32_t collect(const collection &asked, tpm_hw_integrity &record, std::uint32_t *deferred)
{
    message_release(record);
    *deferred = ATTEST_OK;
    for (std::uint32_t db_type : {KOV_UID_REFERENCE, KOV_UID_BOARD}) {
        bool reference = db_type == KOV_UID_REFERENCE;
        std::uint32_t status =
            fetch_digests(asked, db_type, reference ? record.has_uid_digests_db0 : record.has_uid_digests_db1,
                          reference ? record.uid_digests_db0 : record.uid_digests_db1, record);
        if (status == ATTEST_ERR_KOV_COMM)
            *deferred = status;
        else if (status != ATTEST_OK)
            return status;
    }
    record.pcrs = {allocate_items<PCR_DUMP>(1), 1};
    if (record.pcrs.items == nullptr) {
        record.pcrs.count = 0;
        return ATTEST_ERR_NO_MEMORY;
    }
    record.present |= record.has_pcrs;
    if (!read_pcr(OPERATION, asked.session, asked.algorithm, UID_PCR, record.pcrs.items[0]))
        return ATTEST_ERR_KOV_COMM;
    quote_into(OPERATION, asked.session, asked.algorithm, UID_PCR_MASK, asked.nonce, record);
    return ATTEST_OK;
}

// Ends the process when the node's name cannot be read: a report that does not say what it is about would be
// taken for another board's.
malloc_ptr<char> allocate_source_name()
{
    char node_name[NODE_NAME_SIZE];
    if (platform_get_node_name(node_name, sizeof node_name) != 0) {
        raise_system_message(msg_rec_attestation_agent_init, "Unable to get platform node info");
        std::_Exit(1); // other threads run: no destructor of theirs may be pulled from under them
    }
    malloc_ptr<char> source_name(static_cast<char *>(std::calloc(1, NODE_NAME_SIZE)));
    // A long node name cuts the label: its length is fixed.
    if (source_name != nullptr &&
        std::snprintf(source_name.get(), NODE_NAME_SIZE, "%s_zuvari", node_name) < 0)
        source_name.reset();
    return source_name;
}

// Says whose the report is. False when there is no memory or no name.
bool label(tpm_hw_integrity &record)
{
    malloc_ptr<char> node_name = allocate_node_location(OPERATION);
    if (node_name == nullptr)
        return false;
    record.node_name = node_name.release();
    record.uptime = at_get_uptime_fm_sys();
    record.key_cert_name = strdup("Kestrin AIK");
    record.present |= record.has_node_name | record.has_uptime | record.has_key_cert_name;
    record.source_name = allocate_source_name().release();
    record.present |= record.has_source_name;
    return record.key_cert_name != nullptr && record.source_name != nullptr;
}

} // namespace

std::uint32_t get_platform_hw_integrity_local(const get_platform_hw_integrity_request *request,
                                              tpm_hw_integrity *record)
{
    if (request == nullptr || record == nullptr) {
        attest_trace("%s invalid parameters ", __func__);
        return ATTEST_ERR_INVALID_PARAM;
    }
    trust_anchor_session session(__func__);
    if (login(session) != KOV_SUCCESS)
        return ATTEST_ERR_KOV_COMM;

    collection asked = {session.handle, KOV_ALG_SHA256, {}};
    if (request->present & request->has_hash_algo)
        asked.algorithm = algorithm_of(request->hash_algo);
    if (request->present & request->has_nonce)
        asked.nonce = request->nonce;

    owned_message<tpm_hw_integrity> filled;
    std::uint32_t deferred = ATTEST_OK;
    std::uint32_t status = collect_in_sync(__func__, [&] { return collect(asked, *filled, &deferred); });
    if (status != ATTEST_OK)
        return status;
    if (!label(*filled))
        return ATTEST_ERR_NO_MEMORY;
    *record = filled.hand_over();
    return deferred;
}
