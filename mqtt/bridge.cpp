#include "bridge.h"

#include <algorithm>
#include <csignal>
#include <random>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

#include "clock.h"
#include "log.h"
#include "service_manager.h"

static constexpr int turn_ms = 500;  // the connections to the broker are looked after so often at the least
static constexpr int counts_pause_ms = 10000, drops_pause_ms = 60000;
static constexpr size_t devices_most = 1000, orphans_most = 4096;

static int signal_descriptor() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
    return descriptor;
}

Bridge::Bridge(const Options &options)
    : options_(options),
      instance_(std::to_string(std::random_device()())),
      lookup_(options.broker),
      signals_(signal_descriptor()),
      broker_(options, lookup_, kesto_client_id(options), {bridge_topic(options.id, "availability"), offline, true},
              broker_callbacks()),
      search_(loop_, options, [this](kesto::News news, const kesto::Device &device) { take_device(news, device); }) {}

Bridge::~Bridge() { ::close(signals_); }

BrokerCallbacks Bridge::broker_callbacks() {
    BrokerCallbacks callbacks;
    callbacks.connected = [this] {
        say("broker: connected");
        trouble_.clear();
        availability_waits_ = true;
        counts_published_ = {};
        counts_at_ms_ = 0;
        broker_.subscribe(device_topic("+", "bridge"));
        broker_.subscribe_with_own(bridge_topic(options_.id, "instance"));
        instance_known_ = instance_said_;
        for (auto &[serial, device] : devices_) device->broker().hurry();
    };
    callbacks.lost = [this](const std::string &why) {
        if (trouble_ != why) say("broker: " + why);
        trouble_ = why;
    };
    callbacks.message = [this](const Message &message) { take_message(message); };
    callbacks.refused = [](const std::string &why) { say("broker: it refuses a message: " + why); };
    return callbacks;
}

/* Two programs with one id take the connection from each other, so that they never meet. */
void Bridge::take_instance(const std::string &instance) {
    if (!instance_known_ || instance == instance_ || instance == rival_) return;
    rival_ = instance;
    say("another program has used the id " + options_.id + " meanwhile; each needs one of its own");
}

/* What a broker has kept of a device may say that it is online, when broker and bridge have failed together. */
void Bridge::take_message(const Message &message) {
    if (message.topic == bridge_topic(options_.id, "instance")) take_instance(message.payload);
    const std::optional<std::string> serial = serial_of_topic(message.topic, "bridge");
    if (!serial || !message.retained || message.payload != options_.id) return;
    if (!devices_.contains(*serial) && orphans_.size() < orphans_most) orphans_.insert(*serial);
}

void Bridge::take_device(kesto::News news, const kesto::Device &device) {
    const std::string &serial = device.serial.empty() ? device.addresses.front() : device.serial;
    if (news == kesto::News::vanished) {
        const auto known = devices_.find(serial);
        if (known == devices_.end()) return;
        say(serial + ": not found any more");
        known->second->session().vanish();
    } else if (MirroredDevice *mirrored = device_of(serial)) {
        mirrored->follow(device);
    }
}

/* None for one that cannot be served. */
MirroredDevice *Bridge::device_of(const std::string &serial) {
    const auto known = devices_.find(serial);
    if (known != devices_.end()) return known->second.get();
    if (!is_topic_level(serial) || serial == bridges_level || devices_.size() >= devices_most) {
        const bool is_new = left_out_.size() < devices_most && left_out_.insert(serial).second;
        if (is_new) say(serial + ": left out, since it cannot be a topic or there are too many devices");
        return nullptr;
    }
    orphans_.erase(serial);
    return devices_.emplace(serial, std::make_unique<MirroredDevice>(loop_, options_, lookup_, counts_, serial))
        .first->second.get();
}

std::vector<BrokerConnection *> Bridge::brokers() {
    std::vector<BrokerConnection *> connections = {&broker_};
    for (auto &[serial, device] : devices_) connections.push_back(&device->broker());
    return connections;
}

/* For the loop of the devices, a signal, or the broker, and serves it. */
void Bridge::wait(int limit_ms) {
    std::vector<pollfd> polled = {
        {loop_.descriptor(), POLLIN, 0},
        {signals_,           POLLIN, 0}
    };
    const std::vector<BrokerConnection *> connections = brokers();
    for (const BrokerConnection *connection : connections) polled.push_back(connection->to_poll());
    const int loop_ms = loop_.timeout_ms();
    poll(polled.data(), polled.size(), loop_ms < 0 ? limit_ms : std::min(loop_ms, limit_ms));
    signalfd_siginfo signal = {};
    if (read(signals_, &signal, sizeof(signal)) > 0) stopping_ = true;
    for (size_t i = 0; i < connections.size(); ++i) connections[i]->serve(polled[i + 2].revents, clock_ms());
    loop_.dispatch();
}

/* While the broker is away only one connection looks for it. */
void Bridge::go_on() {
    const std::int64_t now_ms = clock_ms();
    search_.go_on(now_ms);
    broker_.seek(now_ms);
    for (auto &[serial, device] : devices_) {
        if (broker_.is_connected()) device->broker().seek(now_ms);
        device->go_on(now_ms);
    }
    while (broker_.can_publish() && publish_next()) {
    }
    for (BrokerConnection *connection : brokers()) connection->look_after(now_ms);
    say_drops(now_ms);
    report();
}

void Bridge::say_drops(std::int64_t now_ms) {
    if (drops(counts_) == drops_said_ || now_ms < drops_at_ms_) return;
    drops_said_ = drops(counts_);
    drops_at_ms_ = now_ms + drops_pause_ms;
    say("so far " + counts_sentence(counts_));
}

bool Bridge::publish_next() {
    if (availability_waits_) {
        availability_waits_ = false;
        instance_said_ = true;
        broker_.publish({bridge_topic(options_.id, "availability"), online, true});
        broker_.publish({bridge_topic(options_.id, "instance"), instance_, true});
    } else if (!orphans_.empty()) {
        const std::string serial = orphans_.extract(orphans_.begin()).value();
        broker_.publish({device_topic(serial, "availability"), offline, true});
    } else if (counts_published_ != counts_ && clock_ms() >= counts_at_ms_) {
        counts_at_ms_ = clock_ms() + counts_pause_ms;
        counts_published_ = counts_;
        broker_.publish({bridge_topic(options_.id, "counts"), counts_json(counts_), true});
    } else {
        return false;
    }
    return true;
}

/* To the service manager. */
void Bridge::report() {
    const auto count = std::count_if(devices_.begin(), devices_.end(),
                                     [](const auto &entry) { return entry.second->session().is_connected(); });
    const std::string status = std::string("broker ") + (broker_.is_connected() ? "connected" : "away") + ", " +
                               std::to_string(count) + " of " + std::to_string(devices_.size()) + " devices connected";
    if (status != status_) tell_service_manager("STATUS=" + status);
    status_ = status;
    const int interval_ms = watchdog_interval_ms();
    if (interval_ms == 0 || clock_ms() < sign_of_life_at_ms_) return;
    sign_of_life_at_ms_ = clock_ms() + interval_ms / 3;
    tell_service_manager("WATCHDOG=1");
}

void Bridge::run() {
    tell_service_manager("READY=1");
    while (!stopping_) {
        go_on();
        wait(turn_ms);
    }
    tell_service_manager("STOPPING=1");
    close();
}

/* The broker learns first that nobody looks after the devices any more; then the bridge logs out of all of them. */
void Bridge::close() {
    for (BrokerConnection *connection : brokers()) connection->close();
    size_t open = devices_.size();
    for (auto &[serial, device] : devices_) device->session().close([&open] { --open; });
    while (open > 0) loop_.wait();
    say("ended; " + counts_sentence(counts_));
}
