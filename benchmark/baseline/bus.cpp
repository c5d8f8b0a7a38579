// The calls to the data and audio services, and the four methods through which the device reports its changes.
#include "baseline.h"

static constexpr const char *data_name = "com.quillmont.kesto.Data", *data_path = "/com/quillmont/kesto/Data",
                            *data_interface = "com.quillmont.kesto.Data.Service";
static constexpr const char *audio_name = "com.quillmont.kesto.Audio", *audio_path = "/com/quillmont/kesto/Audio",
                            *audio_interface = "com.quillmont.kesto.Audio.Service";
static constexpr const char *own_name = "com.quillmont.kesto.Access", *own_path = "/com/quillmont/kesto/Access";
static constexpr int default_timeout_ms = -1, multi_write_timeout_ms = 65000;
static constexpr int32_t plain_write = 1;
static constexpr uint32_t this_key_alone = 0x2000, type_mask = 0x1801;

static constexpr const char *introspection = R"(<node><interface name='com.quillmont.kesto.Access.Service'>
<method name='Dispatch'><arg type='i' name='code'/><arg type='d' name='value'/><arg type='i' name='channel'/></method>
<method name='GeneralDispatch'><arg type='s' name='key'/><arg type='s' name='value'/><arg type='s' name='type'/></method>
<method name='SnapshotLoadedDispatch'><arg type='u' name='slotid'/></method>
<method name='SpeakerPresetLoadedDispatch'/>
</interface></node>)";

static GVariant *call_data(const Baseline &baseline, const char *method, GVariant *arguments, int timeout_ms) {
    return g_dbus_connection_call_sync(baseline.bus, data_name, data_path, data_interface, method, arguments, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, nullptr);
}

static GVariant *first_child(GVariant *tuple) {
    if (tuple == nullptr) return nullptr;
    g_autoptr(GVariant) owned = tuple;
    return g_variant_get_child_value(owned, 0);
}

GVariant *bus_read(const Baseline &baseline, uint32_t flags, const std::string &key) {
    g_autoptr(GVariant) boxed =
        first_child(call_data(baseline, "Read", g_variant_new("(us)", flags, key.c_str()), default_timeout_ms));
    return boxed != nullptr ? g_variant_get_variant(boxed) : nullptr;
}

std::string bus_read_text(const Baseline &baseline, const char *key) {
    g_autoptr(GVariant) value = bus_read(baseline, this_key_alone, key);
    return value != nullptr ? g_variant_get_string(value, nullptr) : "";
}

int bus_write(const Baseline &baseline, const wire::Write &write) {
    const auto type = static_cast<int32_t>(write.type() & type_mask);
    GVariant *arguments = g_variant_new("(iss)", type, write.key().c_str(), write.value().c_str());
    g_autoptr(GVariant) result = first_child(call_data(baseline, "Write", arguments, default_timeout_ms));
    return result != nullptr ? g_variant_get_int32(result) : -1;
}

GVariant *bus_multi_write(const Baseline &baseline, const wire::MultiWrite &write) {
    GVariantBuilder pairs;
    g_variant_builder_init(&pairs, G_VARIANT_TYPE("a(iss)"));
    for (const wire::Pair &pair : write.pairs())
        g_variant_builder_add(&pairs, "(iss)", plain_write, pair.key().c_str(), pair.value().c_str());
    return first_child(call_data(baseline, "MultiWrite", g_variant_new("(a(iss))", &pairs), multi_write_timeout_ms));
}

void bus_tell_audio(const Baseline &baseline, const char *method, const std::string &id) {
    g_dbus_connection_call(baseline.bus, audio_name, audio_path, audio_interface, method,
                           g_variant_new("(s)", id.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, default_timeout_ms,
                           nullptr, nullptr, nullptr);
}

static void fill_event(wire::Event *event, const char *method, GVariant *arguments) {
    if (g_str_equal(method, "Dispatch")) {
        int32_t code, channel;
        double value;
        g_variant_get(arguments, "(idi)", &code, &value, &channel);
        event->mutable_alarm()->set_code(code);
        event->mutable_alarm()->set_active(1);
        event->mutable_alarm()->set_channel(channel);
        event->mutable_alarm()->set_value(static_cast<float>(value));
    } else if (g_str_equal(method, "GeneralDispatch")) {
        const char *key, *value, *type;
        g_variant_get(arguments, "(&s&s&s)", &key, &value, &type);
        event->mutable_change()->set_key(key);
        event->mutable_change()->set_value(value);
        event->mutable_change()->set_type(type);
    } else if (g_str_equal(method, "SnapshotLoadedDispatch")) {
        uint32_t slot;
        g_variant_get(arguments, "(u)", &slot);
        event->mutable_snapshot_loaded()->set_slot(slot);
    } else {
        event->mutable_speaker_preset_loaded();
    }
}

static void on_method(GDBusConnection *, const char *, const char *, const char *, const char *method,
                      GVariant *arguments, GDBusMethodInvocation *invocation, void *argument) {
    auto *baseline = static_cast<Baseline *>(argument);
    static wire::Message message;
    fill_event(message.mutable_event(), method, arguments);
    baseline->change_count.fetch_add(1);
    g_async_queue_push(baseline->queue, new std::string(message.SerializeAsString()));
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void bus_export_methods(Baseline &baseline) {
    static constexpr GDBusInterfaceVTable calls{on_method, nullptr, nullptr, {}};
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(introspection, nullptr);
    g_dbus_connection_register_object(baseline.bus, own_path, node->interfaces[0], &calls, &baseline, nullptr, nullptr);
    g_bus_own_name_on_connection(baseline.bus, own_name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr,
                                 nullptr);
}
