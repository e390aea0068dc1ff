#include "attestctl/verify/ima_list.h"

#include <algorithm>
#include <string_view>

#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"
#include "attestctl/verify/pcr_set.h"
#include "attestctl/verify/quote.h"

namespace api = remote_attestation_api;

namespace {

// A node and its management controller are two.
constexpr std::size_t MOST_LISTS = 16;

constexpr std::uint32_t IMA_PCR = 10;
constexpr std::size_t TEMPLATE_HASH_SIZE = 20;
constexpr std::size_t IMA_DIGEST_SIZE = 20;
constexpr std::size_t IMA_NAME_SIZE = 256; // the template "ima" hashes a name padded to this

const hash_algorithm &sha1()
{
    return *hash_by_number(0);
}

void append_field(std::string &data, std::string_view field)
{
    for (int shift = 0; shift < 32; shift += 8)
        data += static_cast<char>(field.size() >> shift & 0xFF);
    data += field;
}

bool append_digest(const api::IMA_EVENT &event, std::string &data)
{
    if (!event.has_digest() || !event.has_digest_algo())
        return false;
    append_field(data, event.digest_algo() + ':' + '\0' + event.digest());
    return true;
}

bool append_name(const api::IMA_EVENT &event, std::string &data)
{
    if (!event.has_event_name())
        return false;
    append_field(data, event.event_name() + '\0');
    return true;
}

// One without a signature has an empty field.
bool append_signature(const api::IMA_EVENT &event, std::string &data)
{
    append_field(data, event.signature());
    return true;
}

struct template_field {
    std::string_view id;
    bool (*append)(const api::IMA_EVENT &event, std::string &data);
};
constexpr std::array<template_field, 3> FIELDS = {
    {{"d-ng", append_digest}, {"n-ng", append_name}, {"sig", append_signature}}};

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
    if (event.digest().size() != IMA_DIGEST_SIZE || event.event_name().size() > IMA_NAME_SIZE)
        return false;
    data = event.digest() + event.event_name();
    data.resize(IMA_DIGEST_SIZE + IMA_NAME_SIZE, '\0');
    return true;
}

bool is_violation(const api::IMA_EVENT &event)
{
    const std::string &hash = event.template_hash();
    return std::all_of(hash.begin(), hash.end(), [](char c) { return c == 0; });
}

// What is extended for one event: nothing where it is not known.
struct extension {
    std::string native, padded;
};

std::string zero_padded(std::string digest, std::size_t size)
{
    digest.resize(size, '\0');
    return digest;
}

extension extension_of(ima_list &list, const api::IMA_EVENT &event)
{
    const std::size_t size = quoted_bank().size;
    if (is_violation(event)) {
        ++list.violations;
        return {std::string(size, '\xff'), std::string(size, '\xff')};
    }
    extension what{{}, zero_padded(event.template_hash(), size)};
    std::string data;
    if (!rebuild_template_data(event, data)) {
        ++list.not_rebuilt;
        return what;
    }
    ++list.hashed;
    if (digest_of(sha1(), {data}) != event.template_hash() && list.hash_problem.empty())
        list.hash_problem =
            "event " + grouped(event.event_num()) + ": the template hash is not that of its fields";
    what.native = digest_of(quoted_bank(), {data});
    return what;
}

void look_at_quote(ima_pcr &pcr)
{
    if (pcr.quoted == nullptr)
        return;
    if (pcr.unknown_data == 0 && pcr.native == *pcr.quoted) {
        pcr.was_equal_natively = true;
        pcr.native_equal = pcr.extends;
    }
    if (pcr.padded == *pcr.quoted) {
        pcr.was_equal_padded = true;
        pcr.padded_equal = pcr.extends;
    }
}

void extend(ima_pcr &pcr, const extension &what)
{
    ++pcr.extends;
    pcr.extended = true;
    if (what.native.empty() && pcr.unknown_data == 0)
        pcr.unknown_data = pcr.extends;
    if (pcr.unknown_data == 0)
        pcr.native = digest_of(quoted_bank(), {pcr.native, what.native});
    pcr.padded = digest_of(quoted_bank(), {pcr.padded, what.padded});
    look_at_quote(pcr);
}

void take_event(ima_list &list, const api::IMA_EVENT &event)
{
    ++list.events;
    if (event.event_num() != list.next_number && list.number_problem.empty())
        list.number_problem = "event " + grouped(event.event_num()) + " came where event " +
                              grouped(list.next_number) + " belongs";
    list.next_number = event.event_num() + 1;
    list.duplicates += event.duplicate() != 0 ? 1 : 0;
    if (!event.has_pcr() || event.pcr() >= list.pcrs.size() ||
        event.template_hash().size() != TEMPLATE_HASH_SIZE) {
        if (list.hash_problem.empty())
            list.hash_problem = "event " + grouped(event.event_num()) + " has no PCR or no template hash";
        return;
    }
    extend(list.pcrs[event.pcr()], extension_of(list, event));
}

void begin_list(ima_list &list, const std::string &source, const api::attest_pcr_response &quotes)
{
    list.source = source;
    const auto record = std::find_if(quotes.node_data().begin(), quotes.node_data().end(),
                                     [&](const api::NodePCRData &one) { return one.node_name() == source; });
    for (std::uint32_t i = 0; i < list.pcrs.size(); ++i) {
        ima_pcr &pcr = list.pcrs[i];
        pcr.native = pcr.padded = std::string(quoted_bank().size, i >= 17 && i <= 22 ? '\xff' : '\0');
        pcr.quoted = record != quotes.node_data().end() ? value_of(record->pcrs(), i) : nullptr;
        look_at_quote(pcr);
    }
}

finding check_numbers(const ima_list &list)
{
    if (!list.number_problem.empty())
        return failed(list.number_problem);
    std::string marks = list.duplicates != 0 ? ", " + counted(list.duplicates, "duplicate") : "";
    marks += list.violations != 0 ? ", " + counted(list.violations, "violation") : "";
    return passed(counted(list.events, "event") + ", from 1 on and without gaps" + marks);
}

finding check_hashes(const ima_list &list)
{
    if (!list.hash_problem.empty())
        return failed(list.hash_problem);
    const std::string unknown = list.not_rebuilt != 0 ? "; of " + counted(list.not_rebuilt, "event") +
                                                            " the template's data is not in the answer"
                                                      : "";
    return passed(grouped(list.hashed) + " template hashes recomputed from the fields" + unknown);
}

// Where the replay of one PCR met the quoted value. Empty: it did.
std::string replay_problem(std::uint32_t index, const ima_pcr &pcr)
{
    if (pcr.quoted == nullptr)
        return format("no quoted value of PCR %u", index);
    if (pcr.was_equal_natively || pcr.was_equal_padded)
        return {};
    std::string problem = format("does not give the quoted value of PCR %u", index);
    if (pcr.unknown_data != 0)
        problem += ": the data of extend " + grouped(pcr.unknown_data) +
                   " cannot be rebuilt, and the quote is not of the SHA-1 bank, which would not need it";
    return problem;
}

finding check_replay(const ima_list &list)
{
    pcr_set equal;
    std::uint64_t later = 0;
    bool padded = false;
    for (std::uint32_t i = 0; i < list.pcrs.size(); ++i) {
        const ima_pcr &pcr = list.pcrs[i];
        if (!pcr.extended && i != IMA_PCR)
            continue;
        if (std::string problem = replay_problem(i, pcr); !problem.empty())
            return failed(std::move(problem));
        equal.set(i);
        padded |= !pcr.was_equal_natively;
        later += pcr.extends - (pcr.was_equal_natively ? pcr.native_equal : pcr.padded_equal);
    }
    return passed(std::string("gives the quoted ") + (equal.count() == 1 ? "value of " : "values of ") +
                  pcr_text(equal) + " (" + quoted_bank().name + (padded ? ", SHA-1 hashes padded" : "") +
                  ')' + (later != 0 ? "; " + counted(later, "event") + " came after the quote" : ""));
}

} // namespace

bool rebuild_template_data(const api::IMA_EVENT &event, std::string &data)
{
    data.clear();
    if (event.template_name() == "ima")
        return rebuild_ima(event, data);
    std::string_view fields = field_list_of(event.template_name());
    for (bool more = true; more;) {
        const std::size_t end = fields.find('|');
        const std::string_view id = fields.substr(0, end);
        const auto *field = std::find_if(FIELDS.begin(), FIELDS.end(),
                                         [id](const template_field &one) { return one.id == id; });
        if (field == FIELDS.end() || !field->append(event, data))
            return false;
        more = end != std::string_view::npos;
        fields = more ? fields.substr(end + 1) : fields;
    }
    return true;
}

void take_ima_message(std::vector<ima_list> &lists, const api::NodeIMAData &message,
                      const api::attest_pcr_response &quotes)
{
    if (!message.has_node_name())
        return; // the end of a stream that broke off
    auto list = std::find_if(lists.begin(), lists.end(),
                             [&](const ima_list &one) { return one.source == message.node_name(); });
    if (list == lists.end()) {
        if (lists.size() == MOST_LISTS)
            return;
        list = lists.insert(lists.end(), ima_list());
        begin_list(*list, message.node_name(), quotes);
    }
    for (const api::IMA_EVENT &event : message.events())
        take_event(*list, event);
}

void check_ima_list(check_list &rows, const ima_list &list)
{
    add(rows, "IMA list numbers", check_numbers(list));
    add(rows, "IMA list hashes", check_hashes(list));
    add(rows, "IMA list replay", check_replay(list));
}
