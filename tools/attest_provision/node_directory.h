// The directory of a provisioned node: the manifest, one folder of certificates, and the inventory.
//
// The manifest's rename is the commit: before it the node is as it was, after it the new keys and
// certificates are in force. The inventory lists what this program has put into the TPM and the directory; it
// is on disk before they are, and its entries stay until they are gone. So whatever an interrupted run
// leaves, the next one finds in the inventory and not in the manifest, and clears away.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/owners.h"
#include "platform/tpm/manifest.h"

struct inventory_key {
    std::uint32_t handle;
    std::string tpm_name; // hexadecimal: a handle that another key has by now is not touched
};
struct inventory {
    std::vector<inventory_key> keys;
    std::vector<std::string> folders;
};

struct node_directory {
    std::string path;
    std::string manifest_path;
    unique_fd lock; // against a second run
};

// Opens the directory, making it where it is missing, and locks it. False with the reason said.
bool node_directory_open(const std::string &manifest_path, node_directory &directory);

// Writes a file of the directory so that it is there whole or not at all, also after a power failure.
bool node_directory_write(const node_directory &directory, const std::string &name,
                          const std::string &content);

// An inventory that cannot be read counts as empty lines: what is left behind then is leaked, never wrongly
// cleared.
inventory inventory_read(const node_directory &directory);
bool inventory_write(const node_directory &directory, const inventory &written);

// Removes a folder of certificates with the files in it; true also when there is none.
bool node_directory_remove_folder(const node_directory &directory, const std::string &folder);
