/* frame.h - ZeroMQ frames, and the exchange of one request and one answer on a REP socket. Network thread only.
 *
 * A REP socket that has received owes an answer and is deaf until it is sent. Every exchange therefore ends with one of
 * send_frame and send_empty_answer. */
#ifndef ACCESS_NET_FRAME_H
#define ACCESS_NET_FRAME_H

#include <cstddef>
#include <memory>

#include <kesto/proto.h>

#include "common/owned.h"

using CodecHandle = std::unique_ptr<Proto, ByAddress<proto_destroy>>;

/* Borrowed bytes; `bytes` is empty when there are none. */
struct Frame {
    const void *bytes;
    size_t size;
};

/* What the handle has encoded, or an empty frame. */
Frame encoded_frame(const Proto *handle);

/* Sends a copy of the frame on a raw ZeroMQ socket. False when the send fails. */
bool send_frame(void *socket, Frame frame, int flags);

/* The answer to something that could not be answered: one frame of size 0. */
void send_empty_answer(void *socket);

struct Exchange {
    void *socket;           /* the raw ZeroMQ socket */
    CodecHandle codec = {}; /* made from the received bytes; none until then */
    size_t received_bytes = 0;
    bool whole = false; /* the request came in one frame, and there is memory to decode it */
};

/* Receives one request without waiting and makes the codec handle. False when nothing could be received. */
bool exchange_receive(Exchange &exchange);

/* False when the bytes are not a request, came in more frames than one, or take more memory than there is. */
bool exchange_decode(Exchange &exchange);

/* Carries the decoded request out, calling the callbacks, and encodes the answer; an empty frame when there is none. */
Frame exchange_process(Exchange &exchange);

#endif
