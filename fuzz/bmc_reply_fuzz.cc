// A reply of the BMC of any bytes, and what it carries. The first byte says in how large pieces it comes and
// which record is asked for.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bmc/rest_reply.h"
#include "fuzz/fuzz_input.h"
#include "platform/base64.h"
#include "platform/messages.h"
#include "platform/owners.h"

namespace {

template <class Record>
void decode_record(std::span<const std::byte> bytes)
{
    owned_message<Record> record;
    if (!message_decode(bytes, *record))
        require(record->present == 0);
}

void use(const rest_response &reply, unsigned record)
{
    require(reply.payload >= reply.body && reply.payload + reply.payload_len <= reply.body + reply.body_len);
    std::int64_t size = at_base64_decode_size_bytes(reply.payload, reply.payload_len);
    require(size >= 0 && size <= reply.payload_len);
    auto length = static_cast<std::uint32_t>(size);
    malloc_ptr<std::uint8_t> bytes(static_cast<std::uint8_t *>(std::malloc(length)));
    if (at_base64_decode(reply.payload, reply.payload_len, bytes.get(), &length) != 0) {
        require(length == 0);
        return;
    }
    require(length == size);
    std::uint32_t text_length = 0;
    malloc_ptr<char> again(at_base64_encode(bytes.get(), length, &text_length));
    require(text_length == reply.payload_len && std::memcmp(again.get(), reply.payload, text_length) == 0);
    constexpr void (*decoders[])(std::span<const std::byte>) = {
        decode_record<NodeBootIntegrityLog>, decode_record<NodePCRData>, decode_record<NodeIMAData>,
        decode_record<SystemCertificates>, decode_record<tpm_hw_integrity>};
    decoders[record % std::size(decoders)](std::as_bytes(std::span(bytes.get(), length)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    rest_response reply = {};
    scope_exit release([&reply] { std::free(reply.body); });
    reply.body = static_cast<char *>(std::calloc(1, 1));
    std::size_t piece = 1 + (data[0] & 15) * 16;
    for (std::size_t at = 1; at < size; at += piece) {
        std::size_t length = std::min(piece, size - at);
        // The library's pieces are not constant.
        malloc_ptr<char> copy(static_cast<char *>(std::malloc(length)));
        std::memcpy(copy.get(), data + at, length);
        require(local_write_cb(copy.get(), 1, length, &reply) == length);
    }
    require(reply.body_len == size - 1);
    std::uint32_t result = parse_data(&reply);
    require(result == (reply.payload == nullptr ? 0 : reply.body_len));
    if (reply.payload != nullptr)
        use(reply, data[0] >> 4);
    else
        require(reply.payload_len == 0);
    return 0;
}
