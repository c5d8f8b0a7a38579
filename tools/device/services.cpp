#include "services.h"

#include <cstdio>
#include <cstring>
#include <sysexits.h>

#include "activity.h"
#include "data_service.h"

static constexpr const char *introspection = R"(
<node>
  <interface name='com.quillmont.kesto.Data.Service'>
    <method name='Read'>
      <arg type='u' name='flags' direction='in'/>
      <arg type='s' name='key' direction='in'/>
      <arg type='v' name='value' direction='out'/>
    </method>
    <method name='Write'>
      <arg type='i' name='type' direction='in'/>
      <arg type='s' name='key' direction='in'/>
      <arg type='s' name='value' direction='in'/>
      <arg type='i' name='result' direction='out'/>
    </method>
    <method name='MultiWrite'>
      <arg type='a(iss)' name='pairs' direction='in'/>
      <arg type='as' name='results' direction='out'/>
    </method>
  </interface>
  <interface name='com.quillmont.kesto.Audio.Service'>
    <method name='ClientAuthenticated'><arg type='s' name='id' direction='in'/></method>
    <method name='ClientDeauthenticated'><arg type='s' name='id' direction='in'/></method>
  </interface>
  <interface name='com.quillmont.kesto.Device.Control'>
    <method name='Alarm'>
      <arg type='i' name='code' direction='in'/>
      <arg type='d' name='value' direction='in'/>
      <arg type='i' name='channel' direction='in'/>
    </method>
    <method name='Change'>
      <arg type='s' name='key' direction='in'/>
      <arg type='s' name='value' direction='in'/>
      <arg type='s' name='type' direction='in'/>
    </method>
    <method name='LoadSnapshot'><arg type='u' name='slot' direction='in'/></method>
    <method name='LoadSpeakerPreset'/>
    <method name='Fault'><arg type='s' name='fault' direction='in'/></method>
  </interface>
</node>)";

struct AudioMethod {
    const char *name, *label;
};
static constexpr AudioMethod audio_methods[] = {
    {"ClientAuthenticated",   "client authenticated"},
    {"ClientDeauthenticated", "client gone"         },
};

struct ControlMethod {
    const char *name;
    const AccessCall &call;
};
static constexpr ControlMethod control_methods[] = {
    {"Alarm",             alarm_raised         },
    {"Change",            value_changed        },
    {"LoadSnapshot",      snapshot_loaded      },
    {"LoadSpeakerPreset", speaker_preset_loaded},
};

/* One line whatever the text holds: ids come from the network. Letters beyond ASCII stay readable. */
static char *on_one_line(const char *text) {
    char readable[130] = "\"";
    for (int byte = 0x80; byte <= 0xff; byte++) readable[byte - 0x7f] = static_cast<char>(byte);
    return g_strescape(text, readable);
}

static void audio_service_called(GDBusConnection *, const char *, const char *, const char *, const char *method,
                                 GVariant *arguments, GDBusMethodInvocation *invocation, void *argument) {
    device_trace(*static_cast<Device *>(argument), method, arguments);
    const char *id = nullptr;
    g_variant_get(arguments, "(&s)", &id);
    g_autofree char *shown = on_one_line(id);
    for (const AudioMethod &row : audio_methods)
        if (strcmp(method, row.name) == 0) printf("%s: %s\n", row.label, shown);
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

static void refuse(GDBusMethodInvocation *invocation, GDBusError code, const char *reason) {
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, code, reason);
}

static void set_fault(Device &device, GVariant *arguments, GDBusMethodInvocation *invocation) {
    const char *text = nullptr;
    g_variant_get(arguments, "(&s)", &text);
    const std::string wrong = faults_apply(device.faults, text);
    if (wrong.empty()) g_dbus_method_invocation_return_value(invocation, nullptr);
    else refuse(invocation, G_DBUS_ERROR_INVALID_ARGS, wrong.c_str());
}

/* A change of a key that the device has is kept like a write; another one is only reported. */
static bool keep_change(Device &device, GVariant *arguments) {
    const char *key = nullptr, *value = nullptr, *type = nullptr;
    g_variant_get(arguments, "(&s&s&s)", &key, &value, &type);
    const WriteRequest request = {0, key, value};
    return data_service_write(device, {request}).front() != write_not_stored;
}

static void control_called(GDBusConnection *, const char *, const char *, const char *, const char *method,
                           GVariant *arguments, GDBusMethodInvocation *invocation, void *argument) {
    Device &device = *static_cast<Device *>(argument);
    if (strcmp(method, "Fault") == 0) {
        set_fault(device, arguments, invocation);
        return;
    }
    if (strcmp(method, "Change") == 0 && !keep_change(device, arguments)) {
        refuse(invocation, G_DBUS_ERROR_FAILED, "the store could not be written");
        return;
    }
    for (const ControlMethod &row : control_methods)
        if (strcmp(method, row.name) == 0) activity_tell(device, row.call, arguments);
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

struct ExportedObject {
    const char *path, *interface_name;
    GDBusInterfaceVTable calls;
};
static constexpr ExportedObject objects[] = {
    {"/com/quillmont/kesto/Data",   "com.quillmont.kesto.Data.Service",   {data_service_called, nullptr, nullptr, {}} },
    {"/com/quillmont/kesto/Audio",  "com.quillmont.kesto.Audio.Service",  {audio_service_called, nullptr, nullptr, {}}},
    {"/com/quillmont/kesto/Device", "com.quillmont.kesto.Device.Control", {control_called, nullptr, nullptr, {}}      },
};
static constexpr const char *bus_names[] = {"com.quillmont.kesto.Data", "com.quillmont.kesto.Audio"};

static bool complain(const char *what, const GError *error) {
    fprintf(stderr, "kesto-device: %s: %s\n", what, error->message);
    return false;
}

static void bus_closed(GDBusConnection *, gboolean, GError *, void *argument) {
    Device &device = *static_cast<Device *>(argument);
    fprintf(stderr, "kesto-device: the bus is gone\n");
    device.exit_status = EX_UNAVAILABLE;
    g_main_loop_quit(device.loop);
}

static bool connect_to_bus(Device &device) {
    g_autoptr(GError) error = nullptr;
    device.connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!device.connection) return complain("no session bus", error);
    g_dbus_connection_set_exit_on_close(device.connection, FALSE);
    g_signal_connect(device.connection, "closed", G_CALLBACK(bus_closed), &device);
    return true;
}

static bool export_objects(Device &device) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(introspection, &error);
    if (!node) return complain("introspection", error);
    for (const ExportedObject &object : objects) {
        GDBusInterfaceInfo *interface = g_dbus_node_info_lookup_interface(node, object.interface_name);
        const guint id = g_dbus_connection_register_object(device.connection, object.path, interface, &object.calls,
                                                           &device, nullptr, &error);
        if (id == 0) return complain(object.path, error);
    }
    return true;
}

static bool take_name(Device &device, const char *name) {
    constexpr guint32 do_not_queue = 4, is_ours = 1;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        device.connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name, do_not_queue), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply) return complain(name, error);
    guint32 owner = 0;
    g_variant_get(reply, "(u)", &owner);
    if (owner != is_ours) fprintf(stderr, "kesto-device: the bus name %s is taken\n", name);
    return owner == is_ours;
}

void device_trace(const Device &device, const char *method, GVariant *arguments) {
    if (!device.trace) return;
    g_autofree char *text = g_variant_print(arguments, TRUE);
    printf("%s %s\n", method, text);
}

bool services_start(Device &device) {
    if (!connect_to_bus(device)) return false;
    if (!export_objects(device)) return false;  // before the names, so that no early call misses them
    for (const char *name : bus_names)
        if (!take_name(device, name)) return false;
    printf("kesto-device: serving %zu keys as %s, told of clients as %s\n", device.tree.size(), bus_names[0],
           bus_names[1]);
    return true;
}

void services_stop(Device &device) {
    if (!device.connection) return;
    g_signal_handlers_disconnect_by_data(device.connection, &device);
    g_clear_object(&device.connection);
}
