/* device.h - the one record of the simulated device. Everything runs on the main thread, inside the main loop. */
#pragma once

#include <gio/gio.h>

#include "faults.h"
#include "store.h"
#include "tree.h"

struct Device {
    GDBusConnection *connection = nullptr;  // released by services_stop
    GMainLoop *loop = nullptr;              // released by main
    Tree tree;
    Store store;
    Faults faults;
    bool trace = false;   // print each call of the data and the audio service
    int exit_status = 0;  // when the loop has ended
};

/* Prints the call as tests and people read it, if asked to: "Read (uint32 8192, '/Device/Config/Name')". */
void device_trace(const Device &device, const char *method, GVariant *arguments);
