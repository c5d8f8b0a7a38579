#include "net/resources.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <czmq.h>

static constexpr int descriptors_for_bus_call = 1;
static constexpr int descriptors_for_start = 16;   // of CZMQ, with its first socket
static constexpr int descriptors_for_socket = 6;   // two, and what requests under way need meanwhile
static constexpr int descriptors_for_monitor = 8;  // for the sockets between it and what it watches
static constexpr int descriptors_kept_from_connections = 24;
static_assert(std::max({descriptors_for_bus_call, descriptors_for_socket, descriptors_for_monitor}) <=
              descriptors_for_start);
static_assert(2 * descriptors_for_socket + descriptors_for_monitor <= descriptors_kept_from_connections,
              "connections alone must not be why a login is refused");

static constexpr size_t memory_for_connection = 3 << 20, memory_for_socket = 6 << 20;  // with what comes in meanwhile
static_assert(memory_for_connection < memory_for_socket);

// What a multi-write takes while it is decoded, sent on and answered: its bytes several times, and for each pair what
// the codec, D-Bus and the answer hold of it. Smaller requests live in what is kept from connections.
static constexpr size_t large_request_bytes = 4 << 10;
static constexpr size_t memory_for_request_byte = 16;
static constexpr size_t memory_for_pair = 1200, shortest_pair_bytes = 6, most_pairs = 65536;

static constexpr uint8_t tcp_established = 1;  // the kernel's state number; its header names none
static constexpr uint32_t silence_ms = 1000;
static constexpr uint64_t shortest_greeting_bytes = 12;  // of version 2 of the protocol
static constexpr uint64_t greeting_bytes = 64;           // of version 3

static std::atomic<bool> room_wanted = false;
static std::atomic<int> highest_connection = -1;  // descriptor that a connection has had

void resources_raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void resources_raise_socket_limit() {
    constexpr size_t all_that_libzmq_can_have = 0;
    zsys_set_max_sockets(all_that_libzmq_can_have);
}

size_t resources_socket_limit() {
    const char *setting = getenv("ZSYS_MAX_SOCKETS");
    const long wanted = setting != nullptr ? strtol(setting, nullptr, 10) : 0;
    return wanted > 0 ? static_cast<size_t>(wanted) : zsys_socket_limit();
}

size_t resources_descriptor_limit() {
    rlimit limit = {};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

// Opens that many descriptors and closes them again: the only way to know. A duplicate is the cheapest one to have.
static bool descriptors_free(int wanted) {
    int opened[descriptors_for_start];  // nothing asks for more
    int count = 0;
    while (count < wanted) {
        const int descriptor = dup(STDERR_FILENO);
        if (descriptor == -1) break;
        opened[count++] = descriptor;
    }
    for (int i = 0; i < count; ++i) close(opened[i]);
    return count == wanted;
}

static bool memory_free(size_t bytes) {
    void *space = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (space == MAP_FAILED) return false;
    munmap(space, bytes);
    return true;
}

static bool room_for(int descriptors) {
    if (descriptors_free(descriptors) && memory_free(memory_for_socket)) return true;
    room_wanted = true;
    return false;
}

bool resources_for_start() { return room_for(descriptors_for_start); }

bool resources_for_socket() { return room_for(descriptors_for_socket); }

bool resources_for_request(size_t bytes) {
    if (bytes < large_request_bytes) return true;
    const size_t pairs = std::min(bytes / shortest_pair_bytes, most_pairs);
    return memory_free(bytes * memory_for_request_byte + pairs * memory_for_pair);
}

bool resources_for_bus_call() { return descriptors_free(descriptors_for_bus_call); }

static void *do_nothing(void *) { return nullptr; }

static bool thread_free() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, do_nothing, nullptr) != 0) return false;
    pthread_join(thread, nullptr);
    return true;
}

bool resources_for_monitor() { return room_for(descriptors_for_monitor) && thread_free(); }

// The lowest free descriptor is given, so one of the last is given only when all others are taken.
static bool is_one_of_the_last(int descriptor) {
    return static_cast<size_t>(descriptor) + descriptors_kept_from_connections >= resources_descriptor_limit();
}

static void note_connection(int descriptor) {
    int highest = highest_connection;
    while (descriptor > highest && !highest_connection.compare_exchange_weak(highest, descriptor)) {
    }
}

/* Takes the place of the C library's in libzmq, which cannot be told how many connections it may have: with the last
 * descriptor gone its thread would spin, and whatever else needs one would abort. What is refused here is to libzmq a
 * connection that was gone before it could be accepted. */
extern "C" [[gnu::visibility("default"), gnu::used]] int accept4(int listener, sockaddr *address, socklen_t *size,
                                                                 int flags) {
    const long accepted = syscall(SYS_accept4, listener, address, size, flags);
    const int descriptor = static_cast<int>(accepted);
    if (descriptor == -1) return -1;
    if (!is_one_of_the_last(descriptor) && memory_free(memory_for_connection)) {
        note_connection(descriptor);
        return descriptor;
    }
    close(descriptor);
    room_wanted = true;
    errno = ECONNABORTED;
    return -1;
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

void resources_drop_silent_connections() {
    if (!room_wanted.exchange(false)) return;
    for (int descriptor = 0; descriptor <= highest_connection; ++descriptor) {
        if (is_silent_connection(descriptor)) shutdown(descriptor, SHUT_RDWR);  // libzmq then closes it
    }
}
