/* frame.h - ZeroMQ frames, and the codec handles that they are made of. Network thread only. */
#pragma once

#include <cstddef>
#include <memory>

#include <kesto/proto.h>

#include "common/owned.h"

using CodecHandle = std::unique_ptr<Proto, ByAddress<proto_destroy>>;

/* Bytes borrowed from a codec handle, valid until it encodes again or is destroyed. `bytes` is NULL when there are
 * none, which is not the same as a frame of size 0. */
struct Frame {
    const void *bytes;
    size_t size;
};

/* What the handle has encoded; no bytes when that failed. */
Frame encoded_frame(const Proto *handle);

/* Sends a copy of the frame on a raw ZeroMQ socket; `flags` are those of zmq_msg_send. Without ZMQ_DONTWAIT it may wait
 * as long as the socket's send time-out. False when the send fails. */
bool send_frame(void *socket, Frame frame, int flags);
