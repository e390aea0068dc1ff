#include "tests/rpc/tls_files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace {

// The stranger's certificate is its own CA.
constexpr const char *RECIPE = R"(set -e
key='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2'
openssl req -x509 $key -keyout ca.key -out ca.crt -subj /CN=test-ca
openssl req -x509 $key -keyout stranger.key -out stranger.crt -subj /CN=stranger
echo 'subjectAltName=IP:127.0.0.1' > ext
for name in server client; do
  openssl req $key -keyout $name.key -out $name.csr -subj /CN=$name
  openssl x509 -req -in $name.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -extfile ext -out $name.crt
done
mkdir server
cp ca.crt server/client-ca.crt
mv server.crt server.key server
openssl ec -in server/server.key -aes128 -passout pass:secret -out encrypted.key
)";

} // namespace

tls_files::tls_files()
{
    char name[] = "/tmp/rpc-tls-XXXXXX";
    directory_ = mkdtemp(name);
    std::ofstream(directory_ + "/recipe") << RECIPE;
    const std::string command = "cd " + directory_ + " && sh recipe > log 2>&1";
    if (std::system(command.c_str()) != 0) // NOLINT(cert-env33-c): a test's own recipe
        ADD_FAILURE() << read("log");
}

tls_files::~tls_files()
{
    std::filesystem::remove_all(directory_);
}

void tls_files::replace(const std::string &file, const char *content) const
{
    const std::string path = server_directory() + "/" + file;
    std::filesystem::remove(path);
    if (content == nullptr)
        return;
    const std::string given = content;
    std::ofstream(path) << (given == other_key       ? read("stranger.key")
                            : given == encrypted_key ? read("encrypted.key")
                                                     : given);
}

std::string tls_files::read(const std::string &file) const
{
    std::ostringstream content;
    content << std::ifstream(directory_ + "/" + file).rdbuf();
    return content.str();
}
