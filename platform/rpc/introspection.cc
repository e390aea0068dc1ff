#include "platform/rpc/introspection.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include "api/remote_attestation_api.pb.h"
#include "grpc/health/v1/health.pb.h"
#include "grpc/reflection/v1alpha/reflection.pb.h"
#include "platform/rpc/shared.h"

namespace {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;
using grpc::reflection::v1alpha::ServerReflectionRequest;
using grpc::reflection::v1alpha::ServerReflectionResponse;

// Naming a message of each contract keeps its description in the program.
const google::protobuf::FileDescriptor *contract(int index)
{
    const google::protobuf::FileDescriptor *files[] = {
        remote_attestation_api::get_certificate_request::descriptor()->file(),
        HealthCheckRequest::descriptor()->file(),
        ServerReflectionRequest::descriptor()->file(),
    };
    return files[index];
}
constexpr int CONTRACTS = 3;

bool parse(google::protobuf::Message &message, std::span<const std::byte> bytes)
{
    return message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

void list_services(ServerReflectionResponse &response)
{
    for (int i = 0; i < CONTRACTS; ++i) {
        const auto *file = contract(i);
        for (int j = 0; j < file->service_count(); ++j)
            response.mutable_list_services_response()->add_service()->set_name(file->service(j)->full_name());
    }
}

void answer_error(ServerReflectionResponse &response, rpc_code code, const std::string &text)
{
    response.mutable_error_response()->set_error_code(static_cast<int>(code));
    response.mutable_error_response()->set_error_message(text);
}

// None of the contracts imports another file, so a file's description is complete by itself.
void answer_file(ServerReflectionResponse &response, const google::protobuf::FileDescriptor *file,
                 const std::string &wanted)
{
    if (file == nullptr) {
        answer_error(response, rpc_code::not_found, "not found: " + wanted);
        return;
    }
    google::protobuf::FileDescriptorProto description;
    file->CopyTo(&description);
    *response.mutable_file_descriptor_response()->add_file_descriptor_proto() =
        description.SerializeAsString();
}

const google::protobuf::FileDescriptor *file_with_name(const std::string &name)
{
    for (int i = 0; i < CONTRACTS; ++i) {
        if (contract(i)->name() == name)
            return contract(i);
    }
    return nullptr;
}

const google::protobuf::FileDescriptor *file_with_symbol(const std::string &symbol)
{
    return google::protobuf::DescriptorPool::generated_pool()->FindFileContainingSymbol(symbol);
}

// The contracts have no extensions: a known type has none, and none can be found.
void answer_extensions_of(ServerReflectionResponse &response, const std::string &type)
{
    if (google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type) == nullptr)
        answer_error(response, rpc_code::not_found, "not found: " + type);
    else
        response.mutable_all_extension_numbers_response()->set_base_type_name(type);
}

} // namespace

rpc_health rpc_health_of(std::span<const std::byte> bytes, const std::string &instance)
{
    HealthCheckRequest request;
    const bool known = parse(request, bytes) && (request.service().empty() || request.service() == instance);
    return known ? rpc_health::serving : rpc_health::service_unknown;
}

std::string rpc_health_answer(rpc_health health)
{
    HealthCheckResponse response;
    response.set_status(static_cast<HealthCheckResponse::ServingStatus>(health));
    return response.SerializeAsString();
}

std::string rpc_reflection_answer(std::span<const std::byte> bytes)
{
    ServerReflectionRequest request;
    ServerReflectionResponse response;
    if (parse(request, bytes)) {
        response.set_valid_host(request.host());
        *response.mutable_original_request() = request;
    }
    switch (request.message_request_case()) {
    case ServerReflectionRequest::kListServices:
        list_services(response);
        break;
    case ServerReflectionRequest::kFileByFilename:
        answer_file(response, file_with_name(request.file_by_filename()), request.file_by_filename());
        break;
    case ServerReflectionRequest::kFileContainingSymbol:
        answer_file(response, file_with_symbol(request.file_containing_symbol()),
                    request.file_containing_symbol());
        break;
    case ServerReflectionRequest::kFileContainingExtension:
        answer_error(response, rpc_code::not_found, "no such extension");
        break;
    case ServerReflectionRequest::kAllExtensionNumbersOfType:
        answer_extensions_of(response, request.all_extension_numbers_of_type());
        break;
    case ServerReflectionRequest::MESSAGE_REQUEST_NOT_SET:
        answer_error(response, rpc_code::invalid_argument, "the request asks for nothing known");
        break;
    }
    return response.SerializeAsString();
}
