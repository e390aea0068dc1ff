#include "attestctl/formats/kernel.h"

#include "attestctl/formats/boot_log_layout.h"
#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"
#include "attestctl/verify/ima_list.h"

namespace {

constexpr std::size_t TEMPLATE_HASH_SIZE = 20;
constexpr std::size_t LONGEST_TEMPLATE_NAME = 255;

// Little-endian, as the machines that this runs on.
template <typename T>
void append_number(std::string &out, T value)
{
    for (std::size_t i = 0; i < sizeof value; ++i)
        out += static_cast<char>(value >> (8 * i) & 0xff);
}

void append_counted(std::string &out, const std::string &bytes)
{
    append_number(out, static_cast<std::uint32_t>(bytes.size()));
    out += bytes;
}

} // namespace

bool append_kernel_boot_log(std::string &out, const api::NodeBootIntegrityLog &log, std::string &error)
{
    boot_log_layout layout;
    if (!find_layout(log, layout, error))
        return false;
    bool is_first = true;
    for (const api::BOOT_EVENT &event : log.events()) {
        append_number(out, event.pcr_index());
        append_number(out, event.event_type());
        const bool has_count = layout.is_crypto_agile && !is_first;
        if (has_count)
            append_number(out, static_cast<std::uint32_t>(event.digests_size()));
        for (const api::BOOT_EVENT_DIGEST &digest : event.digests()) {
            if (has_count)
                append_number(out, algorithm_of(layout, is_first, digest).value_or(0));
            out += digest.digest();
        }
        append_counted(out, event.event_data());
        is_first = false;
    }
    return true;
}

bool prove_template_data(const api::IMA_EVENT &event, std::string &data, std::string &error)
{
    std::string problem;
    if (!event.has_pcr() || event.template_hash().size() != TEMPLATE_HASH_SIZE)
        problem = "it has no PCR or no template hash";
    else if (event.template_name().empty() || event.template_name().size() > LONGEST_TEMPLATE_NAME)
        problem = "it has no template's name";
    else if (!rebuild_template_data(event, data))
        problem = "its fields are not all that template " + printable(event.template_name(), 64) + " has";
    else if (!is_violation(event) && digest_of(*hash_by_number(0), {data}) != event.template_hash())
        problem = "its template hash is not that of its fields";
    if (!problem.empty())
        error = "event " + grouped(event.event_num()) + " of the IMA list cannot be written: " + problem;
    return problem.empty();
}

bool append_kernel_ima_record(std::string &out, const api::IMA_EVENT &event, std::string &error)
{
    std::string data;
    if (!prove_template_data(event, data, error))
        return false;
    append_number(out, event.pcr());
    out += event.template_hash();
    append_counted(out, event.template_name());
    if (event.template_name() == "ima") { // no length of the whole, and the name without its padding
        out += event.digest();
        append_counted(out, event.event_name());
    } else {
        append_counted(out, data);
    }
    return true;
}
