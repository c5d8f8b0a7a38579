/* dbus_methods.h - the D-Bus methods through which the device reports its changes.
 *
 * Each turns one call into one event of the queue and answers at once; the network thread broadcasts it later. While
 * the service is not running, each answers with an error. Main thread only. */
#pragma once

#include <kesto/process.h>

/* For kesto_process_add_dbus_methods; ended by a row of NULLs. */
extern const KestoDbusMethod access_dbus_methods[];

void dbus_mtod_dispatch(GDBusMethodInvocation *invocation);
void dbus_mtod_general_dispatch(GDBusMethodInvocation *invocation);
void dbus_mtod_snapshot_loaded_dispatch(GDBusMethodInvocation *invocation);
void dbus_mtod_speakerpreset_loaded_dispatch(GDBusMethodInvocation *invocation);
