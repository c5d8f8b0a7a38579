// The process frame: one object on the session bus under one name, and the main loop.
//
// The name is taken before the owner has said which methods there are, and a call that arrives in between must not be
// lost. GDBus refuses calls to an object that it does not know at once, from a thread of its own; calls to a subtree it
// hands to the main loop first. So the object is a subtree without children, whose interface is looked up when the main
// loop runs; once the methods are known, calls reach the object itself without that look-up. One that came before may
// then be handled after one that comes now.
#include <atomic>
#include <string>
#include <string_view>

#include <gio/gio.h>

#include <kesto/process.h>

#include "bus.h"

static constexpr uint32_t do_not_queue = 4;      // RequestName's flag
static constexpr uint32_t primary_owner = 1;     // RequestName's only good answer here
static constexpr int release_timeout_ms = 1000;  // a bus that does not answer must not hold up the end

struct Frame : KestoProcess {
    std::string bus_name, object_path, interface_name;
    GDBusConnection *connection;
    gulong closed_handler = 0;
    guint name_lost_subscription = 0;
    guint subtree = 0, object = 0;
    bool owns_name = false;
    const KestoOps *ops = nullptr;
    const KestoDbusMethod *methods = nullptr;
    GDBusNodeInfo *introspection = nullptr;
};

static std::atomic<bool> stop_requested{false};

static constexpr BusMethod bus_method(const char *name) {
    return {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", name};
}

static void on_closed(GDBusConnection *, gboolean, GError *, gpointer) { kesto_mainloop_stop(); }

static void on_name_lost(GDBusConnection *, const char *, const char *, const char *, const char *, GVariant *,
                         gpointer) {
    kesto_mainloop_stop();
}

static char **list_no_children(GDBusConnection *, const char *, const char *, gpointer) { return g_new0(char *, 1); }

static GDBusInterfaceInfo **list_interfaces(GDBusConnection *, const char *, const char *, const char *,
                                            gpointer argument) {
    const auto *frame = static_cast<const Frame *>(argument);
    auto **list = g_new0(GDBusInterfaceInfo *, 2);
    if (frame->introspection != nullptr) list[0] = g_dbus_interface_info_ref(frame->introspection->interfaces[0]);
    return list;
}

static bool ends_table(const KestoDbusMethod &row) {
    return row.name == nullptr && row.handler == nullptr && row.introspection == nullptr;
}

static void call_method(GDBusConnection *, const char *, const char *, const char *, const char *name, GVariant *,
                        GDBusMethodInvocation *invocation, gpointer argument) {
    const auto *frame = static_cast<const Frame *>(static_cast<KestoProcess *>(argument));
    for (const KestoDbusMethod *row = frame->methods; !ends_table(*row); ++row) {
        if (std::string_view(row->name) == name) return row->handler(invocation);
    }
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD, name);
}

static constexpr GDBusInterfaceVTable method_table{call_method, nullptr, nullptr, {}};

static const GDBusInterfaceVTable *choose_vtable(GDBusConnection *, const char *, const char *, const char *,
                                                 const char *, gpointer *method_argument, gpointer argument) {
    *method_argument = static_cast<KestoProcess *>(static_cast<Frame *>(argument));
    return &method_table;
}

static bool export_object(Frame *frame) {
    constexpr GDBusSubtreeVTable vtable{list_no_children, list_interfaces, choose_vtable, {}};
    frame->subtree = g_dbus_connection_register_subtree(frame->connection, frame->object_path.c_str(), &vtable,
                                                        G_DBUS_SUBTREE_FLAGS_NONE, frame, nullptr, nullptr);
    return frame->subtree != 0;
}

static void watch_bus(Frame *frame) {
    frame->closed_handler = g_signal_connect(frame->connection, "closed", G_CALLBACK(on_closed), nullptr);
    frame->name_lost_subscription = g_dbus_connection_signal_subscribe(
        frame->connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameLost", "/org/freedesktop/DBus",
        frame->bus_name.c_str(), G_DBUS_SIGNAL_FLAGS_NONE, on_name_lost, nullptr, nullptr);
}

static bool take_name(Frame *frame) {
    g_autoptr(GVariant) reply = bus_call(frame->connection, bus_method("RequestName"),
                                         g_variant_new("(su)", frame->bus_name.c_str(), do_not_queue));
    if (reply == nullptr || !g_variant_is_of_type(reply, G_VARIANT_TYPE("(u)"))) return false;
    uint32_t answer = 0;
    g_variant_get(reply, "(u)", &answer);
    frame->owns_name = answer == primary_owner;
    return frame->owns_name;
}

static void release_name(const Frame *frame) {
    GVariant *reply = bus_call(frame->connection, bus_method("ReleaseName"),
                               g_variant_new("(s)", frame->bus_name.c_str()), release_timeout_ms);
    if (reply != nullptr) g_variant_unref(reply);
}

KestoProcess *kesto_process_new(const char *bus_name, const char *object_path, const char *interface_name, int) {
    if (bus_name == nullptr || !g_dbus_is_name(bus_name)) return nullptr;
    if (object_path == nullptr || !g_variant_is_object_path(object_path)) return nullptr;
    if (interface_name == nullptr || !g_dbus_is_interface_name(interface_name)) return nullptr;

    auto *frame = new Frame{{}, bus_name, object_path, interface_name, bus_connect()};
    KestoProcess *process = frame;
    if (frame->connection == nullptr) {
        kesto_process_destroy(&process);
        return nullptr;
    }
    watch_bus(frame);
    if (!export_object(frame) || !take_name(frame)) kesto_process_destroy(&process);
    return process;
}

int kesto_process_add_ops(KestoProcess *process, const KestoOps *ops) {
    if (process == nullptr || ops == nullptr) return -1;
    static_cast<Frame *>(process)->ops = ops;
    return 0;
}

// The row's fragment with its name filled in. It is data, not ours to use as a printf format.
static std::string fill_in_name(const KestoDbusMethod &row) {
    constexpr std::string_view mark = "%s";
    std::string fragment = row.introspection;
    const size_t at = fragment.find(mark);
    if (at != std::string::npos) fragment.replace(at, mark.size(), row.name);
    return fragment;
}

static GDBusNodeInfo *describe(const std::string &interface_name, const KestoDbusMethod *methods) {
    std::string xml = "<node><interface name='" + interface_name + "'>";
    for (const KestoDbusMethod *row = methods; !ends_table(*row); ++row) {
        if (row->name == nullptr || row->handler == nullptr || row->introspection == nullptr) return nullptr;
        xml += fill_in_name(*row);
    }
    xml += "</interface></node>";
    return g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
}

int kesto_process_add_dbus_methods(KestoProcess *process, const KestoDbusMethod *methods) {
    auto *frame = static_cast<Frame *>(process);
    if (frame == nullptr || methods == nullptr || frame->introspection != nullptr) return -1;
    g_autoptr(GDBusNodeInfo) node = describe(frame->interface_name, methods);
    if (node == nullptr || node->interfaces[0] == nullptr) return -1;
    for (const KestoDbusMethod *row = methods; !ends_table(*row); ++row) {
        if (g_dbus_interface_info_lookup_method(node->interfaces[0], row->name) == nullptr) return -1;
    }
    frame->methods = methods;
    frame->introspection = g_steal_pointer(&node);
    frame->object = g_dbus_connection_register_object(frame->connection, frame->object_path.c_str(),
                                                      frame->introspection->interfaces[0], &method_table, process,
                                                      nullptr, nullptr);  // without it the subtree still answers
    return 0;
}

// A flag and a wake-up, rather than a GMainLoop: a stop that comes before the loop runs is not lost.
static void run_main_loop() {
    while (!stop_requested) g_main_context_iteration(nullptr, TRUE);
}

// Calls that have come in while the service stopped get its answer rather than the bus's.
static void answer_waiting_calls() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

int kesto_process_run(KestoProcess *process) {
    if (process == nullptr) return -1;
    const KestoOps *ops = static_cast<Frame *>(process)->ops;
    if (ops != nullptr && ops->start != nullptr) ops->start(process);
    run_main_loop();
    if (ops != nullptr && ops->stop != nullptr) ops->stop(process);
    answer_waiting_calls();
    stop_requested = false;  // only now: threads that stop joins ask once more
    return 0;
}

void kesto_mainloop_stop(void) {
    stop_requested = true;
    g_main_context_wakeup(nullptr);
}

void kesto_process_destroy(KestoProcess **process) {
    if (process == nullptr || *process == nullptr) return;
    auto *frame = static_cast<Frame *>(*process);
    if (frame->object != 0) g_dbus_connection_unregister_object(frame->connection, frame->object);
    if (frame->subtree != 0) g_dbus_connection_unregister_subtree(frame->connection, frame->subtree);
    if (frame->connection != nullptr) {
        // No longer watched: giving the name up is not losing it.
        g_dbus_connection_signal_unsubscribe(frame->connection, frame->name_lost_subscription);
        g_signal_handler_disconnect(frame->connection, frame->closed_handler);
        if (frame->owns_name) release_name(frame);
        g_object_unref(frame->connection);
    }
    if (frame->introspection != nullptr) g_dbus_node_info_unref(frame->introspection);
    delete frame;
    *process = nullptr;
}
