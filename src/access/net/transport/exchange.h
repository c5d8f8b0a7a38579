/* exchange.h - one request and one answer on a REP socket. Network thread only.
 *
 * A REP socket that has received owes an answer and is deaf until it is sent. Every exchange therefore ends with one of
 * exchange_answer and send_empty_answer. */
#pragma once

#include <cstddef>

#include "net/transport/frame.h"

struct Exchange {
    void *socket;           /* the raw ZeroMQ socket */
    int port;               /* that it listens on */
    CodecHandle codec = {}; /* of the received bytes, or empty for want of memory; NULL until then */
    size_t received_bytes = 0;
    int connection = -1; /* descriptor that the request came in on */
    bool whole = false;  /* the request came in one frame, and there is memory to decode it */
};

/* Receives one request without waiting and makes the codec handle; further frames of it are dropped. False when nothing
 * could be received; an answer has to be tried also then. */
bool exchange_receive(Exchange &exchange);

/* False when the bytes are not a request, came in more frames than one, or take more memory than there is. */
bool exchange_decode(Exchange &exchange);

/* Carries the decoded request out, calling the callbacks, and encodes the answer; no bytes when that failed. */
Frame exchange_process(Exchange &exchange);

/* Sends the answer, as send_frame does. */
bool exchange_answer(const Exchange &exchange, Frame answer, int flags);

/* The answer to something that could not be answered: one frame of size 0. */
void send_empty_answer(void *socket);
