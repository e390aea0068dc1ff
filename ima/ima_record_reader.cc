#include "ima/ima_record_reader.h"

#include <algorithm>
#include <cstring>

#include "agent/debug_trace.h"
#include "agent/status.h"
#include "ima/event_copies.h"
#include "ima/ima_field_parsers.h"
#include "platform/byte_cursor.h"

namespace {

// The operation whose step the reading of a record is.
constexpr char CHUNK_READER[] = "at_read_local_ima_chunk_from_file";
constexpr char DATA_READER[] = "read_template_data";

bool read_ima_template_data(ima_log &log, ima_template_area &area)
{
    std::span<const std::byte> bytes;
    if (ima_log_take(log, IMA_DIGEST_SIZE, bytes) != ima_log_read::whole) {
        attest_trace_as(DATA_READER, "Failed to read template data\n");
        return false;
    }
    area.fill(std::byte{0});
    std::ranges::copy(bytes, area.begin());
    std::uint32_t name_length = 0;
    if (!ima_log_take_u32(log, name_length) || name_length > IMA_EVENT_NAME_MAX) {
        attest_trace_as(DATA_READER, "ERROR: invalid field len read \n");
        return false;
    }
    // A name that is cut, or empty, is kept as far as it goes.
    if (ima_log_take(log, name_length, bytes) != ima_log_read::whole)
        attest_trace_as(DATA_READER, "ERROR: insufficient field data read \n");
    std::ranges::copy(bytes, area.begin() + IMA_DIGEST_SIZE);
    return true;
}

constexpr const ima_field *find_field(std::string_view id)
{
    const auto *row = std::ranges::find_if(
        ima_field_table, [id](const ima_field &field) { return id == std::string_view(field.id.data()); });
    return row == ima_field_table.end() ? nullptr : row;
}

// The first id of a field list, which loses it and the bar behind it; `more` says whether there was a bar.
constexpr std::string_view take_id(std::string_view &list, bool &more)
{
    std::size_t bar = list.find(IMA_FIELD_SEPARATOR);
    more = bar != std::string_view::npos;
    std::string_view id = list.substr(0, bar);
    list.remove_prefix(more ? bar + 1 : list.size());
    return id;
}

// The fields of the built-in templates, looked up once and for all; null behind the last.
using template_fields = std::array<const ima_field *, 4>;
constexpr auto built_in_fields = [] {
    std::array<template_fields, ima_template_table.size()> all{};
    for (std::size_t row = 0; row < all.size(); ++row) {
        std::string_view list = ima_template_table[row].field_list;
        bool more = true;
        for (std::size_t i = 0; more; ++i)
            all[row][i] = find_field(take_id(list, more));
    }
    return all;
}();

// The length of the field that begins at the cursor, which is moved behind a length that is written there.
bool field_length(const ima_field &field, bool is_ima, byte_cursor &cursor, std::span<const std::byte> data,
                  std::uint32_t &length)
{
    if (!is_ima)
        return cursor.get_le(length);
    if (field.parse == ima_eventdigest_parse) {
        length = IMA_DIGEST_SIZE;
    } else {
        // A name that fills its area has no NUL behind it.
        const char *name = reinterpret_cast<const char *>(data.data()) + cursor.position();
        length = static_cast<std::uint32_t>(strnlen(name, cursor.remaining()));
    }
    return true;
}

// Parses the field at the cursor and goes behind it.
std::int32_t parse_field(const ima_field &field, bool is_ima, byte_cursor &cursor,
                         std::span<const std::byte> data, IMA_EVENT *event)
{
    std::uint32_t length = 0;
    std::span<const std::byte> bytes;
    std::int32_t result = -1;
    if (field_length(field, is_ima, cursor, data, length)) {
        std::size_t begin = cursor.position();
        bool readable = cursor.remaining() >= field.least_bytes;
        if (readable && cursor.get_bytes(length, bytes))
            result = field.parse(data.data() + begin, length, event);
    }
    if (result != 0)
        attest_trace_as("parse_template_data", "Parsing of '%s' field failed, result: %d\n", field.id.data(),
                        result);
    return result;
}

void trace_unsupported(std::string_view id)
{
    char text[IMA_TEMPLATE_NAME_MAX + 1] = {};
    id.copy(text, IMA_TEMPLATE_NAME_MAX);
    attest_trace_as("parse_template_data", "Field '%s' not supported\n", text);
}

// The template's name is its field list.
std::int32_t parse_listed_fields(std::string_view list, byte_cursor &cursor, std::span<const std::byte> data,
                                 IMA_EVENT *event)
{
    for (bool more = true; more;) {
        std::string_view id = take_id(list, more);
        const ima_field *field = find_field(id);
        if (field == nullptr) {
            trace_unsupported(id);
            return -1;
        }
        if (std::int32_t result = parse_field(*field, false, cursor, data, event))
            return result;
    }
    return 0;
}

} // namespace

ima_record_outcome read_record_head(ima_log &log, ima_record_head &head)
{
    std::span<const std::byte> bytes;
    if (ima_log_take(log, IMA_RECORD_HEADER_SIZE, bytes) != ima_log_read::whole)
        return ima_record_outcome::end_of_log;
    std::memcpy(&head.pcr, bytes.data(), sizeof head.pcr);
    std::memcpy(head.template_hash.data(), bytes.data() + sizeof head.pcr, IMA_TEMPLATE_HASH_SIZE);
    std::memcpy(&head.name_length, bytes.data() + sizeof head.pcr + IMA_TEMPLATE_HASH_SIZE,
                sizeof head.name_length);
    head.name_read = false;
    head.template_name[0] = '\0';
    if (head.name_length > IMA_TEMPLATE_NAME_MAX)
        return ima_record_outcome::failed;
    head.name_read = ima_log_take(log, head.name_length, bytes) == ima_log_read::whole;
    if (head.name_read) {
        std::memcpy(head.template_name, bytes.data(), bytes.size());
        head.template_name[bytes.size()] = '\0';
    }
    return ima_record_outcome::read;
}

bool read_template_data(ima_log &log, bool is_ima, ima_template_area &area, std::span<const std::byte> &data)
{
    if (is_ima) {
        data = area;
        return read_ima_template_data(log, area);
    }
    std::uint32_t length = 0;
    ima_log_read read = ima_log_read::cut;
    if (ima_log_take_u32(log, length) && length <= IMA_TEMPLATE_DATA_MAX)
        read = ima_log_take(log, length, data);
    if (read == ima_log_read::no_memory)
        attest_trace("ERROR: out of memory\n");
    else if (read == ima_log_read::cut)
        attest_trace("Failed to read template data\n");
    return read == ima_log_read::whole;
}

std::int32_t parse_template_data(std::string_view template_name, std::span<const std::byte> data,
                                 IMA_EVENT *event)
{
    byte_cursor cursor(data);
    const auto *built_in = std::ranges::find(ima_template_table, template_name, &ima_template::name);
    if (built_in == ima_template_table.end())
        return parse_listed_fields(template_name, cursor, data, event);
    bool is_ima = template_name == IMA_TEMPLATE_IMA;
    for (const ima_field *field : built_in_fields[built_in - ima_template_table.begin()]) {
        if (field == nullptr)
            break;
        if (std::int32_t result = parse_field(*field, is_ima, cursor, data, event))
            return result;
    }
    return 0;
}

ima_record_outcome at_read_ima_record(ima_log &log, std::uint64_t index_in_chunk, IMA_EVENT *event,
                                      std::uint32_t *status)
{
    ima_record_head head;
    ima_record_outcome outcome = read_record_head(log, head);
    if (outcome == ima_record_outcome::end_of_log)
        return outcome;
    event->pcr = head.pcr;
    event->present |= IMA_EVENT::has_pcr;
    // Without memory for the hash or the name the event goes on without it.
    (void)copy_bytes(event, IMA_EVENT::has_template_hash, event->template_hash, head.template_hash);
    if (outcome == ima_record_outcome::failed) {
        attest_trace_as(CHUNK_READER, "%d ERROR: event name too long!\n", static_cast<int>(head.name_length));
        *status = ATTEST_ERR_EVENT_TOO_LONG;
        return outcome;
    }
    std::string_view template_name(head.template_name);
    if (head.name_read)
        (void)copy_text(event, IMA_EVENT::has_template_name, event->template_name, template_name);

    ima_template_area area;
    std::span<const std::byte> data;
    if (!read_template_data(log, template_name == IMA_TEMPLATE_IMA, area, data)) {
        attest_trace_as(CHUNK_READER, "Reading of measurement entry failed %lu", index_in_chunk);
        *status = ATTEST_ERR_BOOT_LOG_READ;
        return ima_record_outcome::failed;
    }
    if (parse_template_data(template_name, data, event) != 0)
        attest_trace_as(CHUNK_READER, "Parsing of measurement entry failed %lu", index_in_chunk);
    return ima_record_outcome::read;
}
