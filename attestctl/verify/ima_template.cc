// Template data, put together from the fields of an event.
#include <algorithm>
#include <array>
#include <string_view>

#include "attestctl/verify/ima_list.h"

namespace api = remote_attestation_api;

namespace {

constexpr std::size_t IMA_DIGEST_SIZE = 20;
constexpr std::size_t IMA_NAME_SIZE = 256; // the template "ima" hashes a name padded to this

void append_size(std::string &data, std::size_t size)
{
    for (int shift = 0; shift < 32; shift += 8)
        data += static_cast<char>(size >> shift & 0xFF);
}

bool append_digest(const api::IMA_EVENT &event, std::string &data)
{
    if (!event.has_digest() || !event.has_digest_algo())
        return false;
    append_size(data, event.digest_algo().size() + 2 + event.digest().size());
    data += event.digest_algo();
    data += ':';
    data += '\0';
    data += event.digest();
    return true;
}

bool append_name(const api::IMA_EVENT &event, std::string &data)
{
    if (!event.has_event_name())
        return false;
    append_size(data, event.event_name().size() + 1);
    data += event.event_name();
    data += '\0';
    return true;
}

// One without a signature has an empty field.
bool append_signature(const api::IMA_EVENT &event, std::string &data)
{
    append_size(data, event.signature().size());
    data += event.signature();
    return true;
}

constexpr unsigned DIGEST = 1, NAME = 2, SIGNATURE = 4;

struct template_field {
    std::string_view id;
    unsigned bit;
    bool (*append)(const api::IMA_EVENT &event, std::string &data);
};
constexpr std::array<template_field, 3> FIELDS = {
    {{"d-ng", DIGEST, append_digest}, {"n-ng", NAME, append_name}, {"sig", SIGNATURE, append_signature}}};

constexpr std::string_view IMA_DIGEST_ALGORITHM = "SHA1"; // what the node says of template "ima"

std::string_view field_list_of(std::string_view template_name)
{
    if (template_name == "ima-ng")
        return "d-ng|n-ng";
    if (template_name == "ima-sig")
        return "d-ng|n-ng|sig";
    return template_name;
}

bool rebuild_ima(const api::IMA_EVENT &event, std::string &data)
{
    // No file's name has a NUL in it; a name with one would be the padding, or the fields of another
    // template.
    if (event.digest().size() != IMA_DIGEST_SIZE || event.event_name().size() > IMA_NAME_SIZE ||
        event.event_name().find('\0') != std::string::npos)
        return false;
    data = event.digest();
    data += event.event_name();
    data.resize(IMA_DIGEST_SIZE + IMA_NAME_SIZE, '\0');
    return true;
}

} // namespace

bool rebuild_template_data(const api::IMA_EVENT &event, std::string &data)
{
    data.clear();
    if (event.template_name() == "ima")
        return event.signature().empty() && event.digest_algo() == IMA_DIGEST_ALGORITHM &&
               rebuild_ima(event, data);
    unsigned used = 0;
    std::string_view fields = field_list_of(event.template_name());
    for (bool more = true; more;) {
        const std::size_t end = fields.find('|');
        const std::string_view id = fields.substr(0, end);
        const auto *field = std::find_if(FIELDS.begin(), FIELDS.end(),
                                         [id](const template_field &one) { return one.id == id; });
        if (field == FIELDS.end() || field->bit <= used || !field->append(event, data))
            return false;
        used |= field->bit;
        more = end != std::string_view::npos;
        fields = more ? fields.substr(end + 1) : fields;
    }
    // The name of the template is in no hash: under another one the same bytes are other fields. So fields
    // stand in the order in which the kernel's templates have them (a signature, which root may write, is no
    // digest), and what would be shown without being in the data must not be there.
    return (used & (DIGEST | NAME)) == (DIGEST | NAME) &&
           ((used & SIGNATURE) != 0 || event.signature().empty());
}
