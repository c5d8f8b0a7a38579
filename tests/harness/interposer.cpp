/* A library that is loaded before the others (LD_PRELOAD) and makes a call of the service fail.
 *
 * KESTO_FAIL="zloop_poller:2" makes the second call of zloop_poller fail; with "zloop_poller:2:stop" SIGTERM comes in
 * front of that call, which takes its course. "tell" makes none fail and prints the 2nd and 3rd argument of each.
 * Only calls from the program itself count, not those from its libraries, but for the one that a monitor ends with. */
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <unistd.h>

static bool from_program(const void *caller) {
    Dl_info calling = {}, program = {};
    dladdr(caller, &calling);
    dladdr(reinterpret_cast<const void *>(getauxval(AT_ENTRY)), &program);
    return calling.dli_fbase == program.dli_fbase;
}

static bool fails(const char *name, uintptr_t second, uintptr_t third, const void *caller) {
    if (!from_program(caller) && strcmp(name, "zmq_socket_monitor") != 0) return false;
    static const std::string wanted = getenv("KESTO_FAIL");  // libraries call before there is an environment
    static std::atomic<long> count = 0;
    if (wanted == "tell") fprintf(stderr, "%s %d %d\n", name, static_cast<int>(second), static_cast<int>(third));
    if (!wanted.starts_with(std::string(name) + ':')) return false;
    const std::string call = std::string(name) + ':' + std::to_string(++count);
    if (wanted == call + ":stop") kill(getpid(), SIGTERM), usleep(600'000);  // who waits for this thread is interrupted
    return wanted == call;
}

/* The arguments of a C function travel in registers whatever their types; none of these has a floating one. */
using Word = uintptr_t;
using Function = Word(Word, Word, Word, Word, Word, Word);
static constexpr Word minus_one = static_cast<Word>(-1), null = 0;

#define FAIL_WITH(name, value)                                                               \
    extern "C" Function failing_##name __asm__(#name);                                       \
    Word failing_##name(Word a, Word b, Word c, Word d, Word e, Word f) {                    \
        static auto *const next = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, #name));     \
        if (!fails(#name, b, c, __builtin_return_address(0))) return next(a, b, c, d, e, f); \
        errno = EIO;                                                                         \
        return value;                                                                        \
    }

FAIL_WITH(dup, minus_one)
FAIL_WITH(mallopt, null)
FAIL_WITH(socket, minus_one)
FAIL_WITH(setsockopt, minus_one)
FAIL_WITH(fcntl, minus_one)
FAIL_WITH(bind, minus_one)
FAIL_WITH(recvfrom, (next(a, b, c, MSG_DONTWAIT, null, null), next(a, b, c, d, e, f)))  // the system has dropped it
FAIL_WITH(sendto, minus_one)
#ifndef __SANITIZE_THREAD__  // which calls it before it is ready to be asked for the real one
FAIL_WITH(mmap, minus_one)
#endif
FAIL_WITH(pthread_create, EAGAIN)
FAIL_WITH(g_try_malloc0, null)
FAIL_WITH(g_hash_table_new_full, null)
FAIL_WITH(g_async_queue_new_full, null)
FAIL_WITH(g_bus_get_sync, null)
FAIL_WITH(g_dbus_method_invocation_get_user_data, null)
FAIL_WITH(zsys_init, null)
FAIL_WITH(zloop_new, null)
FAIL_WITH(zloop_poller, minus_one)
FAIL_WITH(zloop_poller_set_tolerant, null)
FAIL_WITH(zloop_timer, minus_one)
FAIL_WITH(zsock_new_checked, null)
FAIL_WITH(zsock_bind, minus_one)
FAIL_WITH(zsock_resolve, null)
FAIL_WITH(zsock_set_handshake_ivl, null)
FAIL_WITH(zsock_set_linger, null)
FAIL_WITH(zsock_set_rcvtimeo, null)
FAIL_WITH(zsock_set_tcp_keepalive, null)
FAIL_WITH(zactor_new, null)
FAIL_WITH(zactor_sock, null)
FAIL_WITH(zactor_resolve, null)
FAIL_WITH(zstr_sendx, minus_one)
FAIL_WITH(zstr_send, minus_one)
FAIL_WITH(zmsg_recv, null)
FAIL_WITH(zmsg_popstr, null)
FAIL_WITH(zmq_poll, minus_one)
FAIL_WITH(zmq_socket_monitor, minus_one)
FAIL_WITH(zmq_msg_recv, minus_one)
FAIL_WITH(zmq_msg_send, minus_one)
FAIL_WITH(BIO_new_mem_buf, null)
FAIL_WITH(BIO_read, null)
FAIL_WITH(EVP_PKEY_get1_RSA, null)
FAIL_WITH(RSA_public_encrypt, minus_one)
FAIL_WITH(init_fault_dump, null)
FAIL_WITH(proto_init, null)
FAIL_WITH(proto_id, null)
FAIL_WITH(proto_get_private, null)
FAIL_WITH(proto_buffer, null)
FAIL_WITH(proto_buffer_size, SIZE_MAX)
FAIL_WITH(proto_encode_alarm_event, minus_one)
FAIL_WITH(proto_encode_kv, minus_one)
FAIL_WITH(proto_encode_RestoreSnapshot, minus_one)
FAIL_WITH(proto_encode_SpeakerPresetLoaded, minus_one)
FAIL_WITH(kesto_dbus_data_read_kv, null)
