// One record of the measurement list becomes one event.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "ima/ima_log.h"
#include "ima/ima_record_format.h"
#include "platform/messages.h"

enum class ima_record_outcome : std::uint8_t {
    read,       // the event is filled, as far as its fields could be parsed
    end_of_log, // there is no whole header left; the event is as it was
    failed      // the list cannot be read on; the event holds what came before
};

// Reads the record at the log's position into `event`, whose fields are all absent: `pcr`, `template_hash`,
// `template_name` and the fields of the template. Fields that cannot be parsed are traced with
// `index_in_chunk` (from 0) and leave the outcome `read`. On `failed` *status is ATTEST_ERR_EVENT_TOO_LONG
// (template name) or ATTEST_ERR_BOOT_LOG_READ. The event is the caller's to release in every case.
ima_record_outcome at_read_ima_record(ima_log &log, std::uint64_t index_in_chunk, IMA_EVENT *event,
                                      std::uint32_t *status);

// ---- the steps ----

struct ima_record_head {
    std::uint32_t pcr;
    std::array<std::byte, IMA_TEMPLATE_HASH_SIZE> template_hash;
    std::uint32_t name_length;                     // as the record has it
    bool name_read;                                // false: the name is cut or empty, template_name is ""
    char template_name[IMA_TEMPLATE_NAME_MAX + 1]; // NUL-terminated
};

// The header and the template name at the log's position. `failed` when the name is too long: it has not been
// read then and template_name is "".
ima_record_outcome read_record_head(ima_log &log, ima_record_head &head);

// Where the fixed-size template data of an "ima" record is put together.
using ima_template_area = std::array<std::byte, IMA_TEMPLATE_DATA_SIZE>;

// The template data at the log's position: for "ima" in `area`, zero behind the name; else a view of the
// log's buffer, which the next call on the log ends. False, with a trace line, when it cannot be read.
bool read_template_data(ima_log &log, bool is_ima, ima_template_area &area, std::span<const std::byte> &data);

// Walks the fields that the template has and hands each to its parser. 0, or the result of the step that
// failed, which is traced; the event keeps the fields before it.
std::int32_t parse_template_data(std::string_view template_name, std::span<const std::byte> data,
                                 IMA_EVENT *event);
