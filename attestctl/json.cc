#include "attestctl/json.h"

#include <algorithm>
#include <array>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "attestctl/text.h"

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

namespace {

constexpr std::array<std::string_view, 3> KERNEL_NAMES = {"event_name", "template_name", "digest_algo"};

// The kernel's bytes as text; a string of it is unambiguous, see json.h.
std::string kernel_name(std::string_view bytes)
{
    std::string out;
    while (!bytes.empty()) {
        const code_point next = next_utf8(bytes);
        if (next.length == 0)
            out += format("\\x%02x", static_cast<unsigned char>(bytes.front()));
        else if (next.value == '\\')
            out += "\\\\";
        else
            out += bytes.substr(0, next.length);
        bytes.remove_prefix(std::max<std::size_t>(next.length, 1));
    }
    return out;
}

void append_text(std::string &out, const FieldDescriptor &field, const std::string &value)
{
    const bool is_text = field.type() == FieldDescriptor::TYPE_STRING;
    if (is_text)
        append_json_string(out, value);
    else if (std::find(KERNEL_NAMES.begin(), KERNEL_NAMES.end(), field.name()) != KERNEL_NAMES.end())
        append_json_string(out, kernel_name(value));
    else
        out += '"' + hex(value) + '"';
}

// One value of a field; `index` is -1 unless the field is a list.
void append_value(std::string &out, const Message &message, const FieldDescriptor &field, int index)
{
    const Reflection &reflection = *message.GetReflection();
    const FieldDescriptor *f = &field;
    std::string scratch;
    switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_MESSAGE:
        append_json(out, index < 0 ? reflection.GetMessage(message, f)
                                   : reflection.GetRepeatedMessage(message, f, index));
        break;
    case FieldDescriptor::CPPTYPE_STRING:
        append_text(out, field,
                    index < 0 ? reflection.GetStringReference(message, f, &scratch)
                              : reflection.GetRepeatedStringReference(message, f, index, &scratch));
        break;
    case FieldDescriptor::CPPTYPE_UINT32:
        out += std::to_string(index < 0 ? reflection.GetUInt32(message, f)
                                        : reflection.GetRepeatedUInt32(message, f, index));
        break;
    case FieldDescriptor::CPPTYPE_UINT64:
        out += std::to_string(index < 0 ? reflection.GetUInt64(message, f)
                                        : reflection.GetRepeatedUInt64(message, f, index));
        break;
    default:
        // The contract has no other types. A field of one that it may get shows as null rather than not at
        // all.
        out += "null";
        break;
    }
}

void append_list(std::string &out, const Message &message, const FieldDescriptor &field)
{
    const int count = message.GetReflection()->FieldSize(message, &field);
    out += '[';
    for (int i = 0; i < count; ++i) {
        if (i > 0)
            out += ',';
        append_value(out, message, field, i);
    }
    out += ']';
}

} // namespace

void append_json(std::string &out, const Message &message)
{
    const google::protobuf::Descriptor &type = *message.GetDescriptor();
    const Reflection &reflection = *message.GetReflection();
    out += '{';
    bool first = true;
    for (int i = 0; i < type.field_count(); ++i) {
        const FieldDescriptor &field = *type.field(i);
        const bool present = field.is_repeated() ? reflection.FieldSize(message, &field) > 0
                                                 : reflection.HasField(message, &field);
        if (!present)
            continue;
        if (!first)
            out += ',';
        first = false;
        out += '"' + field.name() + "\":";
        if (field.is_repeated())
            append_list(out, message, field);
        else
            append_value(out, message, field, -1);
    }
    out += '}';
}

void append_json_string(std::string &out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        const code_point next = next_utf8(text);
        const char32_t value = next.length == 0 ? 0xfffd : next.value;
        if (value == '"' || value == '\\')
            out += {'\\', static_cast<char>(value)};
        else if (!is_unsafe(value))
            append_utf8(out, value);
        else if (value < 0x10000)
            out += format("\\u%04x", static_cast<unsigned>(value));
        else
            out += format("\\u%04x\\u%04x", static_cast<unsigned>(0xd7c0 + (value >> 10)),
                          static_cast<unsigned>(0xdc00 + (value & 0x3ff)));
        text.remove_prefix(std::max<std::size_t>(next.length, 1));
    }
    out += '"';
}
