#include "attestctl/event_data.h"

#include <algorithm>
#include <array>
#include <optional>

#include "attestctl/byte_reader.h"
#include "attestctl/event_types.h"
#include "attestctl/text.h"
#include "attestctl/uefi.h"

namespace {

using lines = std::vector<std::string>;

// Rows of a table inside an event: a GPT has at most 128 partitions in practice, a digest list a handful.
constexpr std::uint64_t MAX_ROWS = 128;

// A decoder gives nothing when the data does not fit its layout.
using decoder = std::optional<lines> (*)(std::string_view data);

std::optional<lines> only_if(const byte_reader &in, lines decoded)
{
    if (!in.ok())
        return std::nullopt;
    return decoded;
}

std::string algorithm_text(unsigned algorithm, unsigned size)
{
    switch (algorithm) {
    case 0x0004:
        return format("SHA-1 (%u bytes)", size);
    case 0x000b:
        return format("SHA-256 (%u bytes)", size);
    case 0x000c:
        return format("SHA-384 (%u bytes)", size);
    case 0x000d:
        return format("SHA-512 (%u bytes)", size);
    case 0x0012:
        return format("SM3-256 (%u bytes)", size);
    default:
        return format("0x%04x (%u bytes)", algorithm, size);
    }
}

std::optional<lines> spec_id(byte_reader in, std::string_view signature)
{
    const unsigned platform_class = in.u32();
    const unsigned minor = in.u8();
    const unsigned major = in.u8();
    const unsigned errata = in.u8();
    const unsigned uintn = in.u8();
    lines out = {printable(signature) + format(", %s platform, version %u.%u errata %u, UINTN %u bits",
                                               platform_class == 0 ? "client" : "server", major, minor,
                                               errata, 32 * uintn)};
    // The log of a TPM 1.2 platform has no list of algorithms.
    if (signature != "Spec ID Event03")
        return only_if(in, out);
    const std::uint32_t count = in.u32();
    if (!in.ok() || count > in.remaining() / 4)
        return std::nullopt;
    std::string algorithms = "digests:";
    for (std::uint32_t i = 0; i < count && i < MAX_ROWS; ++i) {
        const unsigned algorithm = in.u16();
        const unsigned size = in.u16();
        algorithms += (i == 0 ? " " : ", ") + algorithm_text(algorithm, size);
    }
    out.push_back(algorithms);
    return only_if(in, out);
}

std::optional<lines> no_action(std::string_view data)
{
    byte_reader in(data);
    const std::string_view signature = before_nul(in.bytes(16));
    if (signature.starts_with("Spec ID Event"))
        return spec_id(in, signature);
    if (signature == "StartupLocality") {
        const unsigned locality = in.u8();
        return only_if(in, {format("startup locality %u", locality)});
    }
    return std::nullopt;
}

std::optional<lines> separator(std::string_view data)
{
    if (data.size() != 4)
        return std::nullopt;
    const std::uint32_t value = byte_reader(data).u32();
    if (value == 0 || value == 0xffffffff)
        return lines{format("end of the pre-boot measurements (0x%08x)", value)};
    return lines{format("error (0x%08x)", value)};
}

std::optional<lines> tagged(std::string_view data)
{
    byte_reader in(data);
    const unsigned id = in.u32();
    const std::uint32_t size = in.u32();
    const std::string_view content = in.bytes(size);
    return only_if(in, {format("tag 0x%08x: ", id) + text_or_hex(content)});
}

std::optional<lines> crtm_version(std::string_view data)
{
    const std::string text = text_or_hex(data); // a GUID is hardly ever one, a version of that size often
    return lines{data.size() == GUID_SIZE && !text.starts_with('"') ? guid_text(data) : text};
}

std::string base_and_length(byte_reader &in)
{
    const std::uint64_t base = in.u64();
    const std::uint64_t length = in.u64();
    return format("at 0x%lx, ", base) + counted(length, "byte");
}

// A blob's address and size, or in older logs a text.
std::optional<lines> blob(std::string_view data)
{
    if (data.size() != 16)
        return lines{text_or_hex(data)};
    byte_reader in(data);
    return lines{base_and_length(in)};
}

std::optional<lines> described_blob(std::string_view data)
{
    byte_reader in(data);
    const std::string_view description = in.bytes(in.u8());
    const std::string place = base_and_length(in);
    if (!in.ok())
        return lines{text_or_hex(data)};
    return lines{text_or_hex(description) + " " + place};
}

std::optional<lines> handoff_rows(byte_reader in, lines out)
{
    const std::uint64_t count = in.u64();
    if (!in.ok() || count > in.remaining() / (GUID_SIZE + 8))
        return std::nullopt;
    for (std::uint64_t i = 0; i < count && i < MAX_ROWS; ++i) {
        const std::string guid = guid_text_named(in.bytes(GUID_SIZE));
        out.push_back("table " + guid + format(" at 0x%lx", in.u64()));
    }
    if (count == 0)
        out.emplace_back("no tables");
    if (count > MAX_ROWS)
        out.push_back("... " + counted(count - MAX_ROWS, "more table"));
    return only_if(in, out);
}

std::optional<lines> handoff_tables(std::string_view data)
{
    return handoff_rows(byte_reader(data), {});
}

std::optional<lines> described_handoff_tables(std::string_view data)
{
    byte_reader in(data);
    const std::string_view description = in.bytes(in.u8());
    return handoff_rows(in, {text_or_hex(description)});
}

struct variable {
    std::string_view guid, name, data;
};

std::optional<variable> read_variable(std::string_view data)
{
    byte_reader in(data);
    variable v;
    v.guid = in.bytes(GUID_SIZE);
    const std::uint64_t name_length = in.u64();
    const std::uint64_t data_length = in.u64();
    if (!in.ok() || name_length > in.remaining() / 2)
        return std::nullopt;
    v.name = in.bytes(2 * name_length);
    v.data = in.bytes(data_length);
    if (!in.ok())
        return std::nullopt;
    return v;
}

std::string variable_head(const variable &v, const std::string &name)
{
    return "variable " + name + ", " + guid_text_named(v.guid) + ", " + counted(v.data.size(), "byte");
}

std::optional<lines> uefi_variable(std::string_view data)
{
    const std::optional<variable> v = read_variable(data);
    if (!v)
        return std::nullopt;
    const std::string name = printable_utf16(v->name);
    lines out = {variable_head(*v, name)};
    if (!v->data.empty())
        out.push_back(variable_data_text(name, v->data));
    return out;
}

// What the firmware used to allow an image: not a whole variable but the one entry of it that matched.
std::optional<lines> variable_authority(std::string_view data)
{
    const std::optional<variable> v = read_variable(data);
    if (!v)
        return std::nullopt;
    const std::string name = printable_utf16(v->name);
    const bool database = name == "db" || name == "dbx" || name == "MokListRT" || name == "MokList";
    return lines{variable_head(*v, name), database || name == "Shim" || name == "vendor_db"
                                              ? signature_entry_text(v->data)
                                              : text_or_hex(v->data)};
}

std::optional<lines> image_load(std::string_view data)
{
    byte_reader in(data);
    const std::uint64_t location = in.u64();
    const std::uint64_t length = in.u64();
    in.u64(); // address that the image was linked for
    const std::uint64_t path_length = in.u64();
    const std::string path = device_path_text(in.bytes(path_length));
    return only_if(in, {path.empty() ? "image without a device path" : path,
                        format("at 0x%lx, ", location) + counted(length, "byte")});
}

std::string gpt_partition(std::string_view entry)
{
    byte_reader in(entry);
    const std::string type = guid_text_named(in.bytes(GUID_SIZE));
    const std::string id = guid_text(in.bytes(GUID_SIZE));
    const std::uint64_t first = in.u64();
    const std::uint64_t last = in.u64();
    in.u64(); // attributes
    const std::string name = printable_utf16(in.bytes(72));
    return "partition " + id + ", type " + type + format(", blocks %lu to %lu", first, last) +
           (name.empty() ? "" : ", \"" + name + '"');
}

std::optional<lines> gpt(std::string_view data)
{
    byte_reader in(data);
    const std::string_view signature = in.bytes(8);
    in.bytes(4 + 4 + 4 + 4 + 8 +
             8); // revision, header size, two checksum words, own and other header's block
    const std::uint64_t first = in.u64();
    const std::uint64_t last = in.u64();
    const std::string disk = guid_text(in.bytes(GUID_SIZE));
    in.bytes(8 + 4); // block and number of the entries
    const std::uint32_t entry_size = in.u32();
    in.u32(); // checksum of the entries
    const std::uint64_t count = in.u64();
    constexpr std::uint32_t LEAST_ENTRY = 128;
    if (!in.ok() || signature != "EFI PART" || entry_size < LEAST_ENTRY ||
        count > in.remaining() / entry_size)
        return std::nullopt;
    lines out = {"GPT disk " + disk + format(", usable blocks %lu to %lu, ", first, last) +
                 counted(count, "partition")};
    for (std::uint64_t i = 0; i < count && i < MAX_ROWS; ++i)
        out.push_back(gpt_partition(in.bytes(entry_size)));
    if (count > MAX_ROWS)
        out.push_back("... " + counted(count - MAX_ROWS, "more partition"));
    return only_if(in, out);
}

struct decoder_row {
    std::uint32_t type;
    decoder decode;
};

// Types that are not here carry text: actions, boot loader and kernel command lines, descriptions.
constexpr auto DECODERS = std::to_array<decoder_row>({
    {event_type::POST_CODE, blob},
    {event_type::POST_CODE2, described_blob},
    {event_type::NO_ACTION, no_action},
    {event_type::SEPARATOR, separator},
    {event_type::EVENT_TAG, tagged},
    {event_type::S_CRTM_CONTENTS, blob},
    {event_type::S_CRTM_VERSION, crtm_version},
    {event_type::EFI_VARIABLE_DRIVER_CONFIG, uefi_variable},
    {event_type::EFI_VARIABLE_BOOT, uefi_variable},
    {event_type::EFI_VARIABLE_BOOT2, uefi_variable},
    {event_type::EFI_VARIABLE_AUTHORITY, variable_authority},
    {event_type::EFI_BOOT_SERVICES_APPLICATION, image_load},
    {event_type::EFI_BOOT_SERVICES_DRIVER, image_load},
    {event_type::EFI_RUNTIME_SERVICES_DRIVER, image_load},
    {event_type::EFI_GPT_EVENT, gpt},
    {event_type::EFI_GPT_EVENT2, gpt},
    {event_type::EFI_PLATFORM_FIRMWARE_BLOB, blob},
    {event_type::EFI_PLATFORM_FIRMWARE_BLOB2, described_blob},
    {event_type::EFI_HANDOFF_TABLES, handoff_tables},
    {event_type::EFI_HANDOFF_TABLES2, described_handoff_tables},
});

} // namespace

std::vector<std::string> event_data_lines(std::uint32_t type, std::string_view data)
{
    const auto *row = std::find_if(DECODERS.begin(), DECODERS.end(),
                                   [type](const decoder_row &candidate) { return candidate.type == type; });
    if (row == DECODERS.end())
        return {text_or_hex(data)};
    if (std::optional<lines> decoded = row->decode(data))
        return *decoded;
    const bool may_be_anything = type == event_type::NO_ACTION || type == event_type::SEPARATOR;
    return {text_or_hex(data) + (may_be_anything ? "" : " (does not fit the layout of its type)")};
}
