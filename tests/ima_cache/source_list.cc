#include "tests/ima_cache/source_list.h"

#include <cstring>

namespace {
char template_name[] = "ima-ng";
}

source_chunk::source_chunk(std::uint64_t first_number, std::size_t name_length)
    : first(first_number), names(MAX_IMA_EVENTS), digests(MAX_IMA_EVENTS), events(MAX_IMA_EVENTS)
{
    for (std::uint64_t i = 0; i < MAX_IMA_EVENTS; ++i) {
        names[i] = std::to_string(first + i);
        names[i].resize(name_length, '/');
        auto hash = static_cast<std::uint32_t>((first + i) * 2654435761u);
        std::memcpy(digests[i].data(), &hash, sizeof hash);
        IMA_EVENT &event = events[i];
        event.present = IMA_EVENT::has_event_num | IMA_EVENT::has_template_name | IMA_EVENT::has_event_name |
                        IMA_EVENT::has_digest | IMA_EVENT::has_pcr;
        event.event_num = first + i;
        event.template_name = template_name;
        event.event_name = names[i].data();
        event.digest = {digests[i].data(), digests[i].size()};
        event.pcr = 10;
    }
}

std::int32_t source_chunk::add() const
{
    return at_ima_cache_add(events.data(), events.size(), offset_behind(first - 1),
                            offset_behind(first + MAX_IMA_EVENTS - 1));
}

std::int32_t cache_reader::start(std::uint64_t event)
{
    message_release(*message);
    return at_ima_cache_read_start(event, message.get(), &at.block, &at.offset, &at.fd);
}

std::int32_t cache_reader::next()
{
    message_release(*message);
    return at_ima_cache_read_next(message.get(), &at.block, &at.offset, &at.fd);
}

namespace {

std::vector<std::byte> encoded(const IMACacheBlock &message)
{
    std::vector<std::byte> bytes(static_cast<std::size_t>(message_encoded_size(message)));
    message_encode(message, bytes);
    return bytes;
}

std::string number(std::uint64_t value)
{
    return std::to_string(value);
}

bool is_source(const IMACacheBlock &message, std::uint64_t first)
{
    source_chunk chunk(first);
    IMACacheBlock expected{IMACacheBlock::has_events, {chunk.events.data(), MAX_IMA_EVENTS}};
    return encoded(message) == encoded(expected);
}

} // namespace

served_events serve_all()
{
    served_events served;
    std::uint64_t tail_offset = 0;
    std::uint64_t last_event = 0;
    if (at_ima_cache_get_last_offset(&tail_offset, &last_event) != 1)
        return {0, "the end is not known", false};
    if (tail_offset != offset_behind(last_event))
        served.problem = "offset " + number(tail_offset) + " behind event " + number(last_event);
    cache_reader reader;
    std::int32_t result = reader.start(1);
    while (result == 1 && served.problem.empty()) {
        served.wrong = !is_source(*reader.message, served.count + 1);
        if (served.wrong)
            served.problem = "the chunk behind event " + number(served.count) + " is another one";
        served.count += MAX_IMA_EVENTS;
        result = reader.next();
    }
    if (served.problem.empty() && served.count != last_event)
        served.problem = number(served.count) + " events served of " + number(last_event);
    if (served.problem.empty() && result < 0 && last_event != 0)
        served.problem = "an error behind event " + number(served.count);
    return served;
}
