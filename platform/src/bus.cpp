// The library's way to the session bus. Its two difficulties: where no file descriptor is left, GLib ends the process
// instead of failing the call, so that the shortage has to be noticed before; and connecting has no time-out.
#include "bus.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

static constexpr auto connect_timeout = 25s;  // as long as GDBus waits for the answer to a call
static constexpr auto stop_signal_check_period = 1s;

static constexpr size_t descriptors_to_connect = 8;  // GDBus's own wake-ups, its socket, and what looking for it opens
static constexpr size_t descriptors_to_call = 1;     // a waiting call is woken through one of its own

static bool descriptors_available(size_t wanted) {
    int opened[descriptors_to_connect];
    size_t count = 0;
    while (count < wanted && (opened[count] = eventfd(0, EFD_CLOEXEC)) != -1) ++count;
    std::for_each_n(opened, count, close);
    return count == wanted;
}

static bool stop_signal_waits() {
    sigset_t waiting;
    return sigpending(&waiting) == 0 && (sigismember(&waiting, SIGTERM) == 1 || sigismember(&waiting, SIGINT) == 1);
}

// Until the connecting is over: gives it up when it takes too long, or when the process, which keeps the stop signals
// blocked meanwhile, is asked to end.
static void limit_connecting(const std::stop_token &over, GCancellable *connecting) {
    std::mutex unshared;
    std::unique_lock lock(unshared);
    std::condition_variable_any clock;
    const auto deadline = std::chrono::steady_clock::now() + connect_timeout;
    do {
        if (clock.wait_for(lock, over, stop_signal_check_period, [&] { return over.stop_requested(); })) return;
    } while (std::chrono::steady_clock::now() < deadline && !stop_signal_waits());
    g_cancellable_cancel(connecting);
}

static GDBusConnection *connect_within_limit() {
    g_autoptr(GCancellable) connecting = g_cancellable_new();
    const std::jthread limit(limit_connecting, connecting);
    return g_bus_get_sync(G_BUS_TYPE_SESSION, connecting, nullptr);
}

GDBusConnection *bus_connect() {
    static GWeakRef connected;  // GIO's own one per process; asked for anew, it would need the limit's thread each time
    if (gpointer standing = g_weak_ref_get(&connected)) return G_DBUS_CONNECTION(standing);
    if (!descriptors_available(descriptors_to_connect)) return nullptr;

    GDBusConnection *connection = connect_within_limit();
    if (connection == nullptr) return nullptr;
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    g_weak_ref_set(&connected, connection);
    return connection;
}

GVariant *bus_call(GDBusConnection *connection, const BusMethod &method, GVariant *parameters, int timeout_ms) {
    g_autoptr(GVariant) owned = g_variant_ref_sink(parameters);
    if (!descriptors_available(descriptors_to_call)) return nullptr;
    return g_dbus_connection_call_sync(connection, method.service, method.path, method.interface, method.name, owned,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, nullptr);
}
