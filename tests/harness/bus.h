/* bus.h - a session bus of the test's own, with the stock configuration. */
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "harness/process.h"

/* Where a method is found. */
struct BusObject {
    const char *name, *path, *interface;
};
inline constexpr BusObject access_object = {"com.quillmont.kesto.Access", "/com/quillmont/kesto/Access",
                                            "com.quillmont.kesto.Access.Service"};
inline constexpr BusObject device_control = {"com.quillmont.kesto.Data", "/com/quillmont/kesto/Device",
                                             "com.quillmont.kesto.Device.Control"};
inline constexpr BusObject the_bus = {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};

/* What came back: the reply in GVariant's text format ("()" for an empty one), or an error's name and message. */
struct Answer {
    std::string reply, error, message;
    bool operator==(const Answer &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Answer &answer);
inline const Answer empty_reply = {"()", "", ""};

class Bus {
  public:
    Bus();

    const std::string &address() const { return address_; }

    /* Takes over `arguments`, floating or not; NULL stands for (). An answer, be it an error, must come. */
    Answer call(const BusObject &object, const char *method, GVariant *arguments = nullptr,
                Where where = Where::current());

    void end();  // kills the bus daemon

  private:
    Process daemon_;
    std::string address_;
    std::unique_ptr<GDBusConnection, decltype(&g_object_unref)> connection_{nullptr, g_object_unref};
};
