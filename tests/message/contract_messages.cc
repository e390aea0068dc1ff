#include "tests/message/contract_messages.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include "api/remote_attestation_api.pb.h"

namespace pb = google::protobuf;
namespace contract = remote_attestation_api;

namespace {

const pb::Message *cache_block_class()
{
    static pb::DescriptorPool pool(pb::DescriptorPool::generated_pool());
    static pb::DynamicMessageFactory factory;
    pb::FileDescriptorProto file;
    file.set_name("cache_block.proto");
    file.set_syntax("proto3");
    file.add_dependency(contract::IMA_EVENT::descriptor()->file()->name());
    pb::DescriptorProto *message = file.add_message_type();
    message->set_name("IMACacheBlock");
    pb::FieldDescriptorProto *field = message->add_field();
    field->set_name("events");
    field->set_number(1);
    field->set_label(pb::FieldDescriptorProto::LABEL_REPEATED);
    field->set_type(pb::FieldDescriptorProto::TYPE_MESSAGE);
    field->set_type_name("." + contract::IMA_EVENT::descriptor()->full_name());
    return factory.GetPrototype(pool.BuildFile(file)->message_type(0));
}

std::size_t random_length(std::mt19937 &random)
{
    constexpr std::size_t LENGTHS[] = {0, 0, 1, 6, 7, 20, 32, 64, 127, 128, 300, 2000};
    return LENGTHS[random() % std::size(LENGTHS)];
}

std::string random_bytes(std::mt19937 &random, bool with_nul)
{
    std::string bytes(random_length(random), '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(with_nul ? random() % 256 : 1 + random() % 255);
    return bytes;
}

std::string random_utf8(std::mt19937 &random)
{
    constexpr const char *CHARACTERS[] = {
        "a", "/", "~", "\x7f", "é", "߿", "ࠀ", "€", "\xed\x9f\xbf", "𐀀", "\xf4\x8f\xbf\xbf"};
    std::string text;
    for (std::size_t i = random_length(random); i > 0; --i)
        text += CHARACTERS[random() % std::size(CHARACTERS)];
    return text;
}

std::uint64_t random_number(std::mt19937 &random)
{
    std::uint64_t bits = std::uint64_t{random()} << 32 | random();
    return bits >> random() % 64;
}

void fill(const message_descriptor &ours, pb::Message &theirs, std::mt19937 &random)
{
    const pb::Reflection *reflection = theirs.GetReflection();
    for (const field_descriptor &field : ours.fields) {
        const pb::FieldDescriptor *theirs_field = theirs.GetDescriptor()->FindFieldByNumber(field.number);
        if (random() % 4 == 0)
            continue;
        switch (field.kind) {
        case field_kind::u32:
            reflection->SetUInt32(&theirs, theirs_field, static_cast<std::uint32_t>(random_number(random)));
            break;
        case field_kind::u64:
            reflection->SetUInt64(&theirs, theirs_field, random_number(random));
            break;
        case field_kind::string:
            reflection->SetString(&theirs, theirs_field, random_utf8(random));
            break;
        case field_kind::name:
        case field_kind::bytes:
            reflection->SetString(&theirs, theirs_field,
                                  random_bytes(random, field.kind == field_kind::bytes));
            break;
        case field_kind::messages:
            for (std::size_t i = random() % 4; i > 0; --i)
                fill(*field.child, *reflection->AddMessage(&theirs, theirs_field), random);
            break;
        case field_kind::u32_list:
            for (std::size_t i = random_length(random); i > 0; --i)
                reflection->AddUInt32(&theirs, theirs_field,
                                      static_cast<std::uint32_t>(random_number(random)));
            break;
        }
    }
}

} // namespace

const std::vector<contract_message> &contract_messages()
{
#define MESSAGE(name)                                                                                        \
    {                                                                                                        \
        &message_descriptor_of<name>(), &contract::name::default_instance()                                  \
    }
    static const std::vector<contract_message> messages = {
        MESSAGE(CERTIFICATE_ENTRY),
        MESSAGE(SystemCertificates),
        MESSAGE(PCR_DUMP),
        MESSAGE(NodePCRData),
        MESSAGE(UID_DIGEST),
        MESSAGE(tpm_hw_integrity),
        MESSAGE(BOOT_EVENT_DIGEST),
        MESSAGE(BOOT_EVENT),
        MESSAGE(NodeBootIntegrityLog),
        MESSAGE(IMA_EVENT),
        MESSAGE(NodeIMAData),
        {&message_descriptor_of<IMACacheBlock>(), cache_block_class()},
        MESSAGE(get_certificate_request),
        MESSAGE(attest_pcr_request),
        MESSAGE(get_platform_boot_integrity_event_logs_request),
        MESSAGE(get_platform_hw_integrity_request),
        MESSAGE(get_platform_ima_event_logs_request),
        MESSAGE(get_certificate_response),
        MESSAGE(attest_pcr_response),
        MESSAGE(get_platform_boot_integrity_event_logs_response),
        MESSAGE(get_platform_ima_event_logs_response),
        MESSAGE(get_platform_hw_integrity_response),
    };
#undef MESSAGE
    return messages;
}

std::unique_ptr<pb::Message> random_message(const contract_message &type, std::mt19937 &random)
{
    std::unique_ptr<pb::Message> message(type.theirs->New());
    fill(*type.ours, *message, random);
    return message;
}

void cut_to_what_we_keep(const message_descriptor &ours, pb::Message &theirs)
{
    theirs.DiscardUnknownFields();
    const pb::Reflection *reflection = theirs.GetReflection();
    for (const field_descriptor &field : ours.fields) {
        const pb::FieldDescriptor *theirs_field = theirs.GetDescriptor()->FindFieldByNumber(field.number);
        if (field.kind == field_kind::messages) {
            for (int i = 0; i < reflection->FieldSize(theirs, theirs_field); ++i)
                cut_to_what_we_keep(*field.child,
                                    *reflection->MutableRepeatedMessage(&theirs, theirs_field, i));
        } else if ((field.kind == field_kind::string || field.kind == field_kind::name) &&
                   reflection->HasField(theirs, theirs_field)) {
            std::string text = reflection->GetString(theirs, theirs_field);
            reflection->SetString(&theirs, theirs_field, text.c_str());
        }
    }
}
