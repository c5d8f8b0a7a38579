#include "net/resources.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <czmq.h>

static constexpr int descriptors_for_socket = 16;
static constexpr int descriptors_for_bus_call = 2;
static_assert(descriptors_for_bus_call <= descriptors_for_socket);

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

// Opens that many descriptors and closes them again: the only way to know.
static bool descriptors_free(int wanted) {
    int opened[descriptors_for_socket];
    int count = 0;
    while (count < wanted) {
        const int descriptor = eventfd(0, EFD_CLOEXEC);
        if (descriptor == -1) break;
        opened[count++] = descriptor;
    }
    for (int i = 0; i < count; ++i) close(opened[i]);
    return count == wanted;
}

bool resources_for_socket() { return descriptors_free(descriptors_for_socket); }

bool resources_for_bus_call() { return descriptors_free(descriptors_for_bus_call); }

static void *do_nothing(void *) { return nullptr; }

bool resources_for_thread() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, do_nothing, nullptr) != 0) return false;
    pthread_join(thread, nullptr);
    return true;
}
