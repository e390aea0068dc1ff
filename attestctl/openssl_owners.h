// Owners of what OpenSSL hands out.
#pragma once

#include <memory>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

template <auto Free>
struct openssl_deleter {
    template <typename T>
    void operator()(T *object) const
    {
        Free(object);
    }
};

using x509_owner = std::unique_ptr<X509, openssl_deleter<X509_free>>;
using bio_owner = std::unique_ptr<BIO, openssl_deleter<BIO_free>>;
using md_ctx_owner = std::unique_ptr<EVP_MD_CTX, openssl_deleter<EVP_MD_CTX_free>>;
