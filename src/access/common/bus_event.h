/* bus_event.h - what the main thread hands to the network thread: the items of the event queue, and the change counter.
 *
 * An event is complete before it is pushed and its producer does not touch it afterwards. */
#pragma once

#include <cstdint>

#include <glib.h>

#include <kesto/proto.h>

enum BusEventKind : uint32_t {
    BUS_EVENT_ALARM = 0,
    BUS_EVENT_KV = 1,
    BUS_EVENT_COMMAND = 2,
    BUS_EVENT_STOP = 3,
};

enum BusCommand : uint32_t {
    BUS_COMMAND_SNAPSHOT_LOADED = 0,
    BUS_COMMAND_SPEAKER_PRESET_LOADED = 1,
};

struct BusKeyValue {
    char *key, *value; /* owned by the event */
    char *type;        /* owned, or NULL */
};

struct BusCommandRecord {
    uint32_t command;
    uint32_t slot; /* the snapshot's; 0 for a speaker preset */
};

struct BusEvent {
    uint32_t kind;
    union {
        ProtoAlarm alarm;
        BusKeyValue kv;
        BusCommandRecord command;
    };
};

/* Any thread. Zero-filled but for its kind; the caller's until it is pushed. Never NULL. */
BusEvent *bus_event_new(BusEventKind kind);

/* Any thread, for the event's owner: releases it with its texts. */
void bus_event_free(void *event);

/* Main thread, one in a process at a time. A queue that releases the events still in it when it is released
 * (g_async_queue_unref). */
GAsyncQueue *bus_event_queue_new();

/* Any thread; never blocks, never fails. The queue takes the event over. */
void bus_event_push(GAsyncQueue *mq, BusEvent *event);

/* Network thread. The oldest event, now the caller's, or NULL when the queue is empty. Never waits. */
BusEvent *bus_event_try_pop(GAsyncQueue *mq);

/* Whether a stop event has been pushed since the queue was made. Any thread. */
bool bus_event_stop_queued();

/* The count of changes, wrapping at 2^32. Any thread. */
void change_counter_increment();
uint32_t change_counter_value();
