/* data_service.h - the methods of com.quillmont.kesto.Data.Service, with the faults that they were told to have. */
#pragma once

#include <string>
#include <vector>

#include "device.h"

/* GDBusInterfaceMethodCallFunc of the service; `device` is the Device. */
void data_service_called(GDBusConnection *connection, const char *sender, const char *path, const char *interface_name,
                         const char *method, GVariant *arguments, GDBusMethodInvocation *invocation, void *device);

/* What is told of each write. In a multi-write it is a text. */
enum WriteResult : int {
    write_ok = 0,
    write_no_such_key = -1,
    write_not_stored = -3,  // the file could not be written; nothing has changed
    write_refused = -5,     // only as a fault
};

struct WriteRequest {
    guint32 type;  // with write_type_lock: nothing is changed
    std::string key, value;
};
constexpr guint32 write_type_lock = 0x1000;

/* Carries out the writes in order, and keeps them in one go before any of them shows. One result for each. */
std::vector<WriteResult> data_service_write(Device &device, const std::vector<WriteRequest> &requests);
