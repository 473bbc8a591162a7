// ZeroMQ: a REQ socket calls a REP socket over ipc://, one service thread. A connection is a REQ socket.
#include "exchange.h"

#include <zmq.h>

namespace {

constexpr std::array<std::string_view, 1> kZeromqForms = {"ipc"};

std::string address_in(const std::string& folder) {
    return "ipc://" + folder + "/zeromq";
}

class zeromq_connection : public connection {
public:
    explicit zeromq_connection(const std::string& address) {
        static void* const context = zmq_ctx_new(); // one for each process, as its manual asks for
        socket_ = zmq_socket(context, ZMQ_REQ);
        must(socket_ != nullptr && zmq_connect(socket_, address.c_str()) == 0, "connect over ZeroMQ");
    }
    zeromq_connection(const zeromq_connection&) = delete;
    zeromq_connection& operator=(const zeromq_connection&) = delete;
    ~zeromq_connection() override { (void)zmq_close(socket_); }

    void call(std::string_view payload, std::string* ret_reply) override {
        ret_reply->resize(kReplySize);
        must(zmq_send(socket_, payload.data(), payload.size(), 0) == static_cast<int>(payload.size()) &&
                 zmq_recv(socket_, ret_reply->data(), kReplySize, 0) == static_cast<int>(kReplySize),
             "call over ZeroMQ");
    }

private:
    void* socket_;
};

} // namespace

const std::span<const std::string_view> kForms = kZeromqForms;

void serve(const setting& how, const std::function<void()>& ready) {
    void* socket = zmq_socket(zmq_ctx_new(), ZMQ_REP);
    must(zmq_bind(socket, address_in(how.folder).c_str()) == 0, "listen over ZeroMQ");
    ready();
    for (;;) {
        zmq_msg_t request;
        (void)zmq_msg_init(&request);
        must(zmq_msg_recv(&request, socket, 0) >= 0, "receive over ZeroMQ");
        const reply_text reply = answer(zmq_msg_data(&request), zmq_msg_size(&request));
        (void)zmq_msg_close(&request);
        must(zmq_send(socket, reply.data(), reply.size(), 0) == static_cast<int>(reply.size()), "reply over ZeroMQ");
    }
}

std::unique_ptr<connection> open_connection(const setting& how) {
    return std::make_unique<zeromq_connection>(address_in(how.folder));
}
