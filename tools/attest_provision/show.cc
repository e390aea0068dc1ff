// What a provisioned node has, from its files alone.
#include "platform/small_file.h"
#include "platform/tpm/manifest.h"
#include "tools/attest_provision/certificates.h"
#include "tools/attest_provision/commands.h"
#include "tools/attest_provision/report.h"

namespace {

void show_certificates(const std::vector<std::uint8_t> &content)
{
    std::vector<std::uint8_t> rest = content;
    while (!rest.empty()) {
        const std::vector<std::uint8_t> at = rest;
        const x509_certificate one = certificate_parse(at, &rest);
        if (!one) {
            say("    %zu bytes that are no certificate\n", at.size());
            return;
        }
        say("    %s, until %s\n", certificate_subject(one.get()).c_str(),
            certificate_not_after(one.get()).c_str());
    }
}

void show_object(const manifest &node, const manifest_object &object)
{
    if (object.file.empty()) {
        say("object %s: NV index 0x%08x\n", object.name.c_str(), object.nv_index);
        return;
    }
    say("object %s: %s\n", object.name.c_str(), object.file.c_str());
    std::vector<std::uint8_t> content;
    const int error = small_file_read(node.directory + "/" + object.file, KOV_MAX_OBJECT_BYTES, content);
    if (error != 0)
        complain_of_errno(object.file, error);
    else
        show_certificates(content);
}

} // namespace

int show(const std::string &manifest_path)
{
    manifest node;
    const kov_status status = manifest_load(manifest_path, node);
    if (status != KOV_SUCCESS) {
        complain_of_status(manifest_path, status);
        return EXIT_REFUSED;
    }
    say("node: %s\n", node.node.c_str());
    say("certified by: %s\n", node.demonstration_ca ? "a DEMONSTRATION CA" : "the operator's CA");
    for (const manifest_key &key : node.keys)
        say("key %s: 0x%08x, name %s\n", key.name.c_str(), key.handle,
            hex_text(key.tpm_name.data(), key.tpm_name.size()).c_str());
    for (const manifest_object &object : node.objects)
        show_object(node, object);
    say("reference list: %zu identifiers\n", node.identifiers.size());
    const tpm_algorithm &sha256 = *tpm_algorithm_of_number(KOV_ALG_SHA256);
    for (const manifest_identifier &one : node.identifiers)
        say("    %s %s\n", hex_text(one.digests[KOV_ALG_SHA256 - 1].data(), sha256.digest_size).c_str(),
            one.place.c_str());
    return EXIT_DONE;
}
