#include "net/transport/exchange.h"

#include <czmq.h>

#include "net/transport/connection_table.h"
#include "net/transport/limits.h"

struct ReceivedMessage : zmq_msg_t {
    ReceivedMessage() { zmq_msg_init(this); }
    ~ReceivedMessage() { zmq_msg_close(this); }
    ReceivedMessage(const ReceivedMessage &) = delete;
    ReceivedMessage &operator=(const ReceivedMessage &) = delete;
};

// While frames of a request are unread its answer cannot be sent, and each would look like a request of its own.
static void drop_further_frames(void *socket) {
    ReceivedMessage message;
    do {
        if (zmq_msg_recv(&message, socket, ZMQ_DONTWAIT) < 0) return;
    } while (zmq_msg_more(&message) != 0);
}

bool exchange_receive(Exchange &exchange) {
    ReceivedMessage message;
    if (zmq_msg_recv(&message, exchange.socket, ZMQ_DONTWAIT) < 0) return false;

    exchange.received_bytes = zmq_msg_size(&message);
    exchange.connection = zmq_msg_get(&message, ZMQ_SRCFD);
    connection_table_taken(exchange.port, exchange.connection, exchange.received_bytes);
    const bool affordable = limits_allow_request(exchange.received_bytes);
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

bool exchange_answer(const Exchange &exchange, Frame answer, int flags) {
    if (!send_frame(exchange.socket, answer, flags)) return false;
    connection_table_answered(exchange.connection, answer.size);
    return true;
}

void send_empty_answer(void *socket) { zstr_send(socket, ""); }
