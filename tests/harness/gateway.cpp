#include "harness/gateway.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "harness/discovery.h"

static void remove_discovery_files() {
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        if (name.starts_with("discovery_") && name.ends_with(".txt")) std::filesystem::remove(entry.path());
    }
}

static std::vector<std::string> command_line(const char *program, const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {program};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

void Device::expect_call(std::string_view method, std::string_view client_id, Where where) {
    expect_log({std::string(method) + " ('" + std::string(client_id) + "',)"}, where);
}

Gateway::Gateway(GatewayOptions options) : options_(std::move(options)) {
    remove_discovery_files();
    if (options_.with_device) start_device();
    if (options_.with_service) start_service();
}

Gateway::~Gateway() {
    if (service_) end_service();
    if (device_) device_->expect_orderly_end();
    remove_discovery_files();
}

void Gateway::start_device() {
    std::vector<std::string> command = command_line(KESTO_DEVICE_PROGRAM, options_.device_options);
    command.push_back("--trace");
    device_.emplace(std::move(command), Environment{
                                            {"DBUS_SESSION_BUS_ADDRESS", bus_.address()}
    });
    device_->expect_log({"kesto-device: serving *"});
}

void Gateway::start_service() {
    Environment environment = options_.environment;
    environment.emplace("KESTO_DEBUG", "1");
    environment.emplace("DBUS_SESSION_BUS_ADDRESS", bus_.address());
    service_.emplace(command_line(KESTO_ACCESS_PROGRAM, options_.arguments), environment);
    if (options_.wait_until_up) service_->expect_log({"zsys_catch_interrupts"});
}

void Gateway::end_service() {
    service_->expect_orderly_end();
    service_->expect_no_complaints();
}

void Gateway::stop_service() {
    end_service();
    service_.reset();
}

void Gateway::stop_device() {
    device_->expect_orderly_end();
    device_.reset();
}

void Gateway::expect_log(std::initializer_list<std::string_view> messages, Where where) {
    service_->expect_log(messages, where);
}

Answer Gateway::call(const char *method, GVariant *arguments) { return bus_.call(access_object, method, arguments); }

void Gateway::control(const char *method, const char *arguments, Where where) {
    const Answer answer =
        bus_.call(device_control, method, g_variant_parse(nullptr, arguments, nullptr, nullptr, nullptr));
    if (answer != empty_reply) abandon(std::string(method) + ": " + answer.error + ": " + answer.message, where);
}

std::vector<std::string> Gateway::audio_calls(Where where) {
    Discovery discovery;
    discovery.send(discovery_request("fence"));
    discovery.receive(where);
    // The service read it for the reply, on the connection that carries its calls to the audio service.
    std::vector<std::string> calls = device_->log_until("Read (uint32 8192, '/Device/Config/PROJECT_INFO')", where);
    std::erase_if(calls, [](const std::string &line) { return !line.starts_with("Client"); });
    return calls;
}
