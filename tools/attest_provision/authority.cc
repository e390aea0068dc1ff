#include "tools/attest_provision/authority.h"

#include <cstdio>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "tools/attest_provision/report.h"

namespace {

constexpr char DEMONSTRATION_ORGANIZATION[] = "DEMONSTRATION";
constexpr unsigned DEMONSTRATION_KEY_BITS = 2048;

using bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

bool load_certificates(const std::string &file, authority &loaded)
{
    const bio input(BIO_new_file(file.c_str(), "r"), BIO_free);
    if (!input)
        return complain_of_openssl("cannot open " + file);
    loaded.issuing_ca.reset(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
    if (!loaded.issuing_ca)
        return complain_of_openssl("no PEM certificate in " + file);
    loaded.root.reset(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
    if (!loaded.root && X509_up_ref(loaded.issuing_ca.get()) == 1)
        loaded.root.reset(loaded.issuing_ca.get());
    const x509_certificate third(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    if (third)
        return complain(file + ": more certificates than an issuing CA and a root");
    return true;
}

bool load_key(const std::string &file, authority &loaded)
{
    const bio input(BIO_new_file(file.c_str(), "r"), BIO_free);
    if (!input)
        return complain_of_openssl("cannot open " + file);
    loaded.issuing_key.reset(PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr));
    return loaded.issuing_key || complain_of_openssl("no PEM private key in " + file);
}

bool is_usable(authority &loaded, const std::string &file)
{
    if (X509_check_private_key(loaded.issuing_ca.get(), loaded.issuing_key.get()) != 1) {
        ERR_clear_error();
        return complain("the private key is not that of the first certificate in " + file);
    }
    if (X509_check_ca(loaded.issuing_ca.get()) != 1 || X509_check_ca(loaded.root.get()) != 1)
        return complain(file + ": a certificate is not of a CA");
    if (X509_self_signed(loaded.root.get(), 1) != 1)
        return complain(file + ": the root is not self-signed");
    if (certificate_der(loaded.issuing_ca.get()).empty() || certificate_der(loaded.root.get()).empty())
        return complain(file + ": a certificate is shorter than 256 bytes or longer than 65535");
    std::string reason;
    return certificate_path_valid(loaded.issuing_ca.get(), loaded.issuing_ca.get(), loaded.root.get(),
                                  &reason) ||
           complain(file + ": " + reason);
}

std::string common_name(certificate_kind kind, const std::string &node_name)
{
    return node_name + (kind == certificate_kind::attestation ? " attestation key" : " device identity");
}

} // namespace

bool authority_load(const std::string &certificate_file, const std::string &key_file, authority &loaded)
{
    return load_certificates(certificate_file, loaded) && load_key(key_file, loaded) &&
           is_usable(loaded, certificate_file);
}

bool authority_make_demonstration(authority &made)
{
    const evp_pkey root_key(EVP_RSA_gen(DEMONSTRATION_KEY_BITS));
    made.issuing_key.reset(EVP_RSA_gen(DEMONSTRATION_KEY_BITS));
    made.demonstration = true;
    if (!root_key || !made.issuing_key)
        return complain_of_openssl("cannot make a CA key");
    made.root = certificate_issue({certificate_kind::root_ca, "DEMONSTRATION Root",
                                   DEMONSTRATION_ORGANIZATION, root_key.get(), nullptr, root_key.get()});
    if (!made.root)
        return false;
    made.issuing_ca =
        certificate_issue({certificate_kind::issuing_ca, "DEMONSTRATION CA", DEMONSTRATION_ORGANIZATION,
                           made.issuing_key.get(), made.root.get(), root_key.get()});
    return made.issuing_ca != nullptr;
}

x509_certificate authority_certify(const authority &by, certificate_kind kind, const std::string &node_name,
                                   EVP_PKEY *key)
{
    const std::string organization = by.demonstration ? DEMONSTRATION_ORGANIZATION : "";
    x509_certificate issued = certificate_issue(
        {kind, common_name(kind, node_name), organization, key, by.issuing_ca.get(), by.issuing_key.get()});
    std::string reason;
    if (issued && !certificate_path_valid(issued.get(), by.issuing_ca.get(), by.root.get(), &reason)) {
        complain("the certificate issued is not valid: " + reason);
        return nullptr;
    }
    return issued;
}
