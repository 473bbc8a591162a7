// gRPC over a local socket: synchronous service and stub, messages of any size. A connection is a channel.
#include "exchange.h"

#include <exchange.grpc.pb.h>
#include <grpcpp/grpcpp.h>

namespace {

constexpr std::array<std::string_view, 1> kGrpcForms = {"unix"};
constexpr int kAnySize = -1;

std::string target_in(const std::string& folder) {
    return "unix:" + folder + "/grpc";
}

class exchange_service : public exchange::Exchange::Service {
    grpc::Status Call(grpc::ServerContext* /*context*/, const exchange::Request* request,
                      exchange::Reply* reply) override {
        const reply_text text = answer(request->payload().data(), request->payload().size());
        reply->set_text(text.data(), text.size());
        return grpc::Status::OK;
    }
};

class grpc_connection : public connection {
public:
    explicit grpc_connection(const std::string& target) {
        grpc::ChannelArguments arguments;
        arguments.SetMaxReceiveMessageSize(kAnySize);
        arguments.SetMaxSendMessageSize(kAnySize);
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1); // else channels share one connection
        stub_ = exchange::Exchange::NewStub(
            grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments));
    }

    void call(std::string_view payload, std::string* ret_reply) override {
        grpc::ClientContext context;
        context.set_wait_for_ready(true);
        exchange::Request request;
        exchange::Reply reply;
        request.set_payload(payload.data(), payload.size());
        must(stub_->Call(&context, request, &reply).ok(), "call over gRPC");
        *ret_reply = reply.text();
    }

private:
    std::unique_ptr<exchange::Exchange::Stub> stub_;
};

} // namespace

const std::span<const std::string_view> kForms = kGrpcForms;

void serve(const setting& how, const std::function<void()>& ready) {
    exchange_service service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort(target_in(how.folder), grpc::InsecureServerCredentials());
    builder.SetMaxReceiveMessageSize(kAnySize);
    builder.SetMaxSendMessageSize(kAnySize);
    builder.RegisterService(&service);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    must(server != nullptr, "start the gRPC server");
    ready();
    server->Wait();
}

std::unique_ptr<connection> open_connection(const setting& how) {
    return std::make_unique<grpc_connection>(target_in(how.folder));
}
