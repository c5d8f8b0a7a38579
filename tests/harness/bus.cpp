#include "harness/bus.h"

#include <ostream>
#include <unistd.h>

std::ostream &operator<<(std::ostream &out, const Answer &answer) {
    if (answer.error.empty()) return out << answer.reply;
    return out << answer.error << ": " << answer.message;
}

Bus::Bus() : daemon_({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address"}, {}) {
    daemon_.expect_log({"unix:*"});
    address_ = daemon_.text(STDOUT_FILENO);
    address_.pop_back();
    g_autoptr(GError) error = nullptr;
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection *connection =
        g_dbus_connection_new_for_address_sync(address_.c_str(), flags, nullptr, nullptr, &error);
    if (connection == nullptr) throw Abandoned(error->message);
    connection_.reset(connection);
}

Answer Bus::call(const BusObject &object, const char *method, GVariant *arguments, Where where) {
    [[maybe_unused]] g_autoptr(GVariant) owned = arguments == nullptr ? nullptr : g_variant_take_ref(arguments);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        connection_.get(), object.name, object.path, object.interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<int>(event_timeout().count()), nullptr, &error);
    if (reply != nullptr) {
        g_autofree char *text = g_variant_print(reply, FALSE);
        return {text, "", ""};
    }
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
        abandon(std::string(method) + " of " + object.name + " got no answer", where);
    g_autofree char *name = g_dbus_error_get_remote_error(error);
    g_dbus_error_strip_remote_error(error);
    return {"", name != nullptr ? name : g_quark_to_string(error->domain), error->message};
}

void Bus::end() {
    daemon_.send_signal(SIGKILL);
    daemon_.wait_exit();
}
