#include "tests/support/ima_list.h"

#include <bit>
#include <cstring>
#include <openssl/sha.h>
#include <random>
#include <vector>

namespace {

std::string u32(std::uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string sha1(std::string_view bytes)
{
    std::string digest(SHA_DIGEST_LENGTH, '\0');
    SHA1(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(),
         reinterpret_cast<unsigned char *>(digest.data()));
    return digest;
}

std::string header(std::uint32_t pcr, std::string_view template_name, std::string_view hashed, bool violation)
{
    std::string hash = violation ? std::string(SHA_DIGEST_LENGTH, '\0') : sha1(hashed);
    return u32(pcr) + hash + u32(static_cast<std::uint32_t>(template_name.size())) +
           std::string(template_name);
}

std::string random_bytes(std::mt19937 &random, std::size_t length)
{
    std::string bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random() & 0xFF);
    return bytes;
}

std::string file_name(std::size_t file)
{
    static constexpr const char *folders[] = {"/usr/bin/", "/usr/lib/x86_64-linux-gnu/",
                                              "/opt/vendor agent/lib/",
                                              "/usr/lib/modules/6.1.0-18-amd64/kernel/drivers/", "/etc/"};
    return folders[file % std::size(folders)] + std::string("file-") + std::to_string(file);
}

// Lengths as far as evmctl goes too: it takes no old name of 256 bytes.
std::string edge_record(std::size_t file, const std::string &digest, const std::string &name)
{
    std::string usual = ima_digest_field("sha256", digest);
    switch (file % 4) {
    case 0:
        return ima_record(10, "ima-ng",
                          ima_digest_field(std::string(64, 'a'), digest) + ima_name_field(name));
    case 1:
        return ima_record(10, "ima-ng", usual + ima_name_field(""));
    case 2:
        return ima_record(10, "ima-ng", usual + ima_name_field(name + std::string(600, 'n')));
    default:
        return ima_record(10, "ima-sig",
                          usual + ima_name_field(name) + ima_field_bytes(std::string(1000, 's')));
    }
}

std::string one_record(std::mt19937 &random, unsigned kind, std::size_t file)
{
    std::string name = file_name(file);
    bool is_longest = file % 16 == 0;
    bool violation = random() % 50 == 0;
    // The digest belongs to the file, so that a repeated file is a repeated measurement.
    std::mt19937 content(static_cast<std::uint32_t>(file));
    if (kind == IMA_KIND_OLD) {
        name.resize(is_longest ? 255 : name.size(), 'n');
        return ima_old_record(10, violation ? std::string(20, '\0') : random_bytes(content, 20), name,
                              violation);
    }
    std::string digest = violation ? std::string(32, '\0') : random_bytes(content, 32);
    std::string data = ima_digest_field("sha256", digest) + ima_name_field(name);
    if (kind == IMA_KIND_NG)
        return ima_record(10, "ima-ng", data, violation);
    if (kind == IMA_KIND_EDGE)
        return edge_record(file, digest, name);
    if (kind == IMA_KIND_UNKNOWN) {
        std::string fields = "d-ng|n-ng|modsig";
        fields.resize(is_longest ? 255 : fields.size(), 'x');
        return ima_record(10, fields, data + ima_field_bytes("?"), violation);
    }
    bool is_signed = !violation && random() % 3 == 0;
    data += ima_field_bytes(is_signed ? "\x03\x02\x04" + random_bytes(random, 262) : std::string());
    return ima_record(10, kind == IMA_KIND_SIG ? "ima-sig" : "d-ng|n-ng|sig", data, violation);
}

} // namespace

std::string ima_field_bytes(std::string_view bytes)
{
    return u32(static_cast<std::uint32_t>(bytes.size())) + std::string(bytes);
}

std::string ima_digest_field(std::string_view algorithm, std::string_view digest)
{
    return ima_field_bytes(std::string(algorithm) + ':' + '\0' + std::string(digest));
}

std::string ima_name_field(std::string_view name)
{
    return ima_field_bytes(std::string(name) + '\0');
}

std::string ima_record(std::uint32_t pcr, std::string_view template_name, std::string_view data,
                       bool violation)
{
    return header(pcr, template_name, data, violation) + ima_field_bytes(data);
}

std::string ima_old_record(std::uint32_t pcr, std::string_view digest, std::string_view name, bool violation)
{
    // What is hashed is the name in an area of 256 bytes.
    std::string area(name.substr(0, 256));
    area.resize(256, '\0');
    return header(pcr, "ima", std::string(digest) + area, violation) + std::string(digest) +
           ima_field_bytes(name);
}

std::string ima_list(std::size_t count, unsigned kinds, std::uint32_t seed)
{
    std::mt19937 random(seed);
    std::string list;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned kind = 1u << i % 6;
        while ((kind & kinds) == 0)
            kind = kind == IMA_KIND_EDGE ? 1 : kind << 1;
        std::size_t file = random() % 8 == 0 ? random() % (i + 1) : i;
        list += one_record(random, kind, file);
    }
    return list;
}

std::array<std::uint8_t, 20> ima_list_pcr(std::string_view list)
{
    auto number = [&](std::size_t at) {
        std::uint32_t value = 0;
        std::memcpy(&value, list.data() + at, sizeof value);
        return value;
    };
    std::string pcr(20, '\0');
    while (!list.empty()) {
        std::string hash(list.substr(4, 20));
        if (hash == std::string(20, '\0'))
            hash.assign(20, '\xff');
        pcr = sha1(pcr.append(hash));
        std::size_t name_length = number(24);
        std::size_t at = 28 + name_length + (list.substr(28, name_length) == "ima" ? 20 : 0);
        list.remove_prefix(at + 4 + number(at));
    }
    std::array<std::uint8_t, 20> value{};
    std::memcpy(value.data(), pcr.data(), pcr.size());
    return value;
}
