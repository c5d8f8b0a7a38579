// The library's way to the session bus. Its two difficulties: where no file descriptor is left, GLib ends the process
// instead of failing the call, so that the shortage has to be noticed before; and connecting has no time-out.
#include "bus.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

constexpr auto connect_timeout = 25s;  // as long as GDBus waits for the answer to a call
constexpr auto stop_signal_check_period = 1s;

// GDBus wakes a waiting call through an eventfd of the call's own.
static bool descriptor_available() {
    const int probe = eventfd(0, EFD_CLOEXEC);
    if (probe == -1) return false;
    close(probe);
    return true;
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
    if (!descriptor_available()) return nullptr;

    GDBusConnection *connection = connect_within_limit();
    if (connection == nullptr) return nullptr;
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    g_weak_ref_set(&connected, connection);
    return connection;
}

GVariant *bus_call(GDBusConnection *connection, const BusMethod &method, GVariant *parameters, int timeout_ms) {
    g_autoptr(GVariant) owned = g_variant_ref_sink(parameters);
    if (!descriptor_available()) return nullptr;
    return g_dbus_connection_call_sync(connection, method.service, method.path, method.interface, method.name, owned,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, nullptr);
}
