#include "harness/port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

static int use_address(int (*use)(int, const sockaddr *, socklen_t), int descriptor, const char *host, int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(host);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return use(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

int connected_socket(int type, int port, const std::string &address) {
    const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, 0), on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);  // the address may be one of all
    if (use_address(connect, descriptor, address.c_str(), port) == 0) return descriptor;
    close(descriptor);
    return -1;
}

bool is_open(int port, const std::string &address) {
    const int descriptor = connected_socket(SOCK_STREAM, port, address);
    return descriptor != -1 && close(descriptor) == 0;
}

void wait_until_closed(int port, Where where) {
    for (const auto end = deadline(); is_open(port); sched_yield())
        if (Clock::now() > end) abandon("port " + std::to_string(port) + " stays open", where);
}
