#include "activity.h"

#include <cassert>
#include <cmath>
#include <cstdio>
#include <iterator>

static constexpr const char *access_name = "com.quillmont.kesto.Access";
static constexpr const char *access_path = "/com/quillmont/kesto/Access";
static constexpr const char *access_interface = "com.quillmont.kesto.Access.Service";

static constexpr int ms_per_s = 1000;
static constexpr int alarm_code = 40;
static constexpr double alarm_low = 80, alarm_high = 95;  // degrees Celsius at a channel's output stage

struct Measurement {
    const char *key;
    double low, high;
};
static constexpr Measurement measurements[] = {
    {"/Device/Status/Temperature/HeatSink",           38,  72 }, // degrees Celsius
    {"/Device/Status/Channels/Channel-0/OutputLevel", -60, 0  }, // dB below full scale
    {"/Device/Status/Channels/Channel-1/OutputLevel", -60, 0  },
    {"/Device/Status/Temperature/PowerSupply",        40,  75 },
    {"/Device/Status/Channels/Channel-2/OutputLevel", -60, 0  },
    {"/Device/Status/Channels/Channel-3/OutputLevel", -60, 0  },
    {"/Device/Status/Power/MainsVoltage",             225, 235}, // volts
    {"/Device/Status/Power/MainsCurrent",             1,   14 }, // amperes
    {"/Device/Status/Fans/Speed",                     20,  100}, // per cent
};

/* In steps of a half, which a double holds exactly and prints as short as it is. */
static double next_value(double low, double high) { return std::round(g_random_double_range(low, high) * 2) / 2; }

static gboolean raise_alarm(void *argument) {
    static int channel = 0;
    activity_tell(*static_cast<Device *>(argument), alarm_raised,
                  g_variant_new("(idi)", alarm_code, next_value(alarm_low, alarm_high), channel));
    channel = (channel + 1) % channel_count;
    return G_SOURCE_CONTINUE;
}

/* A measured value goes into the tree only: the file is for what somebody has set. */
static gboolean change_value(void *argument) {
    static size_t next = 0;
    Device &device = *static_cast<Device *>(argument);
    const Measurement &row = measurements[next];
    next = (next + 1) % std::size(measurements);

    char value[32];
    snprintf(value, sizeof value, "%.1f", next_value(row.low, row.high));
    assert(device.tree.contains(row.key));
    device.tree[row.key] = value;
    activity_tell(device, value_changed, g_variant_new("(sss)", row.key, value, "string"));
    return G_SOURCE_CONTINUE;
}

static void repeat(double every_s, GSourceFunc action, Device &device) {
    if (every_s > 0) g_timeout_add(static_cast<guint>(std::lround(every_s * ms_per_s)), action, &device);
}

void activity_tell(Device &device, const AccessCall &call, GVariant *arguments) {
    g_autoptr(GVariant) held = g_variant_ref_sink(arguments);
    g_dbus_connection_call(device.connection, access_name, access_path, access_interface, call.method, held, nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
    g_autofree char *text = g_variant_print(held, TRUE);
    printf("%s: %s\n", call.label, text);
}

void activity_start(Device &device, double alarm_every_s, double change_every_s) {
    repeat(alarm_every_s, raise_alarm, device);
    repeat(change_every_s, change_value, device);
}
