// bench-peer: the events of bench-load, sent through an MQTT broker to as many subscribers. Each subscriber has a
// connection of its own, as each client has one to the service; everything is at most once (QoS 0), as a ZeroMQ event
// is.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mosquitto.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sysexits.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "access.pb.h"
#include "process.h"

static constexpr const char *address = "127.0.0.1", *topic = "events";
static constexpr int broker_port = 1883, keepalive_s = 600, at_most_once = 0;
static constexpr int patience_ms = 20000;
static constexpr int bursts = 18, burst_length = 10;
static constexpr int subscriber_counts[] = {1, 10, 100, 500};

struct ConnectionClose {
    void operator()(mosquitto *connection) const { mosquitto_destroy(connection); }
};

struct Subscriber {
    std::unique_ptr<mosquitto, ConnectionClose> connection;
    int received = 0;
    bool subscribed = false;
};

static void require(bool good, const char *what) {
    if (!good) throw std::runtime_error(what);
}

// Serves the connection's socket once, when there is something within the time-out.
static bool serve(mosquitto *connection, int timeout_ms) {
    while (mosquitto_want_write(connection)) require(mosquitto_loop_write(connection, 1) == MOSQ_ERR_SUCCESS, "write");
    pollfd readable = {mosquitto_socket(connection), POLLIN, 0};
    if (poll(&readable, 1, timeout_ms) != 1) return false;
    return mosquitto_loop_read(connection, 1) == MOSQ_ERR_SUCCESS;
}

static mosquitto *connect_to_broker(void *argument) {
    mosquitto *connection = mosquitto_new(nullptr, true, argument);
    mosquitto_max_inflight_messages_set(connection, UINT_MAX);
    require(mosquitto_connect(connection, address, broker_port, keepalive_s) == MOSQ_ERR_SUCCESS, "no broker");
    return connection;
}

static std::unique_ptr<Subscriber> subscribe() {
    auto subscriber = std::make_unique<Subscriber>();
    subscriber->connection.reset(connect_to_broker(subscriber.get()));
    mosquitto *connection = subscriber->connection.get();
    mosquitto_message_callback_set(connection, [](mosquitto *, void *argument, const mosquitto_message *) {
        ++static_cast<Subscriber *>(argument)->received;
    });
    mosquitto_subscribe_callback_set(connection, [](mosquitto *, void *argument, int, int, const int *) {
        static_cast<Subscriber *>(argument)->subscribed = true;
    });
    mosquitto_connect_callback_set(
        connection, [](mosquitto *own, void *, int) { mosquitto_subscribe(own, nullptr, topic, at_most_once); });
    while (!subscriber->subscribed) require(serve(connection, patience_ms), "no subscription");
    return subscriber;
}

static std::string change_event() {
    kesto::access::v1::Message message;
    auto *change = message.mutable_event()->mutable_change();
    change->set_key("/Device/Status/Channels/Channel-3/OutputLevel");
    change->set_value("-6.5");
    change->set_type("f");
    return message.SerializeAsString();
}

static void publish(mosquitto *publisher, const std::string &event) {
    require(mosquitto_publish(publisher, nullptr, topic, static_cast<int>(event.size()), event.data(), at_most_once,
                              false) == MOSQ_ERR_SUCCESS,
            "an event could not be published");
    while (mosquitto_want_write(publisher)) mosquitto_loop_write(publisher, 1);
}

using Subscribers = std::vector<std::unique_ptr<Subscriber>>;

static void hear(const Subscribers &subscribers, int count) {
    for (const auto &subscriber : subscribers) {
        while (subscriber->received < count)
            require(serve(subscriber->connection.get(), patience_ms), "an event got lost");
        subscriber->received = 0;
    }
}

static double deliver(mosquitto *publisher, const Subscribers &subscribers, const std::string &event) {
    for (int i = 1; i < burst_length; ++i) publish(publisher, event);
    const double last = now_us();
    publish(publisher, event);
    hear(subscribers, burst_length);
    return now_us() - last;
}

static nlohmann::json measure(pid_t broker) {
    nlohmann::json figures;
    const std::unique_ptr<mosquitto, ConnectionClose> publisher(connect_to_broker(nullptr));
    require(serve(publisher.get(), patience_ms), "the broker does not answer");
    const std::string event = change_event();
    Subscribers subscribers;
    for (const int count : subscriber_counts) {
        while (static_cast<int>(subscribers.size()) < count) subscribers.push_back(subscribe());
        deliver(publisher.get(), subscribers, event);
        double delay_us = 0;
        const Cost cost = cost_of(broker, [&] {
            for (int i = 0; i < bursts; ++i) delay_us += deliver(publisher.get(), subscribers, event);
        });
        const std::string row = "event." + std::to_string(count);
        figures[row + ".cpu"] = cost.cpu_us / (static_cast<double>(count) * burst_length * bursts);
        figures[row + ".time"] = delay_us / bursts;
        figures[row + ".memory"] = resident_kib(broker);
    }
    return figures;
}

int main(int argc, char **argv) try {
    if (argc != 2) {
        fputs("usage: bench-peer PID-OF-THE-BROKER\n", stderr);
        return EX_USAGE;
    }
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    mosquitto_lib_init();
    puts(measure(std::stoi(argv[1])).dump().c_str());
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    fprintf(stderr, "bench-peer: %s\n", error.what());
    return EXIT_FAILURE;
}
