/* Each call is answered with a message of our own rather than through its invocation: GDBus sends only replies of the
 * type that the introspection gives, and some faults need another. A late reply is the same message, sent later. */
#include "data_service.h"

#include <cstdio>
#include <cstring>
#include <sysexits.h>
#include <unistd.h>

static constexpr const char *error_failed = "com.quillmont.kesto.Data.Error.Failed";
static constexpr const char *error_no_such_key = "com.quillmont.kesto.Data.Error.NoSuchKey";
static constexpr guint32 read_flag_single = 0x2000;  // clear: everything at or below the key

static GDBusMessage *reply_with(GDBusMessage *call, GVariant *body) {
    GDBusMessage *reply = g_dbus_message_new_method_reply(call);
    g_dbus_message_set_body(reply, body);
    return reply;
}

static const char *text_of(WriteResult result) {
    switch (result) {
        case write_ok: return "OK";
        case write_no_such_key: return "NO SUCH KEY";
        case write_not_stored: return "NOT STORED";
        case write_refused: break;
    }
    return "REFUSED";
}

static GVariant *read_value(const Device &device, guint32 flags, const std::string &key) {
    if ((flags & read_flag_single) == 0) return tree_read_below(device.tree, key);
    const auto found = device.tree.find(key);
    return found == device.tree.end() ? nullptr : g_variant_new_string(found->second.c_str());
}

static GDBusMessage *perform_read(Device &device, GDBusMessage *call, GVariant *arguments) {
    guint32 flags = 0;
    const char *key = nullptr;
    g_variant_get(arguments, "(u&s)", &flags, &key);
    GVariant *value = read_value(device, flags, key);
    if (!value) return g_dbus_message_new_method_error(call, error_no_such_key, "no such key: %s", key);
    return reply_with(call, g_variant_new("(v)", value));
}

/* Of one "(iss)". The type is a set of bits, whatever its sign. */
static WriteRequest write_request(GVariant *pair) {
    gint32 type = 0;
    const char *key = nullptr, *value = nullptr;
    g_variant_get(pair, "(i&s&s)", &type, &key, &value);
    return {static_cast<guint32>(type), key, value};
}

static std::vector<WriteRequest> write_requests(GVariant *arguments) {
    if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(iss)"))) return {write_request(arguments)};
    std::vector<WriteRequest> requests;
    g_autoptr(GVariant) pairs = g_variant_get_child_value(arguments, 0);
    for (gsize i = 0; i < g_variant_n_children(pairs); i++) {
        g_autoptr(GVariant) pair = g_variant_get_child_value(pairs, i);
        requests.push_back(write_request(pair));
    }
    return requests;
}

static GDBusMessage *perform_write(Device &device, GDBusMessage *call, GVariant *arguments) {
    return reply_with(call, g_variant_new("(i)", data_service_write(device, write_requests(arguments)).front()));
}

static GDBusMessage *perform_multi_write(Device &device, GDBusMessage *call, GVariant *arguments) {
    g_auto(GVariantBuilder) texts = G_VARIANT_BUILDER_INIT(G_VARIANT_TYPE("as"));
    for (const WriteResult result : data_service_write(device, write_requests(arguments)))
        g_variant_builder_add(&texts, "s", text_of(result));
    return reply_with(call, g_variant_new("(as)", &texts));
}

struct MethodRow {
    const char *name;
    DataMethod method;
    GDBusMessage *(*perform)(Device &, GDBusMessage *call, GVariant *arguments);  // the reply, the caller's
    const char *wrong_type;                                                       // a body as GVariant text
};
static constexpr MethodRow methods[] = {
    {"Read",       DataMethod::read,        perform_read,        "(<int32 7>,)"},
    {"Write",      DataMethod::write,       perform_write,       "(uint32 0,)" },
    {"MultiWrite", DataMethod::multi_write, perform_multi_write, "('OK',)"     },
};

static const MethodRow *find_method(const char *name) {
    for (const MethodRow &row : methods)
        if (strcmp(name, row.name) == 0) return &row;
    return nullptr;  // not reached: GDBus passes on only the methods of the introspection
}

static std::vector<std::string> keys_of(DataMethod method, GVariant *arguments) {
    if (method == DataMethod::read) {
        const char *key = nullptr;
        g_variant_get_child(arguments, 1, "&s", &key);
        return {key};
    }
    std::vector<std::string> keys;
    for (const WriteRequest &request : write_requests(arguments)) keys.push_back(request.key);
    return keys;
}

/* The reply that a call with a fault gets; NULL for one that is never answered. */
static GDBusMessage *perform_with_fault(Device &device, const MethodRow &row, FaultKind kind, GDBusMessage *call,
                                        GVariant *arguments) {
    switch (kind) {
        case FaultKind::never: return nullptr;
        case FaultKind::error: return g_dbus_message_new_method_error_literal(call, error_failed, "simulated fault");
        case FaultKind::refuse: return reply_with(call, g_variant_new("(i)", write_refused));
        case FaultKind::die:
            fprintf(stderr, "kesto-device: ends in %s, as it was told to\n", row.name);
            _exit(EX_SOFTWARE);
        case FaultKind::late: return row.perform(device, call, arguments);
        case FaultKind::type:
        case FaultKind::empty: break;
    }
    [[maybe_unused]] g_autoptr(GDBusMessage) right_reply = row.perform(device, call, arguments);
    const char *body = kind == FaultKind::type ? row.wrong_type : "()";
    g_autoptr(GVariant) parsed = g_variant_parse(nullptr, body, nullptr, nullptr, nullptr);
    return reply_with(call, parsed);
}

struct LateReply {
    GDBusConnection *connection;
    GDBusMessage *reply;
};

static gboolean send_late_reply(void *argument) {
    const auto *late = static_cast<LateReply *>(argument);
    g_dbus_connection_send_message(late->connection, late->reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    return G_SOURCE_REMOVE;
}

static void free_late_reply(void *argument) {
    auto *late = static_cast<LateReply *>(argument);
    g_object_unref(late->reply);
    g_object_unref(late->connection);
    delete late;
}

/* A failure is ignored: it means that the bus is gone, which ends the main loop. */
static void send_reply(GDBusConnection *connection, GDBusMessage *reply, guint late_ms) {
    if (late_ms == 0) {
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        return;
    }
    auto *late = new LateReply{g_object_ref(connection), g_object_ref(reply)};
    g_timeout_add_full(G_PRIORITY_DEFAULT, late_ms, send_late_reply, late, free_late_reply);
}

void data_service_called(GDBusConnection *connection, const char *, const char *, const char *, const char *method,
                         GVariant *arguments, GDBusMethodInvocation *invocation, void *argument) {
    Device &device = *static_cast<Device *>(argument);
    [[maybe_unused]] g_autoptr(GDBusMethodInvocation) owned =
        invocation;  // it goes unanswered; our message answers the call
    GDBusMessage *call = g_dbus_method_invocation_get_message(invocation);
    const MethodRow *row = find_method(method);
    if (!row) return;
    device_trace(device, method, arguments);

    const Fault *fault = faults_find(device.faults, row->method, keys_of(row->method, arguments));
    const guint late_ms = fault ? fault->late_ms : 0;
    g_autoptr(GDBusMessage) reply =
        fault ? perform_with_fault(device, *row, fault->kind, call, arguments) : row->perform(device, call, arguments);
    if (!reply || (g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0) return;
    send_reply(connection, reply, late_ms);
}

std::vector<WriteResult> data_service_write(Device &device, const std::vector<WriteRequest> &requests) {
    std::vector<WriteResult> results;
    std::vector<Change> changes;
    for (const WriteRequest &request : requests) {
        const bool known = device.tree.contains(request.key);
        results.push_back(known ? write_ok : write_no_such_key);
        if (known && (request.type & write_type_lock) == 0) changes.emplace_back(request.key, request.value);
    }
    if (!store_keep(device.store, changes)) return std::vector<WriteResult>(requests.size(), write_not_stored);
    for (const auto &[key, value] : changes) device.tree[key] = value;
    return results;
}
