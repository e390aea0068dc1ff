// A measurement list of any bytes.
#include <cstdlib>
#include <cstring>

#include "fuzz/fuzz_input.h"
#include "ima/ima_events_skip.h"
#include "ima/ima_record_reader.h"

namespace {

// A log whose buffer holds the whole list and ends where the list does, so that a read past it is seen.
ima_log log_of(const std::uint8_t *data, std::size_t size)
{
    ima_log log;
    log.buffer.reset(static_cast<std::byte *>(std::malloc(size)));
    std::memcpy(log.buffer.get(), data, size);
    log.capacity = log.end = size;
    log.file_offset = size;
    return log;
}

// Reads what a client of the event reads.
void use(const IMA_EVENT &event)
{
    require((event.present & IMA_EVENT::has_pcr) != 0);
    if ((event.present & IMA_EVENT::has_event_name) != 0)
        require(std::strlen(event.event_name) <= IMA_TEMPLATE_DATA_MAX);
    if ((event.present & IMA_EVENT::has_digest_algo) != 0)
        require(std::strlen(event.digest_algo) <= IMA_ALGORITHM_NAME_MAX);
    if ((event.present & IMA_EVENT::has_template_name) != 0)
        require(std::strlen(event.template_name) <= IMA_TEMPLATE_NAME_MAX);
    if ((event.present & IMA_EVENT::has_digest) != 0)
        require(event.digest.length != 0);
    require(message_encoded_size(event) > 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    ima_log log = log_of(data, size);
    ima_record_outcome outcome = ima_record_outcome::read;
    std::uint64_t events = 0;
    std::uint64_t last_begin = 0;
    for (std::uint64_t index = 0; outcome == ima_record_outcome::read; ++index) {
        std::uint64_t before = ima_log_position(log);
        owned_message<IMA_EVENT> event;
        std::uint32_t status = 0;
        outcome = at_read_ima_record(log, index, event.get(), &status);
        require((outcome == ima_record_outcome::failed) == (status != 0));
        if (outcome == ima_record_outcome::read) {
            require(ima_log_position(log) > before && ima_log_position(log) <= size);
            use(*event);
            ++events;
            last_begin = before;
        }
    }
    // Who skips records finds their ends where who reads them does. (The last one may be cut off.)
    if (events > 1) {
        ima_log again = log_of(data, size);
        std::uint64_t count = events - 1;
        require(ima_events_skip(again, count) && count == events - 1 &&
                ima_log_position(again) == last_begin);
    }
    return 0;
}
