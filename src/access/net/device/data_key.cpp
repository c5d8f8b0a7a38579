#include "net/device/data_key.h"

#include <kesto/device.h>

#include "common/signals.h"
#include "net/transport/bus.h"

char *data_key_read(const char *key) {
    // Keys are read during the start, too, in which a stop signal waits until this thread takes it.
    if (stop_signal_waits() || bus_obstacle() != nullptr) return nullptr;
    return kesto_dbus_data_read_kv(key);
}
