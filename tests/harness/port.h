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

/* A TCP connection that never says a word, as a port scanner makes it. */
class SilentConnection {
  public:
    explicit SilentConnection(int port, const std::string &address = "127.0.0.1");
    ~SilentConnection();
    SilentConnection(const SilentConnection &) = delete;
    SilentConnection &operator=(const SilentConnection &) = delete;

    bool accepted() const { return accepted_; }

  private:
    int socket_;
    bool accepted_;
};

bool is_open(int port, const std::string &address = "127.0.0.1");

/* Until nobody listens any more: a closed socket's port goes a little later. */
void wait_until_closed(int port, Where where = Where::current());
