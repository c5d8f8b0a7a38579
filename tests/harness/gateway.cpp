#include "harness/gateway.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "harness/discovery.h"

Texts discovery_files() {
    Texts paths;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp"))
        if (const std::string path = entry.path(); path.starts_with("/tmp/discovery_")) paths.push_back(path);
    return paths;
}

static void remove_discovery_files() {
    for (const std::string &path : discovery_files()) std::filesystem::remove(path);
}

Gateway::Gateway(GatewayOptions options) : options_(std::move(options)) {
    remove_discovery_files();
    if (options_.with_device) start_device();
    if (options_.with_service) start_service();
}

Gateway::~Gateway() {
    if (service_) stop_service();
    if (device_) device_->expect_orderly_end();
    remove_discovery_files();
}

void Gateway::start_device() {
    Environment environment = {};
    environment["DBUS_SESSION_BUS_ADDRESS"] = bus_.address();
    device_.emplace(Texts{KESTO_DEVICE_PROGRAM, "--trace"}, environment);
    device_->expect_log({"kesto-device: serving *"});
}

void Gateway::start_service() {
    Environment environment = options_.environment;
    environment.emplace("KESTO_DEBUG", "1");
    environment.emplace("DBUS_SESSION_BUS_ADDRESS", bus_.address());
    Texts command = options_.arguments;
    command.insert(command.begin(), KESTO_ACCESS_PROGRAM);
    if (!options_.prepared_by.empty())
        command.insert(command.begin(), {"sh", "-c", options_.prepared_by + "; exec \"$0\" \"$@\""});
    service_.emplace(std::move(command), environment);
    expect_events_of(service_->pid());
    if (options_.wait_until_up) service_->expect_log({"zsys_catch_interrupts"});
}

void Gateway::stop_service() {
    service_->expect_orderly_end();
    service_->expect_no_complaints();
    expect_events_of(0);
    service_.reset();
}

Answer Gateway::call(const char *method, GVariant *arguments, Where where) {
    return bus_.call(access_object, method, arguments, where);
}

void Gateway::control(const char *method, const char *arguments, Where where) {
    const Answer answer =
        bus_.call(device_control, method, g_variant_parse(nullptr, arguments, nullptr, nullptr, nullptr), where);
    if (answer != empty_reply) abandon(std::string(method) + ": " + answer.error + ": " + answer.message, where);
}

void Gateway::set_fault(const std::string &fault, Where where) {
    control("Fault", ("('" + fault + "',)").c_str(), where);
}

Texts Gateway::audio_calls(Where where) {
    Discovery().find("fence", "", where);
    // The service read it for the reply, on the connection that carries its calls to the audio service.
    Texts calls = device_->log_until("Read (uint32 8192, '/Device/Config/PROJECT_INFO')", where);
    std::erase_if(calls, [](const std::string &line) { return !line.starts_with("Client"); });
    return calls;
}
