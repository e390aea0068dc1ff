// What the layer answers itself: health and reflection.
#include "google/protobuf/descriptor.pb.h"
#include "grpc/health/v1/health.pb.h"
#include "grpc/reflection/v1alpha/reflection.pb.h"
#include "tests/rpc/calls_fixture.h"

namespace {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;
using grpc::reflection::v1alpha::ServerReflectionRequest;
using grpc::reflection::v1alpha::ServerReflectionResponse;

class Introspection : public Calls {};

std::string health_request(const std::string &service)
{
    HealthCheckRequest request;
    request.set_service(service);
    return request.SerializeAsString();
}

TEST_F(Introspection, HealthKnowsTheServerAndTheInstance)
{
    serve();
    const std::pair<std::string, grpc::StatusCode> cases[] = {
        {health_request(""), grpc::StatusCode::OK},
        {health_request("rat_agent_test"), grpc::StatusCode::OK},
        {health_request("rat_agent_other"), grpc::StatusCode::NOT_FOUND},
        {"\xff", grpc::StatusCode::NOT_FOUND}};
    for (const auto &[request, code] : cases) {
        std::string answer;
        EXPECT_EQ(ask(channel, "/grpc.health.v1.Health/Check", request, &answer).error_code(), code);
        EXPECT_EQ(answer, code == grpc::StatusCode::OK ? "\x08\x01" : "") << "serving";
    }
}

TEST_F(Introspection, AHealthWatchTellsTheStatusAndStaysOpen)
{
    serve();
    const std::pair<std::string, HealthCheckResponse::ServingStatus> cases[] = {
        {"rat_agent_test", HealthCheckResponse::SERVING}, {"other", HealthCheckResponse::SERVICE_UNKNOWN}};
    for (const auto &[service, status] : cases) {
        raw_call watch(channel, "/grpc.health.v1.Health/Watch");
        watch.write(health_request(service));
        watch.writes_done();
        std::string answer;
        ASSERT_TRUE(watch.read(&answer));
        HealthCheckResponse response;
        ASSERT_TRUE(response.ParseFromString(answer));
        EXPECT_EQ(response.status(), status);
        if (service == "rat_agent_test")
            continue;
        node.deactivate();
        EXPECT_FALSE(watch.read(&answer));
        EXPECT_FALSE(watch.finish().ok());
    }
}

TEST_F(Introspection, ReflectionListsTheServicesAndGivesTheirContracts)
{
    serve();
    raw_call call(channel, "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo");
    ServerReflectionResponse response;
    const auto exchange = [&](const ServerReflectionRequest &request) {
        std::string answer;
        return call.write(request.SerializeAsString()) && call.read(&answer) &&
               response.ParseFromString(answer);
    };
    ServerReflectionRequest request;
    request.set_list_services("");
    ASSERT_TRUE(exchange(request));
    ASSERT_EQ(response.list_services_response().service_size(), 3);
    const auto listed = response.list_services_response();
    for (const auto &service : listed.service()) {
        request.set_file_containing_symbol(service.name());
        ASSERT_TRUE(exchange(request)) << service.name();
        EXPECT_EQ(response.file_descriptor_response().file_descriptor_proto_size(), 1) << service.name();
    }
    request.set_file_containing_symbol("remote_attestation_api.RemoteAttestationApi");
    ASSERT_TRUE(exchange(request));
    google::protobuf::FileDescriptorProto file;
    ASSERT_TRUE(file.ParseFromString(response.file_descriptor_response().file_descriptor_proto(0)));
    EXPECT_EQ(file.service(0).method_size(), 6);
    request.set_file_by_filename(file.name());
    ASSERT_TRUE(exchange(request));
    EXPECT_TRUE(response.has_file_descriptor_response());
    request.set_file_containing_symbol("no.such.thing");
    ASSERT_TRUE(exchange(request));
    EXPECT_EQ(response.error_response().error_code(), grpc::StatusCode::NOT_FOUND);
    call.writes_done();
    EXPECT_TRUE(call.finish().ok());
}

} // namespace
