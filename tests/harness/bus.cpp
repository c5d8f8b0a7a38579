#include "harness/bus.h"

#include <csignal>
#include <ostream>

std::ostream &operator<<(std::ostream &out, const Answer &answer) {
    if (answer.error.empty()) return out << answer.reply;
    return out << answer.error << ": " << answer.message;
}

Bus::Bus() : daemon_({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address"}, {}) {
    daemon_.expect_log({"unix:*"});
    address_ = daemon_.standard_output();
    address_.pop_back();
    g_autoptr(GError) error = nullptr;
    connection_ = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (connection_ == nullptr) throw Abandoned(error->message);
}

Bus::~Bus() { g_clear_object(&connection_); }

Answer Bus::call(const BusObject &object, const char *method, GVariant *arguments) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(connection_, object.name, object.path, object.interface,
                                                            method, arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                            static_cast<int>(patience().count()), nullptr, &error);
    if (reply != nullptr) {
        g_autofree char *text = g_variant_print(reply, FALSE);
        return {text, "", ""};
    }
    g_autofree char *name = g_dbus_error_get_remote_error(error);
    g_dbus_error_strip_remote_error(error);
    return {"", name != nullptr ? name : g_quark_to_string(error->domain), error->message};
}

bool Bus::has_owner(const char *name) {
    return call(the_bus, "NameHasOwner", g_variant_new("(s)", name)).reply == "(true,)";
}

void Bus::take_name(const char *name) {
    const Answer answer = call(the_bus, "RequestName", g_variant_new("(su)", name, 0));
    if (answer.reply != "(1,)") throw Abandoned(std::string("the test cannot have the name ") + name);
}

void Bus::end() {
    daemon_.send_signal(SIGKILL);
    daemon_.wait_exit();
}
