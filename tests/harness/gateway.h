/* gateway.h - one whole gateway for one test: a bus, the simulated device and the access service, the real programs.
 *
 * At its end the service gets SIGTERM, unless the test has seen its exit (service().wait_exit()), and must end with
 * status 0; it must not have complained either (Process::expect_no_complaints). The service's ports and files are
 * fixed, so that a test has one gateway at a time. */
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "harness/bus.h"
#include "harness/process.h"
#include "harness/texts.h"

/* A key of the simulated device, and the value that it starts with. */
inline constexpr const char *name_key = "/Device/Config/Name", *name_value = "Rack 3, amplifier 2";

struct GatewayOptions {
    bool with_device = true;
    bool with_service = true;
    Texts arguments = {};          // of the service
    Environment environment = {};  // of the service, beside KESTO_DEBUG=1 and the bus's address
    std::string prepared_by = "";  // what a shell does before it becomes the service
    bool wait_until_up = true;     // false for a service that logs nothing or does not come up
};

/* The files in which the service describes the device. A gateway removes them at its start and at its end. */
Texts discovery_files();

class Gateway {
  public:
    explicit Gateway(GatewayOptions options = {});
    ~Gateway();

    Bus &bus() { return bus_; }
    Process &service() { return *service_; }
    Process &device() { return *device_; }  // traces each call: "Write (0, '/Device/Config/Name', 'Hall')"

    /* As the gateway's options say. The program must not be running. */
    void start_service();
    void start_device();

    /* SIGTERM; the service must end with status 0, without complaints. */
    void stop_service();

    /* The service's log, and its D-Bus methods. */
    void expect_log(const Texts &messages, Where where = Where::current()) { service_->expect_log(messages, where); }
    Answer call(const char *method, GVariant *arguments = nullptr, Where where = Where::current());

    /* Calls a method of the device's control interface, which must succeed: control("LoadSnapshot", "(uint32 4,)"). */
    void control(const char *method, const char *arguments, Where where = Where::current());

    /* How the data service misbehaves from now on: "write=error", and "write=none" to end it. */
    void set_fault(const std::string &fault, Where where = Where::current());

    /* All calls of the audio service from the device's cursor until now, as "ClientAuthenticated ('panel-1',)". Finds
     * their end with a discovery request of the id "fence": the cursor must be past the test's own requests. */
    Texts audio_calls(Where where = Where::current());

  private:
    GatewayOptions options_;
    Bus bus_;
    std::optional<Process> device_, service_;
};
