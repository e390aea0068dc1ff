// Provisioning, in an order that an interruption at any point leaves the node as it was or as it shall be.
#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include <openssl/rand.h>

#include "platform/tpm/reference_list.h"
#include "tools/attest_provision/authority.h"
#include "tools/attest_provision/commands.h"
#include "tools/attest_provision/node_directory.h"
#include "tools/attest_provision/report.h"
#include "tools/attest_provision/tpm_keys.h"

namespace {

constexpr std::size_t KEY_COUNT = std::size(CERTIFIED_KEYS);

struct run {
    explicit run(const provision_options &chosen) : options(chosen) {}

    const provision_options &options;
    node_directory directory;
    manifest old; // of an earlier provisioning, or empty
    kov_status old_status = KOV_ERR_NOT_PROVISIONED;
    authority ca;
    std::unique_ptr<tpm_connection> tpm;
    inventory held;
    inventory before; // what earlier runs left in it
    manifest made;
    std::string folder;
};

bool in_manifest(const manifest &in, const inventory_key &key)
{
    return std::any_of(in.keys.begin(), in.keys.end(), [&](const manifest_key &one) {
        return one.handle == key.handle && hex_text(one.tpm_name.data(), one.tpm_name.size()) == key.tpm_name;
    });
}

bool in_manifest(const manifest &in, const std::string &folder)
{
    return std::any_of(in.objects.begin(), in.objects.end(),
                       [&](const manifest_object &one) { return one.file.starts_with(folder + "/"); });
}

// Removes what the inventory lists and the manifest does not have: leftovers of an interrupted run before the
// commit, the replaced keys and certificates after it.
bool clear_unreferenced(run &now, const manifest &in_force)
{
    inventory kept;
    for (const inventory_key &key : now.held.keys) {
        if (in_manifest(in_force, key))
            kept.keys.push_back(key);
        else if (!tpm_evict_key(*now.tpm, key.handle, key.tpm_name))
            return false;
    }
    for (const std::string &folder : now.held.folders) {
        if (in_manifest(in_force, folder))
            kept.folders.push_back(folder);
        else if (!node_directory_remove_folder(now.directory, folder))
            return false;
    }
    const bool changed =
        kept.keys.size() != now.held.keys.size() || kept.folders.size() != now.held.folders.size();
    now.held = std::move(kept);
    return !changed || inventory_write(now.directory, now.held);
}

// Whether a manifest tells which keys are in force. What one has that cannot be read stays until a new one is
// there: it may come back from a backup.
bool is_known(kov_status loaded)
{
    return loaded == KOV_SUCCESS || loaded == KOV_ERR_NOT_PROVISIONED;
}

// Removes what this run has made: a manifest that is damaged has none of it.
bool take_back(run &now)
{
    const auto is_older = [&now](const inventory_key &key) {
        return std::any_of(now.before.keys.begin(), now.before.keys.end(), [&key](const inventory_key &old) {
            return old.handle == key.handle && old.tpm_name == key.tpm_name;
        });
    };
    for (const inventory_key &key : now.held.keys)
        if (!is_older(key) && !tpm_evict_key(*now.tpm, key.handle, key.tpm_name))
            return false;
    if (!node_directory_remove_folder(now.directory, now.folder))
        return false;
    now.held = now.before;
    return inventory_write(now.directory, now.held);
}

// False, and *status set, when the node is provisioned already and that is to stay.
bool may_provision(run &now, int *status)
{
    now.old_status = manifest_load(now.directory.manifest_path, now.old);
    *status = EXIT_REFUSED;
    if (now.old_status == KOV_ERR_NOT_PROVISIONED || now.options.force)
        return true;
    return complain(
        now.directory.manifest_path +
        (now.old_status == KOV_SUCCESS ? ": this node is provisioned" : ": damaged or unreadable") +
        " (--force replaces keys and certificates)");
}

bool name_folder(run &now)
{
    std::array<std::uint8_t, 8> random{};
    if (RAND_bytes(random.data(), random.size()) != 1)
        return complain_of_openssl("no random bytes");
    now.folder = "certificates-" + hex_text(random.data(), random.size());
    return true;
}

// The inventory knows of keys and folder before they are there.
bool announce(run &now, const std::array<made_key, KEY_COUNT> &keys,
              const std::vector<std::uint32_t> &handles)
{
    for (std::size_t i = 0; i < KEY_COUNT; ++i)
        now.held.keys.push_back({handles[i], keys[i].tpm_name});
    now.held.folders.push_back(now.folder);
    return inventory_write(now.directory, now.held);
}

std::string text_of(const std::vector<std::uint8_t> &bytes)
{
    return {bytes.begin(), bytes.end()};
}

bool store_object(run &now, const char *name, const std::string &content)
{
    const std::string file = now.folder + "/" + name + ".der";
    now.made.objects.push_back({name, file, 0});
    return node_directory_write(now.directory, file, content);
}

bool store_certificates(run &now, const std::array<made_key, KEY_COUNT> &keys)
{
    const std::string path = now.directory.path + "/" + now.folder;
    if (mkdir(path.c_str(), 0755) != 0)
        return complain_of_errno("cannot make " + path, errno);
    const std::string chain =
        text_of(certificate_der(now.ca.issuing_ca.get())) + text_of(certificate_der(now.ca.root.get()));
    for (std::size_t i = 0; i < KEY_COUNT; ++i) {
        const auto kind =
            CERTIFIED_KEYS[i].restricted ? certificate_kind::attestation : certificate_kind::device_identity;
        const x509_certificate issued =
            authority_certify(now.ca, kind, now.options.node_name, keys[i].public_key.get());
        if (!issued)
            return false;
        const std::vector<std::uint8_t> der = certificate_der(issued.get());
        if (der.empty())
            return complain("the certificate issued does not fit the chain format");
        if (!store_object(now, CERTIFIED_KEYS[i].certificate_object, text_of(der)) ||
            !store_object(now, CERTIFIED_KEYS[i].chain_object, chain))
            return false;
    }
    return true;
}

// Keys in the TPM, certificates in their folder; nothing refers to them yet.
bool make_material(run &now)
{
    std::array<made_key, KEY_COUNT> keys;
    transient_object root;
    if (!tpm_make_storage_root(*now.tpm, root))
        return false;
    for (std::size_t i = 0; i < KEY_COUNT; ++i) {
        if (!tpm_make_key(*now.tpm, root, CERTIFIED_KEYS[i].restricted, keys[i]))
            return false;
    }
    std::vector<std::uint32_t> handles;
    if (!tpm_free_handles(*now.tpm, KEY_COUNT, handles) || !announce(now, keys, handles) ||
        !store_certificates(now, keys))
        return false;
    for (std::size_t i = 0; i < KEY_COUNT; ++i) {
        if (!tpm_make_persistent(*now.tpm, keys[i], handles[i]))
            return false;
        std::vector<std::uint8_t> tpm_name;
        hex_value(keys[i].tpm_name, tpm_name);
        now.made.keys.push_back({CERTIFIED_KEYS[i].key_name, handles[i], std::move(tpm_name)});
    }
    return true;
}

bool commit(run &now)
{
    now.made.node = now.options.node_name;
    now.made.demonstration_ca = now.ca.demonstration;
    if (!reference_list_make(board_identifiers_read(this_board()), now.made.identifiers))
        return complain_of_openssl("cannot digest the board's identifiers");
    const std::string text = manifest_text(now.made);
    if (text.size() > MANIFEST_MAX_BYTES)
        return complain("the manifest is too large");
    return node_directory_write(now.directory,
                                now.directory.manifest_path.substr(now.directory.path.size() + 1), text);
}

bool bind_to_pcr(run &now)
{
    bool extended = false;
    std::vector<bank_binding> banks;
    kov_status status = reference_list_bind(*now.tpm, now.made.identifiers, &extended);
    if (status == KOV_SUCCESS)
        status = reference_binding_read(*now.tpm, now.made.identifiers, banks);
    if (status != KOV_SUCCESS)
        return complain_of_status("PCR 15 is not extended with the reference list", status);
    for (const bank_binding &one : banks) {
        const char *state =
            extended ? "extended with the reference list" : "holds the reference list already";
        if (one.state != pcr_binding::bound)
            state = "was extended with something else; the reference list is bound after a reboot";
        say("PCR 15 (%s): %s\n", one.bank->name, state);
    }
    return true;
}

void tell(const run &now)
{
    say("node: %s\n", now.made.node.c_str());
    say("certified by: %s%s\n", certificate_subject(now.ca.issuing_ca.get()).c_str(),
        now.ca.demonstration ? " (a demonstration CA: no verifier should trust it)" : "");
    for (const manifest_key &key : now.made.keys)
        say("key %s: 0x%08x\n", key.name.c_str(), key.handle);
    for (const manifest_object &object : now.made.objects)
        say("object %s: %s/%s\n", object.name.c_str(), now.directory.path.c_str(), object.file.c_str());
    say("reference list: %zu identifiers\n", now.made.identifiers.size());
    say("manifest: %s\n", now.directory.manifest_path.c_str());
}

bool prepare(run &now, int *status)
{
    if (!node_directory_open(now.options.manifest_path, now.directory) || !may_provision(now, status))
        return false;
    *status = EXIT_FAILED;
    const bool have_ca = now.options.ca_certificate.empty()
                             ? authority_make_demonstration(now.ca)
                             : authority_load(now.options.ca_certificate, now.options.ca_key, now.ca);
    if (!have_ca || !tpm_connect(now.tpm))
        return false;
    now.held = inventory_read(now.directory);
    if (is_known(now.old_status) && !clear_unreferenced(now, now.old))
        return false;
    now.before = now.held;
    return name_folder(now);
}

} // namespace

int provision(const provision_options &options)
{
    run now(options);
    int status = EXIT_FAILED;
    if (!prepare(now, &status))
        return status;
    if (!make_material(now) || !commit(now)) {
        manifest in_force; // the disk says which it is: a failure may come after the rename
        const kov_status loaded = manifest_load(now.directory.manifest_path, in_force);
        if (is_known(loaded))
            clear_unreferenced(now, in_force);
        else if (loaded == KOV_ERR_MANIFEST)
            take_back(now);
        return EXIT_FAILED;
    }
    tell(now);
    const bool cleared = clear_unreferenced(now, now.made);
    const bool bound = bind_to_pcr(now);
    return cleared && bound ? EXIT_DONE : EXIT_FAILED;
}
