/* port.h - TCP and UDP ports as another program on the machine sees them. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/wait.h"

/* A socket that is connected to the port, for the caller to close; -1 when it cannot be connected. */
int connected_socket(int type, int port, const std::string &address = "127.0.0.1");

/* Whether a program listens: opens a TCP connection and closes it without sending anything. */
bool is_open(int port, const std::string &address = "127.0.0.1");

/* An emulator may tell no more of a connection than its state. */
inline bool system_counts_bytes_of_connections() {
    const int connection = socket(AF_INET, SOCK_STREAM, 0);
    tcp_info info = {};
    socklen_t size = sizeof(info);
    const int told = getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &size);
    close(connection);
    return told == 0 && size > offsetof(tcp_info, tcpi_bytes_sent);
}

/* Waits until no program listens: the port becomes free a little after its socket was closed. */
void wait_until_closed(int port, Where where = Where::current());
