/* For any descriptor that is no connection, each call does what the C library's does. */
#include "net/transport/replaced_calls.h"

#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "net/transport/connection_table.h"

#define REPLACES_THE_C_LIBRARYS extern "C" [[gnu::visibility("default"), gnu::used]]

static bool is_admitted(int descriptor) {
    sockaddr_in here = {}, there = {};
    socklen_t size = sizeof(here);
    if (getsockname(descriptor, reinterpret_cast<sockaddr *>(&here), &size) != 0 || here.sin_family != AF_INET)
        return true;
    size = sizeof(there);
    if (getpeername(descriptor, reinterpret_cast<sockaddr *>(&there), &size) != 0) return false;
    return connection_table_add(descriptor, ntohs(here.sin_port), there.sin_addr.s_addr);
}

static int admit(long accepted) {
    const auto descriptor = static_cast<int>(accepted);
    if (descriptor == -1 || is_admitted(descriptor)) return descriptor;
    syscall(SYS_close, descriptor);
    errno = ECONNABORTED;
    return -1;
}

REPLACES_THE_C_LIBRARYS int accept4(int listener, sockaddr *address, socklen_t *size, int flags) {
    return admit(syscall(SYS_accept4, listener, address, size, flags));
}

REPLACES_THE_C_LIBRARYS int accept(int listener, sockaddr *address, socklen_t *size) {
    return accept4(listener, address, size, 0);
}

REPLACES_THE_C_LIBRARYS ssize_t recv(int descriptor, void *bytes, size_t size, int flags) {
    const ssize_t received = syscall(SYS_recvfrom, descriptor, bytes, size, flags, nullptr, nullptr);
    if (received <= 0 || connection_table_received(descriptor, bytes, static_cast<size_t>(received))) return received;
    errno = ECONNRESET;
    return -1;
}

REPLACES_THE_C_LIBRARYS ssize_t send(int descriptor, const void *bytes, size_t size, int flags) {
    const ssize_t sent = syscall(SYS_sendto, descriptor, bytes, size, flags, nullptr, 0);
    if (sent > 0) connection_table_sent(descriptor, static_cast<size_t>(sent));
    return sent;
}

REPLACES_THE_C_LIBRARYS int close(int descriptor) {
    connection_table_remove(descriptor);
    return static_cast<int>(syscall(SYS_close, descriptor));
}

void replaced_calls_init(size_t descriptors) { connection_table_init(descriptors); }
