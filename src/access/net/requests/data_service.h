/* data_service.h - the calls to the device's data service. Network thread only; each blocks the loop, and with it every
 * client, until the data service answers or the time-out has passed. */
#pragma once

#include <gio/gio.h>

constexpr int multi_write_timeout_ms = 65000;

/* Calls a method and waits. Takes over a floating `arguments`. The reply, a tuple of any type, is the caller's; NULL
 * with `error` set on failure, which includes that no descriptor is free for the call and that the service is to stop.
 * There must be a bus_connection. */
GVariant *data_service_call(const char *method, GVariant *arguments, int timeout_ms, GError **error);
