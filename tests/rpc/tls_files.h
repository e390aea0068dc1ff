// Certificates for a server, its client and a stranger, made by openssl in a directory of their own.
#pragma once

#include <string>

class tls_files {
public:
    // What can take the place of a file's content, besides texts.
    static constexpr const char *other_key = "the stranger's key";
    static constexpr const char *encrypted_key = "the server's key, encrypted";

    tls_files();
    ~tls_files();
    tls_files(const tls_files &) = delete;
    tls_files &operator=(const tls_files &) = delete;

    std::string server_directory() const { return directory_ + "/server"; }
    // Puts `content` into a file of the server's directory; null removes it.
    void replace(const std::string &file, const char *content) const;
    // The content of "ca.crt", "client.crt", "client.key", "stranger.crt" or "stranger.key".
    std::string read(const std::string &file) const;

private:
    std::string directory_;
};
