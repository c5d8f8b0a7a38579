#include "net/transport/frame.h"

#include <cstdint>
#include <cstring>
#include <zmq.h>

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
