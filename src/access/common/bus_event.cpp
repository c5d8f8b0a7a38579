#include "common/bus_event.h"

#include <atomic>

// The queue's lock is one that the thread sanitizer does not see, so the hand-over is declared to it.
#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
static void declare_push(GAsyncQueue *mq) { __tsan_release(mq); }
static void declare_pop(GAsyncQueue *mq) { __tsan_acquire(mq); }
#else
static void declare_push(GAsyncQueue *) {}
static void declare_pop(GAsyncQueue *) {}
#endif

static std::atomic<uint32_t> change_counter = 0;
static std::atomic<bool> stop_queued = false;

BusEvent *bus_event_new(BusEventKind kind) {
    BusEvent *event = g_new0(BusEvent, 1);
    event->kind = kind;
    return event;
}

void bus_event_free(void *argument) {
    auto *event = static_cast<BusEvent *>(argument);
    if (event->kind == BUS_EVENT_KV) {
        g_free(event->kv.key);
        g_free(event->kv.value);
        g_free(event->kv.type);
    }
    g_free(event);
}

GAsyncQueue *bus_event_queue_new() {
    stop_queued = false;
    return g_async_queue_new_full(bus_event_free);
}

void bus_event_push(GAsyncQueue *mq, BusEvent *event) {
    if (event->kind == BUS_EVENT_STOP) stop_queued = true;
    declare_push(mq);
    g_async_queue_push(mq, event);
}

BusEvent *bus_event_try_pop(GAsyncQueue *mq) {
    auto *event = static_cast<BusEvent *>(g_async_queue_try_pop(mq));
    if (event != nullptr) declare_pop(mq);
    return event;
}

bool bus_event_stop_queued() { return stop_queued; }

void change_counter_increment() { change_counter.fetch_add(1); }

uint32_t change_counter_value() { return change_counter.load(); }
