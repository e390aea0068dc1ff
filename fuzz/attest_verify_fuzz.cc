// Evidence that a node made up: good evidence of which parts are replaced by any bytes, and signed again
// where a node could. It is judged without a fault, in rows of one line.
//
// The input: edits, each a kind (1 byte), a length (2 bytes) and that many bytes.
#include "attestctl/verify/judge.h"
#include "fuzz/fuzz_input.h"
#include "tests/attestctl/evidence_forge.h"

namespace {

constexpr subject ALL[] = {subject::identity, subject::attestation_key, subject::quote,
                           subject::boot_log, subject::ima_list,        subject::hardware};

// Parses the bytes over what is there, as far as they are a message of this type.
template <typename Message>
void replace(Message &message, const std::string &bytes)
{
    Message parsed;
    if (parsed.ParseFromString(bytes))
        message = parsed;
}

api::CERTIFICATE_ENTRY &certificate(api::get_certificate_response &answer, unsigned index)
{
    api::SystemCertificates &record = *answer.mutable_node_data(0);
    while (record.certs_size() < 3)
        record.add_certs();
    return *record.mutable_certs(static_cast<int>(index % 3));
}

template <typename Record>
void quote_bytes(const forged &f, Record &record, const std::string &bytes)
{
    record.set_quote(bytes);
    record.set_quote_signature(tpm_signature(f, bytes));
}

// The messages of the IMA list are kept: they are taken when the values that they are compared with are
// there.
void edit(forged &f, std::vector<std::string> &ima_messages, std::uint8_t kind, const std::string &bytes)
{
    evidence &got = f.got;
    for (auto *answer : {&got.identity, &got.attestation_key})
        if (answer->node_data_size() == 0)
            answer->add_node_data();
    if (got.pcrs.node_data_size() == 0)
        got.pcrs.add_node_data();
    if (got.hw_integrity.node_data_size() == 0)
        got.hw_integrity.add_node_data();
    switch (kind % 16) {
    case 0:
        return quote_bytes(f, *got.pcrs.mutable_node_data(0), bytes);
    case 1:
        return got.pcrs.mutable_node_data(0)->set_quote_signature(bytes);
    case 2:
        return quote_bytes(f, *got.hw_integrity.mutable_node_data(0), bytes);
    case 3:
        return got.hw_integrity.mutable_node_data(0)->set_quote_signature(bytes);
    case 4:
        return certificate(got.identity, kind / 16u).set_data(bytes);
    case 5:
        certificate(got.identity, kind / 16u).set_data(bytes);
        return sign_certificates(f);
    case 6:
        return certificate(got.attestation_key, kind / 16u).set_data(bytes);
    case 7:
        return got.identity.mutable_node_data(0)->set_signature(bytes);
    case 8:
        return replace(got.identity, bytes);
    case 9:
        return replace(got.attestation_key, bytes);
    case 10:
        return replace(got.pcrs, bytes);
    case 11:
        return replace(got.boot_log, bytes);
    case 12:
        return replace(got.hw_integrity, bytes);
    case 13:
        return replace(got.pcrs_request, bytes);
    case 14:
        f.roots.certificates = {bytes};
        return;
    default:
        ima_messages.push_back(bytes);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const google::protobuf::LogSilencer quiet;
    static const forged good = good_evidence();
    forged f = good;
    std::vector<std::string> ima_messages;
    fuzz_input input{{data, size}};
    for (int edits = 0; !input.at_end() && edits < 8; ++edits) {
        const std::uint8_t kind = input.u8();
        edit(f, ima_messages, kind, std::string(input.text(input.u16())));
    }
    for (const std::string &bytes : ima_messages) {
        api::NodeIMAData message;
        if (message.ParseFromString(bytes))
            take_ima_message(f.got.ima_lists, message, f.got.pcrs);
    }
    const std::vector<check> rows = judge(f.got, ALL, f.roots);
    require(!rows.empty());
    for (const check &row : rows)
        require(!row.name.empty() && row.reason.find('\n') == std::string::npos);
    static_cast<void>(verdict_line(rows, f.roots.pinned()));
    return 0;
}
