#include "net/transport/accept_gate.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "net/transport/limits.h"

static constexpr uint8_t tcp_established = 1;  // the kernel's state number; its header names none
static constexpr uint32_t silence_ms = 1000;
static constexpr uint64_t shortest_greeting_bytes = 12;  // of version 2 of the protocol
static constexpr uint64_t greeting_bytes = 64;           // of version 3

static std::atomic<int> highest_connection = -1;  // descriptor that a connection has had

static void note_connection(int descriptor) {
    int highest = highest_connection;
    while (descriptor > highest && !highest_connection.compare_exchange_weak(highest, descriptor)) {
    }
}

// What is refused here is to libzmq a connection that was gone before it could be accepted.
static int refuse_connection(int descriptor) {
    close(descriptor);
    errno = ECONNABORTED;
    return -1;
}

#define REPLACES_THE_C_LIBRARYS extern "C" [[gnu::visibility("default"), gnu::used]]

REPLACES_THE_C_LIBRARYS int accept4(int listener, sockaddr *address, socklen_t *size, int flags) {
    const auto descriptor = static_cast<int>(syscall(SYS_accept4, listener, address, size, flags));
    if (descriptor == -1) return -1;
    if (!limits_allow_connection(descriptor)) return refuse_connection(descriptor);
    note_connection(descriptor);
    return descriptor;
}

// A peer of version 3 has had all of our greeting, and nothing more before we have all of its own. One of version 2
// that has been quiet may look the same; it is closed with the others and comes back.
static bool waits_for_greeting(const tcp_info &info) {
    return info.tcpi_bytes_received < shortest_greeting_bytes ||
           (info.tcpi_bytes_received < greeting_bytes && info.tcpi_bytes_sent == greeting_bytes);
}

static bool is_silent_connection(int descriptor) {
    tcp_info info = {};
    socklen_t size = sizeof(info);
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
    const bool tells_bytes = size >= offsetof(tcp_info, tcpi_bytes_sent) + sizeof(info.tcpi_bytes_sent);
    return tells_bytes && info.tcpi_state == tcp_established && info.tcpi_last_data_recv >= silence_ms &&
           waits_for_greeting(info);
}

void accept_gate_drop_silent() {
    if (!limits_take_refusal()) return;
    for (int descriptor = 0; descriptor <= highest_connection; ++descriptor) {
        if (is_silent_connection(descriptor)) shutdown(descriptor, SHUT_RDWR);  // libzmq then closes it
    }
}
