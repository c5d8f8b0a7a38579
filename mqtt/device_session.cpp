#include "device_session.h"

#include <algorithm>
#include <utility>

#include "clock.h"
#include "log.h"

static constexpr int read_pause_ms = 1000;         // from the end of a whole read to the next
static constexpr int failed_read_pause_ms = 5000;  // the device's data service may be starting
static constexpr int ms_per_s = 1000;
static constexpr int partial_read_pause_ms = 60000;

DeviceSession::DeviceSession(kesto::Loop &loop, const Options &options, Counts &counts, std::string serial,
                             Alarmed alarmed)
    : loop_(loop),
      options_(options),
      serial_(std::move(serial)),
      alarmed_(std::move(alarmed)),
      mirror_(options.branches, counts) {}

kesto::ClientOptions DeviceSession::client_options(const kesto::Device &device) const {
    kesto::ClientOptions client;
    client.login = kesto::login_endpoint(device);
    client.client_id = kesto_client_id(options_);
    client.user = options_.user;
    client.password = options_.password;
    client.longest_pause_ms = options_.longest_pause_s * ms_per_s;
    // The echo of one's own writes stands in the right place among those of others.
    client.flags.discard_my_feedback = false;
    client.flags.hide_secure_info = true;
    if (!device.cut) client.static_discovery = kesto::static_text_of(device);
    return client;
}

void DeviceSession::follow(const kesto::Device &device) {
    kesto::ClientOptions client = client_options(device);
    if (client_ && client.login == login_ && client.static_discovery == static_text_) return;
    forget_client();
    login_ = client.login;
    static_text_ = client.static_discovery;
    kesto::ClientCallbacks callbacks;
    callbacks.notice = [this](kesto::Notice notice, const std::string &why) { take_notice(notice, why); };
    callbacks.published = [this](const kesto::Published &published) { take_published(published); };
    callbacks.value = [this](const kesto::Value &value) { mirror_.set_read(value.key, value.text); };
    client_ = std::make_unique<kesto::Client>(loop_, std::move(client), std::move(callbacks));
}

void DeviceSession::vanish() {
    if (!is_connected()) forget_client();
}

void DeviceSession::forget_client() {
    give_up_reading();
    client_.reset();
    for (const auto &[number, answered] : std::exchange(writes_, {}))
        answered({kesto::Outcome::unknown, "the connection was lost before the answer", {}});
}

void DeviceSession::close(std::function<void()> closed) {
    if (client_) client_->close(std::move(closed));
    else closed();
}

void DeviceSession::take_notice(kesto::Notice notice, const std::string &sentence) {
    say(serial_ + ": " + kesto::notice_text(notice, sentence));
    const bool is_there = notice == kesto::Notice::connected || notice == kesto::Notice::recovered;
    if (notice == kesto::Notice::lost) give_up_reading();
    if (is_there) read_at_ms_ = 0;
    if (is_there || notice == kesto::Notice::read_again) read_wanted_ = true;
}

void DeviceSession::take_published(const kesto::Published &published) {
    if (const auto *change = std::get_if<kesto::Change>(&published)) take_value(change->key, change->value);
    if (const auto *alarm = std::get_if<kesto::Alarm>(&published)) alarmed_(*alarm);
    if (const auto *echo = std::get_if<kesto::Reply>(&published)) take_echo(*echo);
}

void DeviceSession::take_echo(const kesto::Reply &echo) {
    if (echo.status != kesto::Status::ok) return;
    if (const auto *write = std::get_if<kesto::WriteResult>(&echo.result)) {
        // What a lock makes of the value is the device's business.
        if ((write->type & kesto::write_is_lock) != 0) read_wanted_ = true;
        else take_value(write->key, write->value);
    }
    const auto *several = std::get_if<kesto::MultiWriteResult>(&echo.result);
    if (several == nullptr) return;
    for (size_t i = 0; i < std::min(several->pairs.size(), several->results.size()); ++i) {
        if (several->results[i] == kesto::pair_was_written) take_value(several->pairs[i].key, several->pairs[i].value);
    }
}

void DeviceSession::take_value(const std::string &key, const std::string &value) {
    if (mirror_.set(key, value) || !is_connected()) return;
    client_->ask(kesto::Read{key}, [this, key](const kesto::Answer &answer) {
        const auto *read = answer.get<kesto::Value>();
        if (answer && read != nullptr) mirror_.set_read(key, read->text);
    });
}

void DeviceSession::write(const std::string &key, const std::string &value, kesto::Answered answered) {
    if (!is_connected()) {
        answered({kesto::Outcome::not_sent, "the device is away", {}});
        return;
    }
    const std::uint64_t number = ++write_count_;
    writes_[number] = std::move(answered);
    client_->ask(kesto::Write{key, value}, [this, number](const kesto::Answer &answer) {
        const auto found = writes_.extract(number);
        if (!found.empty()) found.mapped()(answer);
    });
}

void DeviceSession::go_on(std::int64_t now_ms) {
    if (is_fresh_ && now_ms >= read_anyway_at_ms_) read_wanted_ = true;
    if (read_wanted_ && !is_reading_ && is_connected() && now_ms >= read_at_ms_) begin_reading();
}

void DeviceSession::give_up_reading() {
    ++reading_;
    is_fresh_ = is_reading_ = false;
}

void DeviceSession::begin_reading() {
    read_wanted_ = false;
    is_reading_ = true;
    ++reading_;
    read_.clear();
    branches_read_ = 0;
    mirror_.begin_reading();
    ask_branch(0);
}

void DeviceSession::ask_branch(size_t index) {
    client_->ask(kesto::Read{options_.branches[index], kesto::read_branch},
                 [this, index, reading = reading_](const kesto::Answer &answer) {
                     if (reading == reading_) take_branch(index, answer);
                 });
}

void DeviceSession::take_branch(size_t index, const kesto::Answer &answer) {
    const auto *value = answer.get<kesto::Value>();
    if (answer && value != nullptr) {
        ++branches_read_;
        read_.insert(read_.end(), value->entries.begin(), value->entries.end());
    } else if (answer.sentence != problem_) {
        problem_ = answer.sentence;
        say(serial_ + ": " + options_.branches[index] + " cannot be read: " + problem_);
    }
    if (index + 1 < options_.branches.size() && is_connected()) ask_branch(index + 1);
    else end_reading();
}

/* A branch that this device lacks is no reason to show nothing; but no branch at all means that it is starting. */
void DeviceSession::end_reading() {
    is_reading_ = false;
    is_fresh_ = branches_read_ > 0;
    const bool is_all = branches_read_ == options_.branches.size();
    if (is_fresh_) mirror_.take_whole(read_);
    if (is_all) problem_.clear();
    else read_wanted_ = true;
    const int pause_ms = is_all ? read_pause_ms : is_fresh_ ? partial_read_pause_ms : failed_read_pause_ms;
    const std::int64_t now_ms = clock_ms();
    read_at_ms_ = now_ms + pause_ms;
    read_anyway_at_ms_ = now_ms + std::int64_t{options_.read_every_s} * ms_per_s;
    read_.clear();
}
