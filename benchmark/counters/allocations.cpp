/* Counts the calls of malloc, calloc, realloc and the aligned kinds, of all threads, into a file that an observer can
 * read at any time: one 64-bit number in the machine's own byte order. BENCH_ALLOCATIONS names it. */
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
}

static std::atomic<uint64_t> before_the_file_is_open;
static std::atomic<uint64_t> *counter = &before_the_file_is_open;

[[gnu::constructor]] static void open_file() {
    const char *path = getenv("BENCH_ALLOCATIONS");
    const int file = path != nullptr ? open(path, O_RDWR | O_CREAT, 0600) : -1;
    if (file == -1 || ftruncate(file, sizeof(uint64_t)) != 0) return;
    void *mapped = mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (mapped != MAP_FAILED) counter = static_cast<std::atomic<uint64_t> *>(mapped);
    close(file);
}

static void count() { counter->fetch_add(1, std::memory_order_relaxed); }

#define EXPORTED extern "C" [[gnu::visibility("default")]]

EXPORTED void *malloc(size_t size) {
    count();
    return __libc_malloc(size);
}

EXPORTED void *calloc(size_t items, size_t size) {
    count();
    return __libc_calloc(items, size);
}

EXPORTED void *realloc(void *block, size_t size) {
    count();
    return __libc_realloc(block, size);
}

EXPORTED void *aligned_alloc(size_t alignment, size_t size) {
    count();
    return __libc_memalign(alignment, size);
}

EXPORTED int posix_memalign(void **block, size_t alignment, size_t size) {
    count();
    *block = __libc_memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}
