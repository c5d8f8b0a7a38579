/* proto.h - the protocol codec: decodes a client's request, carries it out through callbacks, encodes the answer.
 *
 * A handle belongs to one thread at a time. Callbacks run inside proto_process, on its thread; the texts that they
 * receive are borrowed for the length of the call. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <gio/gio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Proto Proto;

/* Operation codes of the authorization callback. */
#define PROTO_OPERATION_READ  2u
#define PROTO_OPERATION_WRITE 4u
#define PROTO_OPERATION_OTHER 8u

/* The alarm record: five words, laid out exactly so. */
typedef struct ProtoAlarm {
    int32_t code;
    uint32_t active;
    int32_t channel;
    float value;
    uint32_t reserved;
} ProtoAlarm;

/* A new reference that the codec takes over (a floating one is sunk), or NULL. */
typedef GVariant *(*ProtoReadCallback)(Proto *handle, uint32_t flags, const char *key);
/* 1 allowed, 0 refused. `recursive` is meaningful for reads. */
typedef int (*ProtoAuthCallback)(Proto *handle, uint32_t operation, const char *key, uint32_t recursive);
/* Sets `hide_secure_info` to non-zero when secrets are to be masked in the answer. */
typedef void (*ProtoLoginInfoCallback)(Proto *handle, uint32_t *hide_secure_info);
/* The result of the write; negative when refused or failed. `value` may be NULL. */
typedef int (*ProtoWriteCallback)(Proto *handle, uint32_t type, const char *key, const char *value);
/* Any key or value may be NULL. 0 or -1. The list is new and NULL-terminated; the codec releases it (g_strfreev). */
typedef int (*ProtoMultiWriteCallback)(Proto *handle, uint32_t count, const char *const *keys,
                                       const char *const *values, uint32_t *result_count, char ***results);
/* Told of a change recorded with proto_change; its result is not used. */
typedef int (*ProtoChangeCallback)(Proto *handle);
/* Login or, with both texts NULL, log-out. The codec takes over the "(a{sv})" it returns, which may be floating, or
 * NULL: refused, or logged out. */
typedef GVariant *(*ProtoActionCallback)(Proto *handle, const char *user_name, const char *password, int32_t monitor,
                                         int32_t discard_my_feedback, int32_t hide_secure_info, int32_t no_lock,
                                         const char *discovery);
/* The change counter. */
typedef uint32_t (*ProtoGetChangeCallback)(void);

/* Once per process, before the first handle and after the last, on the main thread. The two numbers are 1 and 0. */
void proto_init(int first, int second);
void proto_deinit(void);

/* An empty handle, for one event; or one that holds a copy of the received bytes. Never NULL. */
Proto *proto_new(void);
Proto *proto_new_full(const void *bytes, size_t length);
/* Releases the handle and clears the caller's reference; NULL is ignored. */
void proto_destroy(Proto **handle);

/* The static discovery text for requests that ask for it; not copied, must outlive the handle. */
void proto_set_discovery(Proto *handle, const char *text);
void proto_set_private(Proto *handle, void *pointer);
void *proto_get_private(const Proto *handle);
void proto_set_cb_read(Proto *handle, ProtoReadCallback callback);
void proto_set_cb_auth(Proto *handle, ProtoAuthCallback callback);
void proto_set_cb_get_login_info(Proto *handle, ProtoLoginInfoCallback callback);
void proto_set_cb_write(Proto *handle, ProtoWriteCallback callback);
void proto_set_cb_multiwrite(Proto *handle, ProtoMultiWriteCallback callback);
void proto_set_cb_change(Proto *handle, ProtoChangeCallback callback);
void proto_set_cb_action(Proto *handle, ProtoActionCallback callback);
void proto_set_getchange(Proto *handle, ProtoGetChangeCallback callback);

/* 0, or negative when the bytes are not a request. */
int proto_decode(Proto *handle);
/* The client id of the decoded request, borrowed from the handle, or NULL. */
const char *proto_id(const Proto *handle);
/* Carries the decoded request out, calling the callbacks. An operation without its callback is unsupported. 0 or -1. */
int proto_process(Proto *handle);
/* Encodes the answer into the handle's buffer. 0 or -1. */
int proto_encode(Proto *handle);
/* The encoded bytes, borrowed from the handle, or NULL; and their count, or SIZE_MAX when they are NULL. */
const void *proto_buffer(const Proto *handle);
size_t proto_buffer_size(const Proto *handle);

/* Records on the handle that its request changed device data; calls the change callback. */
void proto_change(Proto *handle);

/* Encode one event into the handle's buffer. 0 or -1. `type` may be NULL. */
int proto_encode_alarm_event(Proto *handle, const ProtoAlarm *alarm);
int proto_encode_kv(Proto *handle, const char *key, const char *value, const char *type);
int proto_encode_RestoreSnapshot(Proto *handle, uint32_t slot);
int proto_encode_SpeakerPresetLoaded(Proto *handle);

#ifdef __cplusplus
}
#endif
