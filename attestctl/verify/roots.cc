#include "attestctl/verify/roots.h"

#include <algorithm>

#include <openssl/err.h>
#include <openssl/pem.h>

#include "attestctl/certificate_text.h"
#include "attestctl/small_file.h"
#include "attestctl/text.h"

namespace {

// Why the reading of PEM ended; empty when it was for the end of the text.
std::string end_of_pem()
{
    const unsigned long reason = ERR_peek_last_error();
    ERR_clear_error();
    return ERR_GET_LIB(reason) == ERR_LIB_PEM && ERR_GET_REASON(reason) == PEM_R_NO_START_LINE
               ? ""
               : "a PEM certificate that cannot be read";
}

// Appends the certificates in DER and gives an empty text, or why not all could be read.
std::string read_pem_certificates(const std::string &text, std::vector<std::string> &into)
{
    const bio_owner input(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    ERR_clear_error();
    while (input) {
        const x509_owner next(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
        if (!next)
            return end_of_pem();
        unsigned char *der = nullptr;
        const int length = i2d_X509(next.get(), &der);
        if (length <= 0)
            break;
        into.emplace_back(reinterpret_cast<char *>(der), static_cast<std::size_t>(length));
        OPENSSL_free(der);
    }
    return "out of memory";
}

} // namespace

bool read_roots(const std::string &path, trusted_roots &into, std::string &error)
{
    std::string text;
    if (!read_small_file(path, text, error))
        return false;
    trusted_roots read{printable(path), {}};
    std::string problem;
    if (text.find("-----BEGIN ") != std::string::npos)
        problem = read_pem_certificates(text, read.certificates);
    else if (read_certificate(text, problem))
        read.certificates.push_back(text);
    if (problem.empty() && read.certificates.empty())
        problem = "no certificate in it";
    if (!problem.empty()) {
        error = read.file + ": " + problem;
        return false;
    }
    into = std::move(read);
    return true;
}

bool is_trusted(const trusted_roots &roots, std::string_view der)
{
    return std::find(roots.certificates.begin(), roots.certificates.end(), der) != roots.certificates.end();
}
