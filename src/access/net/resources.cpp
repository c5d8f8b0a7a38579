#include "net/resources.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <czmq.h>

static constexpr int descriptors_for_socket = 16;
static constexpr int descriptors_for_bus_call = 2;

void resources_raise_limits() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    zsys_set_max_sockets(0);  // as many as libzmq can have
}

// Opens that many descriptors and closes them again: the only way to know.
static bool descriptors_free(int wanted) {
    int opened[descriptors_for_socket];
    int count = 0;
    while (count < wanted) {
        const int descriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
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
