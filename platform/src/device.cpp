// Facts of the device. The slot and the name stand in the environment here; single keys come from the data service.
#include <climits>
#include <cstdint>
#include <cstdlib>

#include <kesto/device.h>

#include "bus.h"
#include "variant.h"

static constexpr BusMethod data_read = {"com.quillmont.kesto.Data", "/com/quillmont/kesto/Data",
                                        "com.quillmont.kesto.Data.Service", "Read"};
static constexpr uint32_t read_this_key_alone = 0x2000;

int kesto_detect_slot_id(void) {
    const char *setting = std::getenv("KESTO_SLOT_ID");
    if (setting == nullptr) return 0;
    gint64 slot = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_ascii_string_to_signed(setting, 10, INT_MIN, INT_MAX, &slot, &error)) {
        g_printerr("KESTO_SLOT_ID is not used: %s\n", error->message);
        return 0;
    }
    return static_cast<int>(slot);
}

int getampname(char *buffer, size_t size) {
    const char *name = std::getenv("KESTO_AMP_NAME");
    if (name == nullptr || buffer == nullptr || size == 0) return -1;
    g_strlcpy(buffer, name, size);
    const char *end = buffer;  // discovery publishes the name as UTF-8, so it is never cut inside a character
    g_utf8_validate(buffer, -1, &end);
    buffer[end - buffer] = '\0';
    return 0;
}

// The text of a reply whose first child is a string or a boxed string.
static char *text_of_reply(GVariant *reply) {
    if (g_variant_n_children(reply) == 0) return nullptr;
    g_autoptr(GVariant) value = variant_unbox(g_variant_get_child_value(reply, 0));
    return g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) ? g_variant_dup_string(value, nullptr) : nullptr;
}

char *kesto_dbus_data_read_kv(const char *key) {
    if (key == nullptr || !g_utf8_validate(key, -1, nullptr)) return nullptr;
    g_autoptr(GDBusConnection) connection = bus_connect();
    if (connection == nullptr) return nullptr;
    g_autoptr(GVariant) reply = bus_call(connection, data_read, g_variant_new("(us)", read_this_key_alone, key));
    return reply != nullptr ? text_of_reply(reply) : nullptr;
}
