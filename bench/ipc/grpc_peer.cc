// gRPC over a Unix socket: unary calls, synchronous on both sides.

#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "echo.grpc.pb.h"
#include "peer.h"
#include "support/file_descriptor.h"

namespace zu::bench {
namespace {

constexpr int kMaxMessage = 16 * 1024 * 1024;

class Service final : public EchoService::Service {
  grpc::Status Echo(grpc::ServerContext* /*context*/, const Body* request,
                    Body* reply) override {
    reply->set_data(request->data());
    return grpc::Status::OK;
  }
};

struct Client {
  std::unique_ptr<EchoService::Stub> stub;
  Body request;
  Body reply;
};

}  // namespace

bool Serve(const std::string& address, const ReportReady& report_ready) {
  Service service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("unix:" + address,
                           grpc::InsecureServerCredentials());
  builder.SetMaxReceiveMessageSize(kMaxMessage);
  builder.SetMaxSendMessageSize(kMaxMessage);
  builder.RegisterService(&service);
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server) return false;
  report_ready();
  char ignored;
  while (RetryOnInterrupt([&] { return ::read(STDIN_FILENO, &ignored, 1); }) >
         0) {
  }
  server->Shutdown();
  return true;
}

Connection Connect(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(kMaxMessage);
  arguments.SetMaxSendMessageSize(kMaxMessage);
  // Otherwise all channels of a process share one connection.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  const auto client = std::make_shared<Client>();
  client->stub = EchoService::NewStub(grpc::CreateCustomChannel(
      "unix:" + address, grpc::InsecureChannelCredentials(), arguments));
  return [client](std::string_view request) -> std::string_view {
    client->request.set_data(request.data(), request.size());
    grpc::ClientContext context;
    const grpc::Status status =
        client->stub->Echo(&context, client->request, &client->reply);
    if (!status.ok()) {
      std::fprintf(stderr, "call: %s\n", status.error_message().c_str());
      return {};
    }
    return client->reply.data();
  };
}

}  // namespace zu::bench
