#include "net/transport/limits.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <czmq.h>

static constexpr int descriptors_for_bus_call = 1;
static constexpr int descriptors_for_start = 16;   // of CZMQ, with its first socket
static constexpr int descriptors_for_socket = 6;   // two, and what requests under way need meanwhile
static constexpr int descriptors_for_monitor = 8;  // for the sockets between it and what it watches
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

static constexpr int large_block_bytes = 256 << 10;

static std::atomic<bool> refused = false;

void limits_raise_descriptors() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Else the C library would keep more and more of them once one has been large.
void limits_give_memory_back() { mallopt(M_MMAP_THRESHOLD, large_block_bytes); }

void limits_raise_sockets() {
    constexpr size_t all_that_libzmq_can_have = 0;
    zsys_set_max_sockets(all_that_libzmq_can_have);
}

size_t limits_sockets() {
    const char *setting = getenv("ZSYS_MAX_SOCKETS");
    const long wanted = setting != nullptr ? strtol(setting, nullptr, 10) : 0;
    return wanted > 0 ? static_cast<size_t>(wanted) : zsys_socket_limit();
}

size_t limits_descriptors() {
    rlimit limit = {};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

// Opens that many descriptors and closes them again: the only way to know. A duplicate is the cheapest one to have.
static bool descriptors_free(int wanted) {
    int opened[descriptors_for_start];  // the most that is asked for
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

static bool allow_or_note(bool allowed) {
    if (!allowed) refused = true;
    return allowed;
}

static bool room_for(int descriptors) {
    return allow_or_note(descriptors_free(descriptors) && memory_free(memory_for_socket));
}

bool limits_allow_start() { return room_for(descriptors_for_start); }

bool limits_allow_socket() { return room_for(descriptors_for_socket); }

bool limits_allow_request(size_t bytes) {
    if (bytes < large_request_bytes) return true;
    const size_t pairs = std::min(bytes / shortest_pair_bytes, most_pairs);
    return memory_free(bytes * memory_for_request_byte + pairs * memory_for_pair);
}

bool limits_allow_bus_call() { return descriptors_free(descriptors_for_bus_call); }

static void *do_nothing(void *) { return nullptr; }

static bool thread_free() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, do_nothing, nullptr) != 0) return false;
    pthread_join(thread, nullptr);
    return true;
}

bool limits_allow_monitor() { return room_for(descriptors_for_monitor) && thread_free(); }

// The lowest free descriptor is given, so one of the last is given only when all others are taken.
static bool is_one_of_the_last(int descriptor, size_t count) {
    return static_cast<size_t>(descriptor) + count >= limits_descriptors();
}

bool limits_leave(int descriptor, size_t descriptors) {
    const size_t kept = descriptors_kept_from_connections + descriptors;
    return allow_or_note(!is_one_of_the_last(descriptor, kept) && memory_free(memory_for_connection));
}

void limits_note_refusal() { refused = true; }

bool limits_take_refusal() { return refused.exchange(false); }
