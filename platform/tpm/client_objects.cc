// Named objects, and the digests of the board's identifiers.
#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/small_file.h"
#include "platform/tpm/client.h"
#include "platform/tpm/reference_list.h"

namespace {

constexpr UINT16 NV_READ_BYTES = 512; // at a time: every TPM's buffer takes as much (TPM_PT_NV_BUFFER_MAX)

kov_status read_object_file(const std::string &path, std::vector<std::uint8_t> &content)
{
    const int error = small_file_read(path, KOV_MAX_OBJECT_BYTES, content);
    if (error == ENOENT || error == ENOTDIR)
        return KOV_ERR_NO_OBJECT;
    if (error == EFBIG)
        return KOV_ERR_OBJECT_SIZE;
    return error == 0 ? kov_status{KOV_SUCCESS} : kov_status_from_errno(error);
}

// The index's own empty authorisation where it may be read with it, else the owner's. Certificates that a
// hardware maker stores are readable so.
kov_status read_nv(tpm_connection &connection, ESYS_TR index, std::vector<std::uint8_t> &content)
{
    TPM2B_NV_PUBLIC *area = nullptr;
    TPM2B_NAME *name = nullptr;
    TSS2_RC code =
        Esys_NV_ReadPublic(connection.esys, index, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &area, &name);
    const esys_ptr<TPM2B_NV_PUBLIC> owned_area(area);
    const esys_ptr<TPM2B_NAME> owned_name(name);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    const UINT16 size = owned_area->nvPublic.dataSize;
    const bool by_index = (owned_area->nvPublic.attributes & TPMA_NV_AUTHREAD) != 0;
    const ESYS_TR authorised_by = by_index ? index : ESYS_TR{ESYS_TR_RH_OWNER};
    while (content.size() < size) {
        const auto offset = static_cast<UINT16>(content.size());
        const UINT16 wanted = std::min<UINT16>(NV_READ_BYTES, static_cast<UINT16>(size - offset));
        TPM2B_MAX_NV_BUFFER *piece = nullptr;
        code = Esys_NV_Read(connection.esys, authorised_by, index, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                            ESYS_TR_NONE, wanted, offset, &piece);
        const esys_ptr<TPM2B_MAX_NV_BUFFER> owned_piece(piece);
        if (code != TSS2_RC_SUCCESS)
            return tpm_connection_result(connection, code);
        if (owned_piece->size != wanted)
            return KOV_ERR_BAD_RESPONSE;
        content.insert(content.end(), owned_piece->buffer, owned_piece->buffer + wanted);
    }
    return KOV_SUCCESS;
}

kov_status read_object_nv(tpm_connection &connection, std::uint32_t nv_index,
                          std::vector<std::uint8_t> &content)
{
    ESYS_TR index = ESYS_TR_NONE;
    const TSS2_RC code =
        Esys_TR_FromTPMPublic(connection.esys, nv_index, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &index);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    const kov_status status = read_nv(connection, index, content);
    Esys_TR_Close(connection.esys, &index);
    return status;
}

kov_status read_object(kovc_session &session, const char *name, std::vector<std::uint8_t> &content)
{
    const manifest_cache &provisioned = session.context->provisioned;
    if (*name == '\0')
        return KOV_ERR_NO_OBJECT;
    if (provisioned.status != KOV_SUCCESS)
        return provisioned.status;
    const manifest_object *object = manifest_find_object(provisioned.content, name);
    if (object == nullptr)
        return KOV_ERR_NO_OBJECT;
    if (!object->file.empty())
        return read_object_file(provisioned.content.directory + "/" + object->file, content);
    tpm_connection *connection = nullptr;
    const kov_status status = session_connection(session, &connection);
    return status == KOV_SUCCESS ? read_object_nv(*connection, object->nv_index, content) : status;
}

kov_status uid_digests(const kovc_context &context, std::uint32_t db_type, const tpm_algorithm &algorithm,
                       std::vector<std::uint8_t> &digests)
{
    if (context.binding != KOV_SUCCESS &&
        !(db_type == KOV_UID_BOARD && context.binding == KOV_ERR_NOT_PROVISIONED))
        return context.binding;
    const std::vector<manifest_identifier> &reference = context.provisioned.content.identifiers;
    if (db_type == KOV_UID_REFERENCE)
        digests = reference_digests(reference, algorithm);
    else if (!board_digests(board_identifiers_read(this_board()), reference, algorithm, digests))
        return KOV_ERR_CRYPTO;
    return KOV_SUCCESS;
}

} // namespace

kov_status kovc_so_read(kovc_session *session, std::uint32_t reserved, const char *name, std::uint8_t **data,
                        std::uint32_t *length)
{
    if (data == nullptr || length == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *data = nullptr;
    *length = 0;
    if (session == nullptr || reserved != 0 || name == nullptr)
        return KOV_ERR_INVALID_PARAM;
    return counted([&] {
        std::vector<std::uint8_t> content;
        const kov_status status = read_object(*session, name, content);
        return status == KOV_SUCCESS ? hand_out(content, data, length) : status;
    });
}

kov_status kovc_partward_get_uniqueid_digests(kovc_session *session, std::uint32_t db_type,
                                              std::uint32_t algorithm, std::uint16_t *count,
                                              std::uint32_t *total_length, std::uint8_t **data)
{
    if (count == nullptr || total_length == nullptr || data == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *count = 0;
    *total_length = 0;
    *data = nullptr;
    if (session == nullptr || (db_type != KOV_UID_REFERENCE && db_type != KOV_UID_BOARD))
        return KOV_ERR_INVALID_PARAM;
    const tpm_algorithm *digest = tpm_algorithm_of_number(algorithm);
    if (digest == nullptr)
        return KOV_ERR_ALGORITHM;
    return counted([&] {
        std::vector<std::uint8_t> digests;
        kov_status status = uid_digests(*session->context, db_type, *digest, digests);
        if (status == KOV_SUCCESS)
            status = hand_out(digests, data, total_length);
        if (status == KOV_SUCCESS)
            *count = static_cast<std::uint16_t>(digests.size() / digest->digest_size);
        static_assert(2 * MANIFEST_MAX_IDENTIFIERS <= std::numeric_limits<std::uint16_t>::max());
        return status;
    });
}
