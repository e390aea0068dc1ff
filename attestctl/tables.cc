#include "attestctl/tables.h"

#include <map>

#include "attestctl/certificate_text.h"
#include "attestctl/text.h"
#include "attestctl/verify/ima_list.h"

namespace {

template <typename Record>
std::string source_of(const Record &record)
{
    std::optional<std::uint64_t> uptime;
    if constexpr (requires { record.uptime(); })
        if (record.has_uptime())
            uptime = record.uptime();
    return source_text(record.has_node_name() ? &record.node_name() : nullptr, uptime);
}

template <typename Record>
void append_quote(std::string &out, const Record &record)
{
    if (!record.has_quote()) {
        out += "  no quote\n";
        return;
    }
    out += "  quote of " + counted(record.quote().size(), "byte") + ", signature of " +
           counted(record.quote_signature().size(), "byte") + '\n';
}

template <typename Pcrs>
void append_pcrs(std::string &out, const Pcrs &pcrs)
{
    for (const api::PCR_DUMP &pcr : pcrs)
        out += format("  PCR %2u  ", pcr.index()) +
               (pcr.has_value() ? hex_preview(pcr.value(), 64) : "(no value)") + '\n';
}

void append_certificates(std::string &out, const api::SystemCertificates &record)
{
    out += source_of(record) + '\n';
    for (const api::CERTIFICATE_ENTRY &entry : record.certs()) {
        out += "  " + printable(entry.name()) + '\n';
        for (const std::string &line : certificate_lines(entry.data()))
            out += "    " + line + '\n';
    }
    if (!record.has_signature()) {
        out += "  no signature\n";
        return;
    }
    out += "  signature of " + counted(record.signature().size(), "byte") +
           format(", algorithm %u", record.sig_alg()) + ", over nonce " + hex_preview(record.nonce(), 64) +
           '\n';
}

// One line where both lists have the same digest for an identifier, two where they do not.
void append_identifiers(std::string &out, const api::tpm_hw_integrity &record)
{
    struct both {
        const std::string *recorded = nullptr, *now = nullptr;
    };
    std::map<std::uint32_t, both> rows;
    for (const api::UID_DIGEST &uid : record.uid_digests_db0())
        rows[uid.index()].recorded = &uid.digest();
    for (const api::UID_DIGEST &uid : record.uid_digests_db1())
        rows[uid.index()].now = &uid.digest();
    for (const auto &[index, digests] : rows) {
        const auto text = [](const std::string *digest) {
            return digest ? hex_preview(*digest, 64) : "(none)";
        };
        if (digests.recorded && digests.now && *digests.recorded == *digests.now)
            out += format("%4u  same      ", index) + text(digests.now) + '\n';
        else
            out += format("%4u  recorded  ", index) + text(digests.recorded) + "\n      now       " +
                   text(digests.now) + '\n';
    }
}

} // namespace

std::string source_text(const std::string *node_name, std::optional<std::uint64_t> uptime_s)
{
    return "node " + (node_name ? printable(*node_name) : "(without a name)") +
           (uptime_s ? ", up " + uptime_text(*uptime_s) : "");
}

std::string uptime_text(std::uint64_t seconds)
{
    const auto part = [](std::uint64_t value) { return static_cast<unsigned>(value); };
    return (seconds >= 86400 ? grouped(seconds / 86400) + " d " : "") +
           format("%02u:%02u:%02u", part(seconds / 3600 % 24), part(seconds / 60 % 60), part(seconds % 60));
}

void append_table(std::string &out, const api::get_certificate_response &answer)
{
    for (const api::SystemCertificates &record : answer.node_data())
        append_certificates(out, record);
}

void append_table(std::string &out, const api::attest_pcr_response &answer)
{
    for (const api::NodePCRData &record : answer.node_data()) {
        out += source_of(record) + '\n';
        append_pcrs(out, record.pcrs());
        append_quote(out, record);
    }
}

void append_table(std::string &out, const api::get_platform_hw_integrity_response &answer)
{
    for (const api::tpm_hw_integrity &record : answer.node_data()) {
        out += source_of(record) + ", source " + printable(record.source_name()) + '\n';
        append_identifiers(out, record);
        append_pcrs(out, record.pcrs());
        append_quote(out, record);
        if (record.has_key_cert_name())
            out += "  signed by the key of \"" + printable(record.key_cert_name()) + "\"\n";
    }
}

void append_ima_head(std::string &out, const api::NodeIMAData &record)
{
    out += source_of(record) + "\n  event  PCR  marks (D duplicate, V violation, S signed)  template  "
                               "template hash  file digest  file name\n";
}

void append_ima_event(std::string &out, const api::IMA_EVENT &event)
{
    // Marks stand before the first text that comes from a file's name, so that no name can pretend to have
    // them.
    out += format("%7lu  %3u  ", static_cast<unsigned long>(event.event_num()), event.pcr());
    out += event.duplicate() != 0 ? 'D' : '-';
    out += is_violation(event) ? 'V' : '-';
    out += event.has_signature() && !event.signature().empty() ? 'S' : '-';
    const std::string algorithm =
        event.has_digest_algo() ? printable(event.digest_algo(), 32) + ":" : std::string();
    out += "  " + printable(event.template_name(), 64) + "  " + hex_preview(event.template_hash(), 64) +
           "  " + (event.has_digest() ? algorithm + hex_preview(event.digest(), 64) : "(no digest)") + "  " +
           (event.has_event_name() ? printable(event.event_name(), MAX_NAME_BYTES) : "(no name)") + '\n';
}
