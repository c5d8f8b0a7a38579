/* port.h - TCP and UDP ports as somebody else on the machine sees them. */
#pragma once

#include <cstdint>
#include <string>

#include "harness/wait.h"

/* A port that somebody else has, and does not share. `type` is SOCK_STREAM or SOCK_DGRAM. */
class TakenPort {
  public:
    TakenPort(int type, uint16_t port);
    ~TakenPort();
    TakenPort(const TakenPort &) = delete;
    TakenPort &operator=(const TakenPort &) = delete;

  private:
    int socket_;
};

/* A socket that is connected to the port, for the caller to close; -1 when there is none. */
int connected_socket(int type, int port, const std::string &address = "127.0.0.1");

/* Whether somebody listens, seen by a TCP connection that never says a word. */
bool is_open(int port, const std::string &address = "127.0.0.1");

/* Until nobody listens any more: a closed socket's port goes a little later. */
void wait_until_closed(int port, Where where = Where::current());
