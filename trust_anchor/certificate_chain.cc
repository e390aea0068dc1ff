#include "trust_anchor/certificate_chain.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "agent/debug_trace.h"
#include "agent/node_location.h"
#include "agent/status.h"
#include "platform/byte_cursor.h"
#include "trust_anchor/record_parts.h"
#include "trust_anchor/session.h"

namespace {

constexpr const char *OPERATION = "attestation_get_certchain";

// A certificate that may be asked for, and where it and its chain lie. The customer's have no objects: the
// module holds nothing under an empty name.
struct certificate_type {
    const char *certificate_name;
    const char *certificate_object;
    const char *chain_object;
    const char *signing_key;
    const char *root_name;
    const char *ca_name;
};

constexpr certificate_type certificate_types[] = {
    {"Kestrin VOXA", "RSA_VOXACRT", "RSA_SCHAIN", "RSA_VOXAKEY", "Kestrin VOXA Root", "Kestrin VOXA CA"},
    {"Kestrin AIK", "RSA_AIK_CRT", "RSA_AIK_CHAIN", "RSA_VOXAKEY", "Kestrin AIK Root", "Kestrin AIK CA"},
    {"Customer LDevID", "", "", "", "Customer LDevID Root", "Customer LDevID CA"},
    {"Customer AIK", "", "", "", "Customer AIK Root", "Customer AIK CA"},
};
constexpr const certificate_type &default_type = certificate_types[1];

// RSASSA-PKCS1-v1_5 with SHA-256.
constexpr std::uint32_t SIGNATURE_ALGORITHM = 2;
// Stands between nonce and certificates in what is signed.
constexpr std::uint8_t SIGNED_TAG[] = {0, 0, 0, 2};

const certificate_type &type_of(const get_certificate_request &request)
{
    if ((request.present & request.has_cert_name) == 0)
        return default_type;
    const auto *found = std::find_if(std::begin(certificate_types), std::end(certificate_types),
                                     [&](const certificate_type &type) {
                                         return std::strcmp(type.certificate_name, request.cert_name) == 0;
                                     });
    return found != std::end(certificate_types) ? *found : default_type;
}

// What the module gave, before it becomes a record.
struct object {
    malloc_ptr<std::uint8_t> data;
    std::uint32_t length = 0;
    std::span<const std::uint8_t> bytes() const { return {data.get(), length}; }
};

bool read_object(kovc_session *session, const char *name, object &out)
{
    std::uint8_t *data = nullptr;
    kov_status status = kovc_so_read(session, 0, name, &data, &out.length);
    out.data.reset(data);
    if (status != KOV_SUCCESS)
        attest_trace_as(OPERATION, "Failed to kovc_so_read  kov %s", kov_status_string(status));
    return status == KOV_SUCCESS;
}

// The next certificate: a DER SEQUENCE whose length takes two bytes, as that of every certificate of this
// size does.
bool next_certificate(byte_cursor &cursor, std::span<const std::uint8_t> chain,
                      std::span<const std::uint8_t> &certificate)
{
    std::size_t start = cursor.position();
    std::array<std::uint8_t, 4> header = {};
    for (std::uint8_t &byte : header) {
        if (!cursor.get_le(byte))
            return false;
    }
    std::size_t length = static_cast<std::size_t>(header[2]) << 8 | header[3];
    if (header[0] != 0x30 || header[1] != 0x82 || !cursor.skip(length))
        return false;
    certificate = chain.subspan(start, header.size() + length);
    return true;
}

// The three certificates in the order in which they are signed and listed.
struct certificate_chain {
    std::span<const std::uint8_t> root;
    std::span<const std::uint8_t> ca;
    std::span<const std::uint8_t> device;
};

// The chain object holds the issuing CA's certificate and then the root's. One that is shorter than its
// headers say counts as empty.
bool split_chain(const object &chain, certificate_chain &out)
{
    byte_cursor cursor(std::as_bytes(chain.bytes()));
    return next_certificate(cursor, chain.bytes(), out.ca) &&
           next_certificate(cursor, chain.bytes(), out.root);
}

// Nonce, tag, root, CA, device certificate; null when there is no memory.
malloc_ptr<std::uint8_t> allocate_signed_blob(std::span<const std::uint8_t> nonce,
                                              const certificate_chain &chain, std::uint32_t *length)
{
    const std::span<const std::uint8_t> parts[] = {nonce, SIGNED_TAG, chain.root, chain.ca, chain.device};
    std::size_t total = 0;
    for (const auto &part : parts)
        total += part.size();
    malloc_ptr<std::uint8_t> blob(static_cast<std::uint8_t *>(std::malloc(total)));
    if (blob == nullptr)
        return blob;
    std::uint8_t *end = blob.get();
    for (const auto &part : parts)
        end = std::copy(part.begin(), part.end(), end);
    *length = static_cast<std::uint32_t>(total);
    return blob;
}

// The module's signature over the blob; the buffer is the caller's. False, traced, and nothing to free, when
// a step fails.
bool sign_blob(kovc_session *session, const char *key, std::span<const std::uint8_t> blob,
               message_bytes &signature)
{
    kovc_signing *signing = nullptr;
    kov_status status = kovc_sign_init(session, KOV_LOGIN_USER, key, SIGNATURE_ALGORITHM, &signing);
    if (status != KOV_SUCCESS) {
        attest_trace_as(OPERATION, "Failed to kovc_sign_init  %s", kov_status_string(status));
        return false;
    }
    status = kovc_sign_update(session, signing, blob.data(), static_cast<std::uint32_t>(blob.size()));
    if (status != KOV_SUCCESS) {
        attest_trace_as(OPERATION, "Failed to kovc_sign_update  %s", kov_status_string(status));
        return false;
    }
    std::uint32_t length = 0;
    status = kovc_sign_final(session, signing, &signature.data, &length);
    if (status != KOV_SUCCESS) {
        attest_trace_as(OPERATION, "Failed to kovc_sign_final  %s", kov_status_string(status));
        return false;
    }
    signature.length = length;
    return true;
}

std::uint32_t sign(kovc_session *session, const char *key, std::span<const std::uint8_t> nonce,
                   const certificate_chain &chain, SystemCertificates &record)
{
    std::uint32_t length = 0;
    malloc_ptr<std::uint8_t> blob = allocate_signed_blob(nonce, chain, &length);
    if (blob == nullptr)
        return ATTEST_ERR_NO_MEMORY;
    if (!sign_blob(session, key, {blob.get(), length}, record.signature))
        return ATTEST_ERR_KOV_COMM;
    record.sig_alg = SIGNATURE_ALGORITHM;
    record.present |= record.has_sig_alg | record.has_signature;
    return ATTEST_OK;
}

bool fill_entry(CERTIFICATE_ENTRY &entry, const char *name, std::span<const std::uint8_t> certificate)
{
    entry.name = strdup(name);
    entry.present = entry.has_name | entry.has_data;
    return message_copy_bytes(std::as_bytes(certificate), entry.data) && entry.name != nullptr;
}

std::uint32_t list_certificates(const certificate_type &type, const certificate_chain &chain,
                                SystemCertificates &record)
{
    record.certs = {allocate_items<CERTIFICATE_ENTRY>(3), 3};
    if (record.certs.items == nullptr) {
        record.certs.count = 0;
        return ATTEST_ERR_NO_MEMORY;
    }
    record.present |= record.has_certs;
    CERTIFICATE_ENTRY *entries = record.certs.items;
    bool filled = fill_entry(entries[0], type.root_name, chain.root) &&
                  fill_entry(entries[1], type.ca_name, chain.ca) &&
                  fill_entry(entries[2], type.certificate_name, chain.device);
    return filled ? ATTEST_OK : ATTEST_ERR_NO_MEMORY;
}

// Nonce and node name, which need nothing of the module.
std::uint32_t begin_record(std::span<const std::uint8_t> nonce, SystemCertificates &record)
{
    if (!message_copy_bytes(std::as_bytes(nonce), record.nonce)) {
        attest_trace_as(OPERATION, "Failed to allocate nonce");
        return ATTEST_ERR_NO_MEMORY;
    }
    if (!nonce.empty())
        record.present |= record.has_nonce;
    malloc_ptr<char> node_name = allocate_node_location(OPERATION);
    if (node_name == nullptr)
        return ATTEST_ERR_NO_MEMORY;
    record.node_name = node_name.release();
    record.present |= record.has_node_name;
    return ATTEST_OK;
}

std::uint32_t fill_record(kovc_session *session, const certificate_type &type,
                          std::span<const std::uint8_t> nonce, SystemCertificates &record)
{
    if (std::uint32_t status = begin_record(nonce, record))
        return status;
    object certificate;
    object chain_object;
    if (!read_object(session, type.certificate_object, certificate) ||
        !read_object(session, type.chain_object, chain_object))
        return ATTEST_ERR_KOV_COMM;
    certificate_chain chain = {.root = {}, .ca = {}, .device = certificate.bytes()};
    if (certificate.data == nullptr || chain_object.data == nullptr || !split_chain(chain_object, chain)) {
        attest_trace_as(OPERATION, "Failed to read AIK cert chain");
        return ATTEST_ERR_KOV_COMM;
    }
    if (!nonce.empty()) {
        if (std::uint32_t status = sign(session, type.signing_key, nonce, chain, record))
            return status;
    }
    return list_certificates(type, chain, record);
}

} // namespace

std::uint32_t attestation_get_certchain(const get_certificate_request *request, SystemCertificates *record)
{
    if (request == nullptr || record == nullptr) {
        attest_trace("%s invalid parameters ", __func__);
        return ATTEST_ERR_INVALID_PARAM;
    }
    trust_anchor_session session(__func__);
    if (login(session) != KOV_SUCCESS)
        return ATTEST_ERR_KOV_COMM;
    *record = {};
    std::span<const std::uint8_t> nonce;
    if (request->present & request->has_nonce)
        nonce = {request->nonce.data, request->nonce.length};
    owned_message<SystemCertificates> filled;
    std::uint32_t status = fill_record(session.handle, type_of(*request), nonce, *filled);
    if (status == ATTEST_OK)
        *record = filled.hand_over();
    return status;
}
