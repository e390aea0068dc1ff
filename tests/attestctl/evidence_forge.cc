#include "tests/attestctl/evidence_forge.h"

#include <array>
#include <map>
#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <tss2/tss2_mu.h>

using namespace std::string_literals;

namespace {

constexpr std::array<const EVP_MD *(*)(), 4> BANKS = {EVP_sha1, EVP_sha256, EVP_sha384, EVP_sha512};
constexpr std::array<std::uint16_t, 4> BANK_IDS = {TPM2_ALG_SHA1, TPM2_ALG_SHA256, TPM2_ALG_SHA384,
                                                   TPM2_ALG_SHA512};
constexpr const char *IDENTITY_ROOT = "identity root", *ATTESTATION_ROOT = "attestation root";

void must(bool done)
{
    if (!done)
        throw std::runtime_error("the forge failed");
}

unsigned char *writable(std::string &text)
{
    return reinterpret_cast<unsigned char *>(text.data());
}

const unsigned char *readable(const std::string &text)
{
    return reinterpret_cast<const unsigned char *>(text.data());
}

std::string sign(EVP_PKEY *key, const EVP_MD *hash, int padding, const std::string &data)
{
    const md_ctx_owner state(EVP_MD_CTX_new());
    EVP_PKEY_CTX *scheme = nullptr;
    std::size_t size = 512;
    std::string signature(size, '\0');
    must(EVP_DigestSignInit(state.get(), &scheme, hash, nullptr, key) == 1);
    must(padding == 0 || EVP_PKEY_CTX_set_rsa_padding(scheme, padding) == 1);
    must(EVP_DigestSign(state.get(), writable(signature), &size, readable(data), data.size()) == 1);
    return signature.substr(0, size);
}

void add_extension(X509 *certificate, int kind, const char *value)
{
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
    must(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1);
    X509_EXTENSION_free(extension);
}

void add_name(X509_NAME *name, const char *text)
{
    must(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(text),
                                    -1, -1, 0) == 1);
}

void add_certificates(api::get_certificate_response &answer, const std::string &node, const std::string &name,
                      const char *root_name, const certificate_plan &device)
{
    api::SystemCertificates &record = *answer.add_node_data();
    record.set_node_name(node);
    const std::array<std::pair<std::string, certificate_plan>, 3> plans = {
        {{" Root", root_plan(root_name)}, {" CA", ca_plan(root_name)}, {"", device}}};
    for (const auto &[suffix, plan] : plans) {
        api::CERTIFICATE_ENTRY &entry = *record.add_certs();
        entry.set_name(name + suffix);
        entry.set_data(make_certificate(plan));
    }
}

// An event with its digests in SHA-1 and SHA-256.
void add_event(api::NodeBootIntegrityLog &log, std::uint32_t pcr, std::uint32_t type, const std::string &data)
{
    api::BOOT_EVENT &event = *log.add_events();
    event.set_event_num(static_cast<std::uint32_t>(log.events_size()));
    event.set_pcr_index(pcr);
    event.set_event_type(type);
    event.set_event_size(static_cast<std::uint32_t>(data.size()));
    event.set_event_data(data);
    for (std::uint32_t bank : {0U, 1U}) {
        api::BOOT_EVENT_DIGEST &entry = *event.add_digests();
        entry.set_hash_alg(bank);
        entry.set_digest(digest(BANKS[bank](), data));
    }
}

void add_boot_log(evidence &got, const std::string &node)
{
    api::NodeBootIntegrityLog &log = *got.boot_log.add_node_data();
    log.set_node_name(node);
    add_event(log, 0, 3, "Spec ID Event03\0"s);
    log.mutable_events(0)->mutable_digests()->RemoveLast(); // SHA-1 alone, as in a log
    add_event(log, 0, 3, "StartupLocality\0\3"s);
    add_event(log, 0, 8, "firmware version");
    add_event(log, 7, 0x80000001, "SecureBoot on");
    add_event(log, 0, 0x80000008, "firmware volume");
    add_event(log, 4, 0x80000003, "boot loader");
    for (const std::uint32_t pcr : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U})
        add_event(log, pcr, 4, std::string(4, '\0'));
    add_event(log, 9, 0xd, "kernel");
}

// The values that the log gives; 10 and 13 were extended by somebody else.
std::array<std::string, 24> pcr_values(const api::NodeBootIntegrityLog &log)
{
    std::array<std::string, 24> values;
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i].assign(32, i >= 17 && i <= 22 ? '\xff' : '\0');
    values[0][31] = 3;
    for (const api::BOOT_EVENT &event : log.events())
        if (event.event_type() != 3)
            values[event.pcr_index()] =
                digest(EVP_sha256(), values[event.pcr_index()] + event.digests(1).digest());
    values[10].assign(32, 'i');
    values[13].assign(32, 's');
    return values;
}

void add_hardware(evidence &got, const std::string &node, std::uint32_t bank)
{
    api::tpm_hw_integrity &record = *got.hw_integrity.add_node_data();
    record.set_node_name(node);
    record.set_key_cert_name("Kestrin AIK");
    std::string all;
    for (std::uint32_t i = 0; i < 12; ++i) {
        const std::string value = digest(BANKS[bank](), "serial number " + std::to_string(i));
        all += value;
        for (auto *list : {record.mutable_uid_digests_db0(), record.mutable_uid_digests_db1()}) {
            api::UID_DIGEST &entry = *list->Add();
            entry.set_index(i);
            entry.set_digest(value);
        }
    }
    const std::string zeros(static_cast<std::size_t>(EVP_MD_get_size(BANKS[bank]())), '\0');
    api::PCR_DUMP &pcr = *record.add_pcrs();
    pcr.set_index(15);
    pcr.set_value(digest(BANKS[bank](), zeros + digest(BANKS[bank](), all)));
}

template <typename Record>
void quote_record(const forged &f, Record &record, const std::string &nonce, std::uint16_t bank,
                  const quote_edit &edit, std::uint16_t hash)
{
    TPMS_ATTEST quote{};
    quote.magic = TPM2_GENERATED_VALUE;
    quote.type = TPM2_ST_ATTEST_QUOTE;
    quote.extraData.size = static_cast<UINT16>(nonce.size());
    nonce.copy(reinterpret_cast<char *>(quote.extraData.buffer), nonce.size());
    TPML_PCR_SELECTION &selection = quote.attested.quote.pcrSelect;
    selection.count = 1;
    selection.pcrSelections[0] = {bank, 3, {}};
    std::map<std::uint32_t, std::string> values;
    for (const api::PCR_DUMP &pcr : record.pcrs()) {
        values[pcr.index()] = pcr.value();
        selection.pcrSelections[0].pcrSelect[pcr.index() / 8] |= static_cast<BYTE>(1U << pcr.index() % 8);
    }
    std::string joined;
    for (const auto &[index, value] : values)
        joined += value;
    TPM2B_DIGEST &pcr_digest = quote.attested.quote.pcrDigest;
    pcr_digest.size = 32;
    digest(EVP_sha256(), joined).copy(reinterpret_cast<char *>(pcr_digest.buffer), 32);
    if (edit)
        edit(quote);
    std::string bytes(sizeof quote, '\0');
    std::size_t size = 0;
    must(Tss2_MU_TPMS_ATTEST_Marshal(&quote, writable(bytes), bytes.size(), &size) == TSS2_RC_SUCCESS);
    record.set_quote(bytes.substr(0, size));
    record.set_quote_signature(tpm_signature(f, record.quote(), hash));
}

} // namespace

const forge_keys &keys()
{
    const auto ec = [] { return pkey_owner(EVP_EC_gen("P-256")); };
    const auto rsa = [] { return pkey_owner(EVP_RSA_gen(2048)); };
    static const forge_keys made{rsa(), rsa(), ec(), ec(), ec(), ec(), rsa(), ec()};
    return made;
}

std::string make_certificate(const certificate_plan &plan)
{
    const x509_owner made(X509_new());
    X509 *certificate = made.get();
    static long serial = 0;
    must(X509_set_version(certificate, X509_VERSION_3) == 1);
    must(ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial) == 1);
    add_name(X509_get_subject_name(certificate), plan.subject);
    add_name(X509_get_issuer_name(certificate), plan.issuer);
    must(X509_gmtime_adj(X509_getm_notBefore(certificate), plan.from_s) != nullptr);
    must(X509_gmtime_adj(X509_getm_notAfter(certificate), plan.to_s) != nullptr);
    must(X509_set_pubkey(certificate, plan.key) == 1);
    if (plan.constraints != nullptr)
        add_extension(certificate, NID_basic_constraints, plan.constraints);
    add_extension(certificate, NID_key_usage, plan.usage);
    if (plan.extended_usage != nullptr)
        add_extension(certificate, NID_ext_key_usage, plan.extended_usage);
    must(X509_sign(certificate, plan.issuer_key, plan.hash()) > 0);
    unsigned char *der = nullptr;
    const int length = i2d_X509(certificate, &der);
    must(length > 0);
    std::string out(reinterpret_cast<char *>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return out;
}

std::string pem_of(const std::string &der)
{
    const auto *at = reinterpret_cast<const unsigned char *>(der.data());
    const x509_owner certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    const bio_owner out(BIO_new(BIO_s_mem()));
    must(PEM_write_bio_X509(out.get(), certificate.get()) == 1);
    char *text = nullptr;
    const long length = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

certificate_plan root_plan(const char *name)
{
    EVP_PKEY *key = keys().root.get();
    return {name, key, name, key, "critical,CA:TRUE", "critical,keyCertSign"};
}

certificate_plan ca_plan(const char *root_name)
{
    return {"issuing CA",      keys().ca.get(),    root_name,
            keys().root.get(), "critical,CA:TRUE", "critical,keyCertSign"};
}

certificate_plan device_plan(EVP_PKEY *key)
{
    return {"device", key, "issuing CA", keys().ca.get()};
}

certificate_plan attestation_plan(EVP_PKEY *key)
{
    certificate_plan plan = device_plan(key);
    plan.extended_usage = "2.23.133.8.3";
    return plan;
}

namespace {

forged evidence_of(EVP_PKEY *identity, EVP_PKEY *attestation, const std::string &node_name,
                   std::uint32_t hash_algo)
{
    forged f{{}, {"roots.pem", {}}, identity, attestation};
    evidence &got = f.got;
    got.identity_request.set_cert_name("Kestrin VOXA");
    got.identity_request.set_nonce(std::string(32, 'v'));
    got.attestation_key_request.set_cert_name("Kestrin AIK");
    got.attestation_key_request.set_nonce(std::string(32, 'a'));
    got.pcrs_request.set_nonce(std::string(32, 'p'));
    got.hw_integrity_request.set_nonce(std::string(32, 'h'));
    got.hw_integrity_request.set_hash_algo(hash_algo);

    add_certificates(got.identity, node_name, "Kestrin VOXA", IDENTITY_ROOT, device_plan(f.identity_key));
    add_certificates(got.attestation_key, node_name, "Kestrin AIK", ATTESTATION_ROOT,
                     attestation_plan(f.attestation_key));
    f.roots.certificates = {got.identity.node_data(0).certs(0).data(),
                            got.attestation_key.node_data(0).certs(0).data()};
    sign_certificates(f);

    add_boot_log(got, node_name);
    api::NodePCRData &pcrs = *got.pcrs.add_node_data();
    pcrs.set_node_name(node_name);
    for (const std::string &value : pcr_values(got.boot_log.node_data(0))) {
        const auto index = static_cast<std::uint32_t>(pcrs.pcrs_size());
        got.pcrs_request.add_pcr_indices(index);
        api::PCR_DUMP &pcr = *pcrs.add_pcrs();
        pcr.set_index(index);
        pcr.set_value(value);
    }
    quote_pcrs(f);
    add_hardware(got, node_name, hash_algo);
    quote_hardware(f);
    return f;
}

} // namespace

forged good_evidence(const std::string &node_name, std::uint32_t hash_algo)
{
    return evidence_of(keys().identity.get(), keys().attestation.get(), node_name, hash_algo);
}

forged good_second_source(const std::string &node_name)
{
    return evidence_of(keys().second_identity.get(), keys().second_attestation.get(), node_name, 1);
}

void sign_certificates(forged &f)
{
    const auto sign_answer = [&f](const std::string &nonce, api::get_certificate_response &answer) {
        api::SystemCertificates &record = *answer.mutable_node_data(0);
        std::string data = nonce + "\0\0\0\2"s;
        for (const api::CERTIFICATE_ENTRY &entry : record.certs())
            data += entry.data();
        record.set_nonce(nonce);
        record.set_sig_alg(2);
        record.set_signature(sign(f.identity_key, EVP_sha256(), RSA_PKCS1_PADDING, data));
    };
    sign_answer(f.got.identity_request.nonce(), f.got.identity);
    sign_answer(f.got.attestation_key_request.nonce(), f.got.attestation_key);
}

void quote_pcrs(forged &f, const quote_edit &edit, std::uint16_t hash)
{
    quote_record(f, *f.got.pcrs.mutable_node_data(0), f.got.pcrs_request.nonce(), TPM2_ALG_SHA256, edit,
                 hash);
}

void quote_hardware(forged &f, const quote_edit &edit)
{
    quote_record(f, *f.got.hw_integrity.mutable_node_data(0), f.got.hw_integrity_request.nonce(),
                 BANK_IDS[f.got.hw_integrity_request.hash_algo()], edit, TPM2_ALG_SHA256);
}

std::string tpm_signature(const forged &f, const std::string &bytes, std::uint16_t hash)
{
    const EVP_MD *algorithm = hash == TPM2_ALG_SHA1 ? EVP_sha1() : EVP_sha256();
    TPMT_SIGNATURE made{};
    made.sigAlg = f.scheme;
    made.signature.any.hashAlg = hash;
    if (f.scheme == TPM2_ALG_ECDSA) {
        const std::string der = sign(f.attestation_key, algorithm, 0, bytes);
        const unsigned char *at = readable(der);
        ECDSA_SIG *pair = d2i_ECDSA_SIG(nullptr, &at, static_cast<long>(der.size()));
        TPMS_SIGNATURE_ECC &ecdsa = made.signature.ecdsa;
        ecdsa.signatureR.size = ecdsa.signatureS.size = 32;
        must(BN_bn2binpad(ECDSA_SIG_get0_r(pair), ecdsa.signatureR.buffer, 32) == 32);
        must(BN_bn2binpad(ECDSA_SIG_get0_s(pair), ecdsa.signatureS.buffer, 32) == 32);
        ECDSA_SIG_free(pair);
    } else {
        const int padding = f.scheme == TPM2_ALG_RSASSA ? RSA_PKCS1_PADDING : RSA_PKCS1_PSS_PADDING;
        const std::string signature = sign(f.attestation_key, algorithm, padding, bytes);
        made.signature.rsassa.sig.size = static_cast<UINT16>(signature.size());
        signature.copy(reinterpret_cast<char *>(made.signature.rsassa.sig.buffer), signature.size());
    }
    std::string out(sizeof made, '\0');
    std::size_t size = 0;
    must(Tss2_MU_TPMT_SIGNATURE_Marshal(&made, writable(out), out.size(), &size) == TSS2_RC_SUCCESS);
    return out.substr(0, size);
}

std::string digest(const EVP_MD *algorithm, const std::string &data)
{
    std::string out(static_cast<std::size_t>(EVP_MD_get_size(algorithm)), '\0');
    must(EVP_Digest(data.data(), data.size(), writable(out), nullptr, algorithm, nullptr) == 1);
    return out;
}

void grow(std::vector<api::IMA_EVENT> &list, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        api::IMA_EVENT &event = list.emplace_back();
        event.set_event_num(list.size());
        event.set_template_name("ima-ng");
        event.set_event_name("/usr/bin/tool-" + std::to_string(list.size()));
        event.set_digest_algo("sha256");
        event.set_digest(digest(EVP_sha256(), event.event_name()));
        event.set_pcr(10);
        event.set_duplicate(0);
        event.set_template_hash(digest(EVP_sha1(), template_data(event)));
    }
}

std::string template_data(const api::IMA_EVENT &event)
{
    const auto field = [](const std::string &bytes) {
        std::string size;
        for (unsigned shift = 0; shift < 32; shift += 8)
            size += static_cast<char>(bytes.size() >> shift & 0xff);
        return size + bytes;
    };
    return field(event.digest_algo() + ":\0"s + event.digest()) + field(event.event_name() + "\0"s);
}

std::string replayed(const std::vector<api::IMA_EVENT> &list)
{
    std::string value(32, '\0');
    for (const api::IMA_EVENT &event : list) {
        const std::string extended =
            is_violation(event) ? std::string(32, '\xff') : digest(EVP_sha256(), template_data(event));
        value = digest(EVP_sha256(), value + extended);
    }
    return value;
}
