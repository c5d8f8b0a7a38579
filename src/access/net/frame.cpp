#include "net/frame.h"

#include <cstdint>
#include <cstring>

#include <czmq.h>

#include "net/resources.h"

namespace {

struct Message : zmq_msg_t {
    Message() { zmq_msg_init(this); }
    ~Message() { zmq_msg_close(this); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
};

}  // namespace

Frame encoded_frame(const Proto *handle) {
    const void *bytes = proto_buffer(handle);
    const size_t size = proto_buffer_size(handle);
    if (bytes == nullptr || size == SIZE_MAX) return {nullptr, 0};
    return {bytes, size};
}

bool send_frame(void *socket, Frame frame, int flags) {
    zmq_msg_t message;
    if (zmq_msg_init_size(&message, frame.size) != 0) return false;
    if (frame.size > 0) memcpy(zmq_msg_data(&message), frame.bytes, frame.size);
    if (zmq_msg_send(&message, socket, flags) >= 0) return true;
    zmq_msg_close(&message);
    return false;
}

void send_empty_answer(void *socket) { zstr_send(socket, ""); }

// While frames of a request are unread its answer cannot be sent, and each would look like a request of its own.
static void drop_further_frames(void *socket) {
    Message message;
    do {
        if (zmq_msg_recv(&message, socket, ZMQ_DONTWAIT) < 0) return;
    } while (zmq_msg_more(&message) != 0);
}

bool exchange_receive(Exchange &exchange) {
    Message message;
    if (zmq_msg_recv(&message, exchange.socket, ZMQ_DONTWAIT) < 0) return false;

    exchange.received_bytes = zmq_msg_size(&message);
    const bool affordable = resources_for_request(exchange.received_bytes);
    exchange.codec.reset(proto_new_full(zmq_msg_data(&message), affordable ? exchange.received_bytes : 0));
    exchange.whole = affordable && zmq_msg_more(&message) == 0;
    if (zmq_msg_more(&message) != 0) drop_further_frames(exchange.socket);
    return true;
}

bool exchange_decode(Exchange &exchange) { return exchange.whole && proto_decode(exchange.codec.get()) >= 0; }

Frame exchange_process(Exchange &exchange) {
    proto_process(exchange.codec.get());
    proto_encode(exchange.codec.get());
    return encoded_frame(exchange.codec.get());
}
