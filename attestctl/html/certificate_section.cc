#include "attestctl/certificate_text.h"
#include "attestctl/html/sections.h"
#include "attestctl/text.h"

namespace {

void append_certificate(html &out, const api::CERTIFICATE_ENTRY &entry)
{
    out << "<li><h5>" << printable(entry.name(), 64) << "</h5>";
    std::string error;
    const x509_owner certificate = read_certificate(entry.data(), error);
    if (!certificate) {
        out << "<p class=note>" << error << "</p></li>";
        return;
    }
    const certificate_facts facts = facts_of(*certificate, entry.data());
    out << "<dl><div><dt>subject</dt><dd>" << facts.subject << "</dd></div><div><dt>issuer</dt><dd>"
        << facts.issuer << "</dd></div><div><dt>valid</dt><dd>" << facts.valid_from << " to "
        << facts.valid_to << "</dd></div><div><dt>key</dt><dd>" << facts.key
        << "</dd></div><div><dt>SHA-256</dt><dd><code>" << facts.sha256 << "</code></dd></div></dl></li>";
}

void append_chain(html &out, markup title, const page_input &input, const page_source &from,
                  std::string_view check_name, std::string_view signature_check,
                  const api::SystemCertificates *record)
{
    out << "<div class=chain><h4>" << title << " ";
    const check *chain = find_check(input, from, check_name);
    if (chain != nullptr)
        append_outcome(out, chain->outcome);
    out << "</h4>";
    if (record == nullptr) {
        out << "<p class=note>No certificates came from this source.</p></div>";
        return;
    }
    // From the device up to what vouches for it.
    constexpr int MOST_LISTED = 8;
    out << "<ol>";
    for (int i = std::min(record->certs_size(), MOST_LISTED); i-- > 0;)
        append_certificate(out, record->certs(i));
    out << "</ol>";
    if (record->certs_size() > MOST_LISTED)
        out << "<p class=note>" << static_cast<std::uint64_t>(record->certs_size() - MOST_LISTED)
            << " more came and are not shown.</p>";
    if (record->has_signature())
        out << "<p class=note>Signature over nonce " << hex_preview(record->nonce())
            << " and the certificates ";
    else
        out << "<p class=note>Without a signature ";
    if (const check *signature = find_check(input, from, signature_check))
        append_outcome(out, signature->outcome);
    out << "</p></div>";
}

} // namespace

void append_certificates(html &out, const page_input &input, const std::vector<page_source> &sources)
{
    open_section(
        out, "certificates", "Certificates",
        "Who the node says it is, and the key that signs its quotes: each from the device's certificate to "
        "the root.");
    for (const page_source &from : sources) {
        open_source(out, from, from.records.identity != nullptr || from.records.attestation_key != nullptr);
        out << "<div class=chains>";
        append_chain(out, "Device identity", input, from, "identity chain", "identity signature",
                     from.records.identity);
        append_chain(out, "Attestation key", input, from, "attestation key chain",
                     "attestation key signature", from.records.attestation_key);
        out << "</div>";
        close_source(out);
    }
    close_section(out);
}
