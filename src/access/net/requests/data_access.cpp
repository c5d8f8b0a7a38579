#include "net/requests/data_access.h"

#include "common/log.h"
#include "net/records/client.h"
#include "net/requests/data_service.h"
#include "net/requests/rights.h"
#include "net/transport/bus.h"

static constexpr uint32_t read_single_key = 0x2000;
static constexpr uint32_t write_lock = 0x1000;
static constexpr uint32_t write_type_mask = 0x1801;  // what of a client's type reaches the data service
static constexpr int32_t multi_write_type = 1;

static bool is_empty(const char *text) { return text == nullptr || *text == '\0'; }

// A text that is not UTF-8 cannot travel over D-Bus; it fails as a call that could not be made.
static bool is_sendable(const char *text, GError **error) {
    if (g_utf8_validate(text, -1, nullptr)) return true;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "the text is not UTF-8");
    return false;
}

static GVariant *call_read(uint32_t flags, const char *key, GError **error) {
    if (!is_sendable(key, error)) return nullptr;
    return data_service_call("Read", g_variant_new("(us)", flags, key), default_timeout_ms, error);
}

static GVariant *first_child(GVariant *reply) {
    if (!g_variant_is_container(reply) || g_variant_n_children(reply) == 0) return nullptr;
    return g_variant_get_child_value(reply, 0);
}

GVariant *data_read_callback(Proto *handle, uint32_t flags, const char *key) {
    if (bus_connection == nullptr) {
        LOG("dbus connection missing\n");
        return nullptr;
    }
    if (is_empty(key)) {
        LOG("not possible to read NULL or empty key\n");
        return nullptr;
    }
    const uint32_t recursive = (flags & read_single_key) == 0;
    if (key_authorized(handle, PROTO_OPERATION_READ, key, recursive) == 0) {
        LOG("not autorized\n");
        return nullptr;
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = call_read(flags, key, &error);
    if (reply == nullptr) {
        LOG("unable to call method for DBUS datad proxy: %s\n", error->message);
        return nullptr;
    }
    return first_child(reply);
}

static GVariant *call_write(uint32_t type, const char *key, const char *value, GError **error) {
    if (!is_sendable(key, error) || !is_sendable(value, error)) return nullptr;
    const auto sent_type = static_cast<int32_t>(type & write_type_mask);
    return data_service_call("Write", g_variant_new("(iss)", sent_type, key, value), default_timeout_ms, error);
}

// The data service's result; 0 for a reply of another type.
static int32_t write_result(GVariant *reply) {
    int32_t result = 0;
    if (reply != nullptr && g_variant_is_of_type(reply, G_VARIANT_TYPE("(i)"))) g_variant_get(reply, "(i)", &result);
    return result;
}

static bool can_write(const char *key, const char *value) {
    if (is_empty(key)) LOG("NULL KEY\n");
    else if (value == nullptr) LOG("NULL VALUE\n");
    else if (bus_connection == nullptr) LOG("dbus connection missing\n");
    else return true;
    return false;
}

static bool write_authorized(Proto *handle, bool lock, const char *key) {
    if (lock) {
        LOG("locking does not have blacklist\n");
        return true;
    }
    if (key_authorized(handle, PROTO_OPERATION_WRITE, key, 0) == 1) return true;
    LOG("not autorized\n");
    return false;
}

int data_write_callback(Proto *handle, uint32_t type, const char *key, const char *value) {
    LOG("write k=%s, v=%s, t=0x%X\n", log_text(key), log_text(value), type);
    const bool lock = (type & write_lock) != 0;
    if (!can_write(key, value) || !write_authorized(handle, lock, key)) return -1;

    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = call_write(type, key, value, &error);
    if (error != nullptr) {
        LOG("DBUS datad Write method error ('%s'<-'%s'): %s\n", key, value, error->message);
        return -1;
    }
    const int32_t result = lock ? 0 : write_result(reply);
    proto_change(handle);
    LOG("write ok with retval=%d\n", result);
    return result;
}

static bool all_authorized(Proto *handle, uint32_t count, const char *const *keys) {
    for (uint32_t i = 0; i < count; ++i) {
        if (is_empty(keys[i])) continue;
        if (key_authorized(handle, PROTO_OPERATION_WRITE, keys[i], 0) == 0) {
            LOG("key not autorized\n");
            return false;
        }
    }
    LOG("multiwrite autorize all keys\n");
    return true;
}

static GVariant *multi_write_arguments(uint32_t count, const char *const *keys, const char *const *values,
                                       GError **error) {
    g_auto(GVariantBuilder) pairs;
    g_variant_builder_init(&pairs, G_VARIANT_TYPE("a(iss)"));
    for (uint32_t i = 0; i < count; ++i) {
        if (keys[i] == nullptr || values[i] == nullptr) {
            LOG("discard NULL\n");
            continue;
        }
        if (!is_sendable(keys[i], error) || !is_sendable(values[i], error)) return nullptr;
        g_variant_builder_add(&pairs, "(iss)", multi_write_type, keys[i], values[i]);
    }
    return g_variant_new("(a(iss))", &pairs);
}

static GVariant *call_multi_write(uint32_t count, const char *const *keys, const char *const *values, GError **error) {
    GVariant *arguments = multi_write_arguments(count, keys, values, error);
    if (arguments == nullptr) return nullptr;
    return data_service_call("MultiWrite", arguments, multi_write_timeout_ms, error);
}

static void copy_results(GVariant *reply, uint32_t *result_count, char ***results) {
    g_autoptr(GVariant) list = first_child(reply);
    if (list == nullptr || result_count == nullptr || results == nullptr) return;
    if (!g_variant_is_of_type(list, G_VARIANT_TYPE_STRING_ARRAY)) return;
    gsize length = 0;
    *results = g_variant_dup_strv(list, &length);
    *result_count = static_cast<uint32_t>(length);
}

int data_multiwrite_callback(Proto *handle, uint32_t count, const char *const *keys, const char *const *values,
                             uint32_t *result_count, char ***results) {
    const auto *client = static_cast<const Client *>(proto_get_private(handle));
    if (result_count != nullptr) *result_count = 0;
    if (results != nullptr) *results = nullptr;
    if (client == nullptr) {
        LOG("NULL client\n");
        return -1;
    }
    if (count == 0) {
        LOG("nothing to write\n");
        return 0;
    }
    if (keys == nullptr || values == nullptr || !all_authorized(handle, count, keys)) return -1;
    if (bus_connection == nullptr) {
        LOG("dbus connection missing\n");
        return -1;
    }

    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = call_multi_write(count, keys, values, &error);
    if (error != nullptr) {
        LOG("DBUS datad Write method error: %s (%s)\n", error->message, log_text(client->cl_id));
        return -1;
    }
    copy_results(reply, result_count, results);
    proto_change(handle);
    return 0;
}
