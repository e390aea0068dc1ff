#include "attestctl/verify/quote.h"

#include <algorithm>

#include <openssl/ecdsa.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <tss2/tss2_mu.h>

#include "attestctl/certificate_text.h"
#include "attestctl/text.h"
#include "attestctl/verify/pcr_set.h"

namespace {

using ecdsa_owner = std::unique_ptr<ECDSA_SIG, openssl_deleter<ECDSA_SIG_free>>;

const std::uint8_t *bytes_of(const std::string &text)
{
    return reinterpret_cast<const std::uint8_t *>(text.data());
}

std::string_view text_of(const std::uint8_t *bytes, std::size_t size)
{
    return {reinterpret_cast<const char *>(bytes), size};
}

// Reads the structure that `bytes` are, whole.
template <auto Unmarshal, typename Structure>
bool read_whole(const std::string &bytes, Structure &into)
{
    std::size_t offset = 0;
    return Unmarshal(bytes_of(bytes), bytes.size(), &offset, &into) == TSS2_RC_SUCCESS &&
           offset == bytes.size();
}

finding check_values(const quote_request &asked, const pcr_list &pcrs)
{
    if (static_cast<std::size_t>(pcrs.size()) != asked.pcrs.size())
        return failed(counted(static_cast<std::uint64_t>(pcrs.size()), "value") + " came for " +
                      counted(asked.pcrs.size(), "PCR"));
    for (int i = 0; i < pcrs.size(); ++i) {
        const std::uint32_t wanted = asked.pcrs[static_cast<std::size_t>(i)];
        if (!pcrs[i].has_index() || pcrs[i].index() != wanted)
            return failed(format("value %d is of PCR %u, not of PCR %u", i + 1, pcrs[i].index(), wanted));
        if (pcrs[i].value().size() != asked.bank->size)
            return failed(format("PCR %u has a value of %zu bytes, ", wanted, pcrs[i].value().size()) +
                          asked.bank->name + format(" has %zu", asked.bank->size));
        if (value_of(pcrs, wanted) == nullptr)
            return failed(format("PCR %u came with different values", wanted));
    }
    return passed(counted(asked.pcrs.size(), "value") + " of bank " + asked.bank->name);
}

// `quote` is filled as far as a quote was read; only `readable` allows to look into it, also where the form
// failed.
finding check_form(const std::string *bytes, TPMS_ATTEST &quote, bool &readable)
{
    readable = false;
    if (bytes == nullptr)
        return failed("the record has no quote");
    if (!read_whole<Tss2_MU_TPMS_ATTEST_Unmarshal>(*bytes, quote))
        return failed("the quote is no whole TPMS_ATTEST");
    if (quote.type != TPM2_ST_ATTEST_QUOTE)
        return failed(format("attests something else than PCRs: type 0x%04x", quote.type));
    readable = true;
    if (quote.magic != TPM2_GENERATED_VALUE)
        return failed(format("not made by a TPM: it begins with 0x%08x", quote.magic));
    return passed("a quote, marked as made by a TPM");
}

finding check_nonce(const std::string &nonce, const TPMS_ATTEST &quote)
{
    if (nonce.empty())
        return not_made("no nonce was sent: the quote may be an old one");
    const std::string_view quoted = text_of(quote.extraData.buffer, quote.extraData.size);
    return quoted == nonce ? passed("the one that was sent")
                           : failed("not the one that was sent: " + hex_preview(quoted));
}

// The one bank and its PCRs that the quote is over; false: it is over several, or none.
bool quoted_pcrs(const TPMS_ATTEST &quote, std::uint16_t &bank, pcr_set &pcrs)
{
    const TPML_PCR_SELECTION &selection = quote.attested.quote.pcrSelect;
    if (selection.count != 1)
        return false;
    const TPMS_PCR_SELECTION &one = selection.pcrSelections[0];
    if (one.sizeofSelect > sizeof one.pcrSelect)
        return false;
    bank = one.hash;
    for (std::uint32_t i = 0; i < 8U * one.sizeofSelect; ++i)
        pcrs[i] = (one.pcrSelect[i / 8] >> (i % 8) & 1) != 0;
    return true;
}

finding check_selection(const quote_request &asked, const TPMS_ATTEST &quote)
{
    std::uint16_t bank = 0;
    pcr_set quoted;
    if (!quoted_pcrs(quote, bank, quoted))
        return failed("of " + counted(quote.attested.quote.pcrSelect.count, "bank"));
    if (bank != asked.bank->tpm_id)
        return failed(format("of bank 0x%04x, asked was for ", bank) + asked.bank->name);
    pcr_set wanted;
    for (const std::uint32_t index : asked.pcrs) {
        if (index >= wanted.size())
            return failed(format("PCR %u cannot be quoted", index));
        wanted.set(index);
    }
    return quoted == wanted ? passed(pcr_text(quoted) + " of bank " + asked.bank->name)
                            : failed("of " + pcr_text(quoted) + ", asked was for " + pcr_text(wanted));
}

// The TPM hashes the values in the order of their indices, by the hash of the signature's scheme.
finding check_digest(const pcr_list &pcrs, const TPMS_ATTEST &quote, const hash_algorithm *hash)
{
    std::uint16_t bank = 0;
    pcr_set quoted;
    if (hash == nullptr)
        return not_made("the signature does not say by which hash");
    if (!quoted_pcrs(quote, bank, quoted))
        return not_made("the quote is not of one bank");
    std::string values;
    for (std::uint32_t index = 0; index < quoted.size(); ++index) {
        if (!quoted[index])
            continue;
        const std::string *value = value_of(pcrs, index);
        if (value == nullptr)
            return not_made(format("there is no one value of PCR %u, which is quoted", index));
        values += *value;
    }
    const TPM2B_DIGEST &digest = quote.attested.quote.pcrDigest;
    const std::string expected = digest_of(*hash, {values});
    return !expected.empty() && text_of(digest.buffer, digest.size) == expected
               ? passed("that of the values in the answer")
               : failed("not that of the values in the answer");
}

// The parts that the schemes have in common; RSASSA, RSAPSS and ECDSA have their hash at the same place.
struct quote_signature {
    TPMT_SIGNATURE scheme;
    std::string bytes; // as OpenSSL takes them
    const char *key_type = nullptr;
    const hash_algorithm *hash = nullptr; // none: the signature cannot be read
};

std::string ecdsa_der(const TPMS_SIGNATURE_ECC &signature)
{
    const ecdsa_owner pair(ECDSA_SIG_new());
    BIGNUM *r = BN_bin2bn(signature.signatureR.buffer, signature.signatureR.size, nullptr);
    BIGNUM *s = BN_bin2bn(signature.signatureS.buffer, signature.signatureS.size, nullptr);
    if (!pair || r == nullptr || s == nullptr || ECDSA_SIG_set0(pair.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return {};
    }
    unsigned char *der = nullptr;
    const int length = i2d_ECDSA_SIG(pair.get(), &der);
    std::string out(text_of(der, length > 0 ? static_cast<std::size_t>(length) : 0));
    OPENSSL_free(der);
    return out;
}

// An empty text: it was read.
std::string read_signature(const std::string *bytes, quote_signature &into)
{
    if (bytes == nullptr)
        return "the record has no signature of the quote";
    if (!read_whole<Tss2_MU_TPMT_SIGNATURE_Unmarshal>(*bytes, into.scheme))
        return "the signature is no whole TPMT_SIGNATURE";
    const TPMU_SIGNATURE &signature = into.scheme.signature;
    switch (into.scheme.sigAlg) {
    case TPM2_ALG_RSASSA:
    case TPM2_ALG_RSAPSS:
        into.key_type = "RSA";
        into.bytes = text_of(signature.rsassa.sig.buffer, signature.rsassa.sig.size);
        break;
    case TPM2_ALG_ECDSA:
        into.key_type = "EC";
        into.bytes = ecdsa_der(signature.ecdsa);
        break;
    default:
        return format("a signature of scheme 0x%04x, which is none for quotes", into.scheme.sigAlg);
    }
    into.hash = hash_by_tpm_id(signature.any.hashAlg);
    if (into.hash == nullptr)
        return format("a signature by hash 0x%04x, which is unknown", signature.any.hashAlg);
    return {};
}

bool is_signed_by(EVP_PKEY *key, const quote_signature &signature, const std::string &quote)
{
    const md_ctx_owner state(EVP_MD_CTX_new());
    EVP_PKEY_CTX *scheme = nullptr; // belongs to `state`
    bool good = state && EVP_DigestVerifyInit(state.get(), &scheme, signature.hash->md(), nullptr, key) == 1;
    if (good && signature.scheme.sigAlg == TPM2_ALG_RSASSA)
        good = EVP_PKEY_CTX_set_rsa_padding(scheme, RSA_PKCS1_PADDING) == 1;
    if (good && signature.scheme.sigAlg == TPM2_ALG_RSAPSS)
        good = EVP_PKEY_CTX_set_rsa_padding(scheme, RSA_PKCS1_PSS_PADDING) == 1 &&
               EVP_PKEY_CTX_set_rsa_pss_saltlen(scheme, RSA_PSS_SALTLEN_AUTO) == 1;
    good = good && EVP_DigestVerify(state.get(), bytes_of(signature.bytes), signature.bytes.size(),
                                    bytes_of(quote), quote.size()) == 1;
    ERR_clear_error();
    return good;
}

finding check_signature(const std::string *quote, const quote_signature &signature,
                        const std::string &problem, const X509 *attestation_key)
{
    if (signature.hash == nullptr)
        return failed(problem);
    if (quote == nullptr)
        return not_made("there is no quote");
    if (signature.hash->number == 0)
        return failed("by SHA-1, which is too weak for signatures");
    if (attestation_key == nullptr)
        return not_made("there is no certificate of the attestation key");
    EVP_PKEY *key = X509_get0_pubkey(attestation_key);
    if (key == nullptr || EVP_PKEY_is_a(key, signature.key_type) != 1)
        return failed(std::string("of a kind that needs a key of type ") + signature.key_type);
    return is_signed_by(key, signature, *quote)
               ? passed("by the key of " + subject_text(*attestation_key))
               : failed("not by the key of " + subject_text(*attestation_key));
}

} // namespace

std::optional<boot_counts> boot_of(const remote_attestation_api::NodePCRData &record)
{
    TPMS_ATTEST quote{};
    if (!record.has_quote() || !read_whole<Tss2_MU_TPMS_ATTEST_Unmarshal>(record.quote(), quote))
        return std::nullopt;
    return boot_counts{quote.clockInfo.resetCount, quote.clockInfo.restartCount};
}

const std::string *value_of(const pcr_list &pcrs, std::uint32_t index)
{
    constexpr int MOST_VALUES = 255; // what a request may ask for
    if (pcrs.size() > MOST_VALUES)
        return nullptr;
    const std::string *value = nullptr;
    for (const remote_attestation_api::PCR_DUMP &pcr : pcrs) {
        if (!pcr.has_index() || pcr.index() != index)
            continue;
        if (!pcr.has_value() || (value != nullptr && *value != pcr.value()))
            return nullptr;
        value = &pcr.value();
    }
    return value;
}

void check_quote(check_list &list, const std::string &subject, const quote_request &asked,
                 const quote_answer &answer, const X509 *attestation_key)
{
    add(list, subject + " values", check_values(asked, *answer.pcrs));

    TPMS_ATTEST quote{};
    bool readable = false;
    add(list, subject + " form", check_form(answer.quote, quote, readable));
    quote_signature signature{};
    const std::string problem = read_signature(answer.signature, signature);
    const finding unreadable = not_made("there is no quote that can be read");
    add(list, subject + " nonce", readable ? check_nonce(asked.nonce, quote) : unreadable);
    add(list, subject + " selection", readable ? check_selection(asked, quote) : unreadable);
    add(list, subject + " digest", readable ? check_digest(*answer.pcrs, quote, signature.hash) : unreadable);
    add(list, subject + " signature", check_signature(answer.quote, signature, problem, attestation_key));
}
