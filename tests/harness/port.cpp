#include "harness/port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

static sockaddr_in internet_address(in_addr_t host, int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = host;
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

TakenPort::TakenPort(int type, uint16_t port) : socket_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    // Past what earlier connections left of a TCP port; on UDP it would mean sharing.
    const int reuse = type == SOCK_STREAM;
    setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const sockaddr_in address = internet_address(htonl(INADDR_ANY), port);
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(type == SOCK_STREAM ? listen(socket_, 1) : 0, 0);
}

TakenPort::~TakenPort() { close(socket_); }

SilentConnection::SilentConnection(int port, const std::string &address)
    : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in service = internet_address(inet_addr(address.c_str()), port);
    accepted_ = connect(socket_, reinterpret_cast<const sockaddr *>(&service), sizeof service) == 0;
}

SilentConnection::~SilentConnection() { close(socket_); }

bool is_open(int port, const std::string &address) { return SilentConnection(port, address).accepted(); }

void wait_until_closed(int port, Where where) {
    for (const auto end = deadline(); is_open(port); sched_yield())
        if (Clock::now() > end) abandon("port " + std::to_string(port) + " stays open", where);
}
