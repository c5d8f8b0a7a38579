#include <algorithm>
#include <map>

#include <kesto-client/browser.h>

#include "discovery.h"
#include "exchange_with.h"

namespace kesto {

static constexpr int datagrams_at_first = 3;
static constexpr int reply_ms = 1000;         // what a reply takes at most as a rule
static constexpr int slow_reply_ms = 30000;   // a device whose data service is silent serves nobody for 25 s meanwhile
static constexpr int replies_at_once = 256;   // then other tasks get their turn
static constexpr size_t devices_most = 4096;  // whatever a liar on the network invents

class Browser::Core final : public Task {
  public:
    Core(std::shared_ptr<LoopCore> loop, BrowserOptions options, BrowserCallbacks callbacks);
    ~Core() override { unwatch_all(); }

    void begin();
    void go_on(int64_t now) override;
    void look_again();
    std::vector<Device> devices() const;

  private:
    /* Its addresses are those that it answers from, each with the round in which it last did. */
    struct Known {
        Device device;
        std::map<std::string, int> rounds;
        int64_t heard_at = 0;
    };

    bool is_owed() const; /* a reply, by any device */
    bool is_owed(const Known &known) const { return known.heard_at < asked_at_; }
    int64_t vanishes_at(const Known &known) const;
    void begin_round(int64_t now);
    void send(int64_t now);
    void receive(int64_t now);
    void take(const DiscoverySocket::Received &received, int64_t now);
    void take_device(Device device, const std::string &address, int64_t now);
    void forget_addresses(Known &known);
    void forget_devices(int64_t now);
    void arm(int64_t now);
    void tell_news(News news, const Device &device);
    void tell_trouble(const std::string &sentence);

    const BrowserOptions options_;
    const BrowserCallbacks callbacks_;
    const DiscoveryRequest request_;
    std::set<std::string> addresses_;
    DiscoverySocket socket_;
    std::map<std::string, Known> known_;  // by serial
    std::string trouble_;                 // told last; empty: none
    int round_ = 0, datagrams_left_ = 0;
    int64_t asked_at_ = 0, send_at_ = 0, round_at_ = 0, late_at_ = 0;
};

Browser::Core::Core(std::shared_ptr<LoopCore> loop, BrowserOptions options, BrowserCallbacks callbacks)
    : Task(std::move(loop)),
      options_(std::move(options)),
      callbacks_(std::move(callbacks)),
      request_(discovery_request(options_.client_id, options_.public_key)) {}

void Browser::Core::begin() {
    if (!request_.problem.empty()) tell_trouble(request_.problem);
    for (const std::string &address : options_.addresses) {
        if (is_address(address)) addresses_.insert(address);
        else tell_trouble("'" + address + "' is no IPv4 address");
    }
    if (socket_.descriptor() >= 0) watch(socket_.descriptor());
    wake();
}

void Browser::Core::tell_news(News news, const Device &device) {
    if (callbacks_.news) tell([this, news, device] { callbacks_.news(news, device); });
}

void Browser::Core::tell_trouble(const std::string &sentence) {
    if (callbacks_.trouble) tell([this, sentence] { callbacks_.trouble(sentence); });
}

void Browser::Core::go_on(int64_t now) {
    receive(now);
    forget_devices(now);
    // Asked again before it has answered, a slow device would never be done.
    if (now >= (is_owed() ? late_at_ : round_at_)) begin_round(now);
    if (datagrams_left_ > 0 && now >= send_at_) send(now);
    arm(now);
}

void Browser::Core::arm(int64_t now) {
    int64_t due = is_owed() ? late_at_ : round_at_;
    if (datagrams_left_ > 0) due = std::min(due, send_at_);
    for (const auto &[serial, known] : known_) {
        if (is_owed(known)) due = std::min(due, vanishes_at(known));
    }
    set_due(std::max(due, now));
}

bool Browser::Core::is_owed() const {
    return std::any_of(known_.begin(), known_.end(), [&](const auto &entry) { return is_owed(entry.second); });
}

/* A program that has slept has not asked meanwhile. */
int64_t Browser::Core::vanishes_at(const Known &known) const {
    return std::max(known.heard_at + options_.vanished_after_ms, asked_at_ + reply_ms);
}

void Browser::Core::look_again() {
    if (datagrams_left_ > 0) return;
    round_at_ = late_at_ = 0;
    wake();
}

void Browser::Core::begin_round(int64_t now) {
    for (auto &[serial, known] : known_) forget_addresses(known);
    datagrams_left_ = round_ == 0 ? datagrams_at_first : 1;
    ++round_;
    asked_at_ = send_at_ = now;
    round_at_ = now + std::max(options_.interval_ms, repeat_ms);
    late_at_ = std::max(round_at_, now + slow_reply_ms);
}

/* The interfaces may have changed since the last time. */
void Browser::Core::send(int64_t now) {
    std::set<std::string> addresses = addresses_;
    if (options_.broadcast) addresses.merge(broadcast_addresses());
    const std::string trouble = socket_.send(addresses, request_.datagram);
    if (!trouble.empty() && trouble != trouble_) tell_trouble(trouble);
    trouble_ = trouble;
    --datagrams_left_;
    send_at_ = now + repeat_ms;
}

void Browser::Core::receive(int64_t now) {
    for (int count = 0; socket_.descriptor() >= 0 && count < replies_at_once; ++count) {
        const std::optional<DiscoverySocket::Received> received = socket_.receive();
        if (!received) return;
        take(*received, now);
    }
}

void Browser::Core::take(const DiscoverySocket::Received &received, int64_t now) {
    std::optional<Device> device = device_from_reply(received.text);
    if (device) take_device(std::move(*device), received.address, now);
}

/* The wrapped key differs with each reply. */
static bool says_the_same(Device a, const Device &b) {
    a.wrapped_key = b.wrapped_key;
    return a.cut == b.cut && std::all_of(std::begin(device_fields), std::end(device_fields),
                                         [&](const DeviceField &f) { return a.*f.text == b.*f.text; });
}

void Browser::Core::take_device(Device device, const std::string &address, int64_t now) {
    const std::string &name = device.serial.empty() ? address : device.serial;
    const bool is_new = !known_.contains(name);
    if (is_new && known_.size() >= devices_most) return;
    Known &known = known_[name];
    known.heard_at = now;
    device.addresses = known.device.addresses;
    if (known.rounds.empty() || !known.rounds.contains(address)) device.addresses.push_back(address);
    known.rounds[address] = round_;
    const bool same = says_the_same(device, known.device);
    known.device = std::move(device);
    if (is_new) tell_news(News::appeared, known.device);
    else if (!same) tell_news(News::changed, known.device);
}

/* Those from which nothing came in this round, if it came from another. */
void Browser::Core::forget_addresses(Known &known) {
    std::vector<std::string> &addresses = known.device.addresses;
    const auto is_silent = [&](const std::string &address) { return known.rounds[address] != round_; };
    if (std::all_of(addresses.begin(), addresses.end(), is_silent)) return;
    const std::string first = addresses.front();
    std::erase_if(addresses, is_silent);
    std::erase_if(known.rounds, [&](const auto &entry) { return entry.second != round_; });
    if (addresses.front() != first) tell_news(News::changed, known.device);
}

void Browser::Core::forget_devices(int64_t now) {
    std::erase_if(known_, [&](const auto &entry) {
        const bool is_gone = is_owed(entry.second) && now >= vanishes_at(entry.second);
        if (is_gone) tell_news(News::vanished, entry.second.device);
        return is_gone;
    });
}

std::vector<Device> Browser::Core::devices() const {
    std::vector<Device> devices;
    for (const auto &[serial, known] : known_) devices.push_back(known.device);
    return devices;
}

Browser::Browser(Loop &loop, BrowserOptions options, BrowserCallbacks callbacks)
    : core_(std::make_shared<Core>(loop.core(), std::move(options), std::move(callbacks))) {
    core_->begin();
}

Browser::~Browser() = default;

std::vector<Device> Browser::devices() const { return core_->devices(); }
void Browser::look_again() { core_->look_again(); }

DiscoveryAnswer ask_device(const std::string &address, const std::string &client_id, const std::string &public_key,
                           int limit_ms, const std::function<bool()> &stop) {
    const DiscoveryRequest request = discovery_request(client_id, public_key);
    if (!request.problem.empty()) return {"", {}, request.problem};
    if (!is_address(address)) return {"", {}, "'" + address + "' is no IPv4 address"};
    DiscoverySocket socket;
    const int64_t end = now_ms() + limit_ms;
    for (int64_t send_at = now_ms(); now_ms() < end;) {
        if (now_ms() >= send_at) {
            const std::string trouble = socket.send({address}, request.datagram);
            if (!trouble.empty()) return {"", {}, trouble};
            send_at += repeat_ms;
        }
        const Waited waited = wait_readable(socket.descriptor(), std::min(end, send_at), stop);
        if (waited == Waited::interrupted) return {};
        const std::optional<DiscoverySocket::Received> received = socket.receive();
        if (!received) continue;
        std::optional<Device> device = device_from_reply(received->text);
        if (device) device->addresses = {received->address};
        return {received->text, std::move(device), ""};
    }
    return {};
}

}  // namespace kesto
