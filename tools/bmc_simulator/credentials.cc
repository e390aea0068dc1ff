#include "tools/bmc_simulator/credentials.h"

#include <cstdio>
#include <sys/stat.h>

#include <openssl/pem.h>

#include "platform/owners.h"
#include "tools/bmc_simulator/report.h"

namespace {

constexpr char ORGANIZATION[] = "DEMONSTRATION";
constexpr char CURVE[] = "P-256";

struct file_closer {
    void operator()(std::FILE *file) const noexcept { std::fclose(file); }
};
using file_owner = std::unique_ptr<std::FILE, file_closer>;

// Whoever reads `path` finds the whole file or none. `key` may be null.
bool write_pem(const std::string &path, const EVP_PKEY *key, const X509 *certificate)
{
    const std::string unfinished = path + ".new";
    const mode_t others = umask(0077);
    file_owner file(std::fopen(unfinished.c_str(), "w"));
    umask(others);
    if (!file)
        return fail_with_errno("cannot write " + unfinished);
    if ((key != nullptr &&
         PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) ||
        PEM_write_X509(file.get(), certificate) != 1)
        return fail("cannot write " + unfinished);
    if (std::fclose(file.release()) != 0 || std::rename(unfinished.c_str(), path.c_str()) != 0)
        return fail_with_errno("cannot write " + path);
    return true;
}

bool is_there(const std::string &path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

} // namespace

bool make_client_credentials(const std::string &directory)
{
    const std::string client_file = directory + '/' + CLIENT_FILE;
    const std::string ca_file = directory + '/' + CLIENT_CA_FILE;
    if (is_there(client_file) && is_there(ca_file))
        return true;
    const evp_pkey ca_key(EVP_EC_gen(CURVE));
    const evp_pkey client_key(EVP_EC_gen(CURVE));
    if (!ca_key || !client_key)
        return fail("cannot make a key");
    const x509_certificate ca = certificate_issue({certificate_kind::root_ca, "DEMONSTRATION BMC client CA",
                                                   ORGANIZATION, ca_key.get(), nullptr, ca_key.get()});
    if (!ca)
        return false;
    const x509_certificate client =
        certificate_issue({certificate_kind::device_identity, "DEMONSTRATION BMC client", ORGANIZATION,
                           client_key.get(), ca.get(), ca_key.get()});
    return client && write_pem(ca_file, nullptr, ca.get()) &&
           write_pem(client_file, client_key.get(), client.get());
}

bool make_server_identity(server_identity &made)
{
    made.key.reset(EVP_EC_gen(CURVE));
    if (!made.key)
        return fail("cannot make a key");
    made.certificate = certificate_issue({certificate_kind::device_identity, "DEMONSTRATION BMC",
                                          ORGANIZATION, made.key.get(), nullptr, made.key.get()});
    return made.certificate != nullptr;
}
