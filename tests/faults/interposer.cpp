/* A library in front of the others (LD_PRELOAD) that makes a call of the service fail on purpose.
 *
 * KESTO_FAIL="zloop_poller:2" makes the second call of zloop_poller fail.
 * Only the program's own calls count, not those that libraries make of each other. */
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>

struct Program {
    uintptr_t first, end;
};

static int note_program(dl_phdr_info *info, size_t, void *argument) {
    auto *program = static_cast<Program *>(argument);
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto &part = info->dlpi_phdr[i];
        if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
        program->first = info->dlpi_addr + part.p_vaddr;
        program->end = program->first + part.p_memsz;
    }
    return 1;  // the first entry is the program
}

static bool from_program(const void *caller) {
    static const Program program = [] {
        Program found = {};
        dl_iterate_phdr(note_program, &found);
        return found;
    }();
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return address >= program.first && address < program.end;
}

struct Wanted {
    char call[64];
    long which;
};

static Wanted read_wish() {
    Wanted wanted = {"", 0};
    const char *wish = getenv("KESTO_FAIL");
    if (wish != nullptr) sscanf(wish, "%63[^:]:%ld", wanted.call, &wanted.which);
    return wanted;
}

static bool fails(const char *call, const void *caller) {
    static const Wanted wanted = read_wish();
    static std::atomic<long> count = 0;
    if (strcmp(call, wanted.call) != 0 || !from_program(caller)) return false;
    return ++count == wanted.which;
}

template <typename Function>
static Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

/* The arguments of a C function travel in registers whatever their types; none of these has a floating one. */
using Word = uintptr_t;
static constexpr Word minus_one = static_cast<Word>(-1), nothing = 0;

#define FAIL_WITH(name, value)                                                           \
    extern "C" Word failing_##name(Word, Word, Word, Word, Word, Word) __asm__(#name);   \
    Word failing_##name(Word a, Word b, Word c, Word d, Word e, Word f) {                \
        static auto *const next = real<Word(Word, Word, Word, Word, Word, Word)>(#name); \
        if (!fails(#name, __builtin_return_address(0))) return next(a, b, c, d, e, f);   \
        errno = EIO;                                                                     \
        return value;                                                                    \
    }

FAIL_WITH(socket, minus_one)
FAIL_WITH(setsockopt, minus_one)
FAIL_WITH(fcntl, minus_one)
FAIL_WITH(bind, minus_one)
FAIL_WITH(recvfrom, minus_one)
FAIL_WITH(sendto, minus_one)
FAIL_WITH(pthread_create, EAGAIN)
FAIL_WITH(g_try_malloc0, nothing)
FAIL_WITH(g_hash_table_new_full, nothing)
FAIL_WITH(g_async_queue_new_full, nothing)
FAIL_WITH(g_bus_get_sync, nothing)
FAIL_WITH(g_dbus_method_invocation_get_user_data, nothing)
FAIL_WITH(zsys_init, nothing)
FAIL_WITH(zloop_new, nothing)
FAIL_WITH(zloop_poller, minus_one)
FAIL_WITH(zloop_timer, minus_one)
FAIL_WITH(zsock_new_checked, nothing)
FAIL_WITH(zsock_bind, minus_one)
FAIL_WITH(zsock_resolve, nothing)
FAIL_WITH(zactor_new, nothing)
FAIL_WITH(zactor_sock, nothing)
FAIL_WITH(zactor_resolve, nothing)
FAIL_WITH(zstr_sendx, minus_one)
FAIL_WITH(zstr_send, minus_one)
FAIL_WITH(zmsg_recv, nothing)
FAIL_WITH(zmsg_popstr, nothing)
FAIL_WITH(zmq_msg_recv, minus_one)
FAIL_WITH(zmq_msg_send, minus_one)
FAIL_WITH(BIO_new_mem_buf, nothing)
FAIL_WITH(BIO_read, nothing)
FAIL_WITH(EVP_PKEY_get1_RSA, nothing)
FAIL_WITH(RSA_public_encrypt, minus_one)
FAIL_WITH(proto_id, nothing)
FAIL_WITH(proto_get_private, nothing)
FAIL_WITH(proto_buffer, nothing)
FAIL_WITH(proto_buffer_size, SIZE_MAX)
FAIL_WITH(proto_encode_alarm_event, minus_one)
FAIL_WITH(proto_encode_kv, minus_one)
FAIL_WITH(proto_encode_RestoreSnapshot, minus_one)
FAIL_WITH(proto_encode_SpeakerPresetLoaded, minus_one)
FAIL_WITH(kesto_dbus_data_read_kv, nothing)
