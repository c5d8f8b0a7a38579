/* What is to be published is decided anew each time that the connection takes another message, so that little waits
 * and the latest value goes out. The availability tells the truth first when it gets worse, and last when it gets
 * better. */
#include "device.h"

#include <nlohmann/json.hpp>

#include "clock.h"
#include "log.h"

static constexpr size_t alarms_most = 100, answers_most = 100;  // that wait for the broker
static constexpr int sets_most = 100;                           // that wait for the device
static constexpr int repair_pause_ms = 10000;
static constexpr int look_ms = 10000;  // at retained values, after a connection was made

static std::string json_text(const nlohmann::ordered_json &json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/* The wrapped key is for its receiver alone, and another one each time. */
static std::string info_json(const kesto::Device &device) {
    nlohmann::ordered_json object;
    for (const kesto::DeviceField &field : kesto::device_fields) {
        if (field.text != &kesto::Device::wrapped_key) object[field.name] = device.*field.text;
    }
    object["addresses"] = device.addresses;
    return json_text(object);
}

MirroredDevice::MirroredDevice(kesto::Loop &loop, const Options &options, NameLookup &lookup, Counts &counts,
                               const std::string &serial)
    : options_(options),
      counts_(counts),
      serial_(serial),
      session_(loop, options, counts, serial, [this](const kesto::Alarm &alarm) { take_alarm(alarm); }),
      broker_(options, lookup, kesto_client_id(options) + "-" + serial, {topic("availability"), offline, true},
              broker_callbacks()) {}

BrokerCallbacks MirroredDevice::broker_callbacks() {
    BrokerCallbacks callbacks;
    callbacks.connected = [this] { broker_connected(); };
    callbacks.lost = [this](const std::string &why) { broker_lost(why); };
    callbacks.message = [this](const Message &message) { take_message(message); };
    callbacks.refused = [this](const std::string &why) {
        ++counts_.not_publishable;
        if (complaint_ != why) say(serial_ + ": the broker refuses a message: " + why);
        complaint_ = why;
    };
    return callbacks;
}

void MirroredDevice::follow(const kesto::Device &device) {
    session_.follow(device);
    const std::string info = info_json(device);
    if (info == info_) return;
    info_ = info;
    info_waits_ = true;
}

/* The broker may have kept anything from earlier, or nothing. */
void MirroredDevice::broker_connected() {
    was_connected_ = true;
    said_.reset();
    session_.mirror().start_over();
    info_waits_ = holder_waits_ = true;
    if (!options_.read_only) broker_.subscribe(topic("set/#"));
    broker_.subscribe(topic("availability"));
    broker_.subscribe(topic("bridge"));
    broker_.subscribe_with_own(topic("state/#"));
    look_until_ms_ = clock_ms() + look_ms;
}

/* That a connection was lost is the bridge's to say, once for all devices. */
void MirroredDevice::broker_lost(const std::string &why) {
    const bool was_attempt = !was_connected_;
    if (was_attempt && complaint_ != why) say(serial_ + ": broker: " + why);
    if (was_attempt) complaint_ = why;
    was_connected_ = false;
    look_until_ms_.reset();
    counts_.answers_dropped += answers_.size();
    answers_.clear();
    const std::vector<Publication> alarms = broker_.take_unacknowledged();
    alarms_.insert(alarms_.begin(), alarms.begin(), alarms.end());
    drop_old_alarms();
}

void MirroredDevice::take_message(const Message &message) {
    if (const auto set_key = key_of_topic(serial_, "set", message.topic)) take_set(*set_key, message);
    else if (message.topic == topic("set")) take_set("", message);  // which the device refuses
    else if (message.topic == topic("availability")) take_availability(message);
    else if (message.topic == topic("bridge")) take_holder(message);
    else if (!message.retained || message.payload.empty()) return;
    else if (const auto key = key_of_topic(serial_, "state", message.topic)) session_.mirror().seen_on_broker(*key);
}

/* Another bridge's last will, for instance. Not at once: two bridges that do not agree would never come to an end. */
void MirroredDevice::take_availability(const Message &message) {
    if (!message.retained && said_ && message.payload != *said_) is_contradicted_ = true;
}

/* What is retained may be from a bridge that had the device before. One that is there answers. */
void MirroredDevice::take_holder(const Message &message) {
    if (message.retained || message.payload == options_.id) return;
    is_contradicted_ = true;
    if (message.payload == rival_) return;
    rival_ = message.payload;
    say(serial_ + ": bridge " + rival_ + " publishes this device, too; only one should");
    holder_waits_ = true;
}

void MirroredDevice::take_set(const std::string &key, const Message &message) {
    Set set = {key, message.answer_topic, message.correlation};
    if (set.answer_topic && is_below_root(*set.answer_topic)) {
        // The answer would be taken for the bridge's own word, or for a set of another device.
        set.answer_topic.reset();
        answer(set, "refused", "a set whose answer is to go below kesto/ is not taken");
    } else if (message.retained) {
        answer(set, "refused", "a retained set is not taken, it would be carried out again and again");
    } else if (sets_under_way_ >= sets_most) {
        answer(set, "refused", "too many sets are waiting");
    } else {
        ++sets_under_way_;
        session_.write(key, message.payload, [this, set](const kesto::Answer &answer) {
            --sets_under_way_;
            answer_set(set, answer);
        });
    }
}

void MirroredDevice::answer_set(const Set &set, const kesto::Answer &answered) {
    switch (answered.outcome) {
        case kesto::Outcome::done: answer(set, "done", ""); break;
        case kesto::Outcome::unknown:
        case kesto::Outcome::nonsense:
        case kesto::Outcome::interrupted: answer(set, "unknown", answered.sentence); break;
        default: answer(set, "refused", answered.sentence); break;
    }
}

void MirroredDevice::answer(const Set &set, const std::string &outcome, const std::string &reason) {
    if (outcome != "done") {
        ++counts_.sets_not_done;
        say(serial_ + ": set " + set.key + ": " + outcome + ": " + reason);
    }
    if (!set.answer_topic) return;
    if (answers_.size() >= answers_most) {
        ++counts_.answers_dropped;
        return;
    }
    nlohmann::ordered_json object = {
        {"outcome", outcome}
    };
    if (!reason.empty()) object["reason"] = reason;
    answers_.push_back({*set.answer_topic, json_text(object), false, set.correlation});
}

void MirroredDevice::take_alarm(const kesto::Alarm &alarm) {
    nlohmann::ordered_json object = {
        {"code",   alarm.code        },
        {"active", alarm.active      },
        {"value",  alarm.value       },
        {"time",   time_of_day_text()}
    };
    alarms_.push_back({topic("alarm/" + std::to_string(alarm.channel)), json_text(object), false, {}, true});
    drop_old_alarms();
}

void MirroredDevice::drop_old_alarms() {
    for (; alarms_.size() > alarms_most; ++counts_.alarms_dropped) alarms_.pop_front();
}

/* Own messages come, too, since those of an earlier run are the broker's to leave out otherwise. */
void MirroredDevice::stop_looking(std::int64_t now_ms) {
    if (!look_until_ms_ || now_ms < *look_until_ms_) return;
    look_until_ms_.reset();
    broker_.unsubscribe(topic("state/#"));
}

void MirroredDevice::go_on(std::int64_t now_ms) {
    session_.go_on(now_ms);
    stop_looking(now_ms);
    while (broker_.can_publish() && publish_next()) {
    }
}

/* False when nothing waits. */
bool MirroredDevice::publish_next() {
    const bool is_live = session_.is_live();
    if (!said_ || (!is_live && *said_ != offline)) publish_availability(offline);
    else if (!answers_.empty()) publish_first(answers_);
    else if (holder_waits_) publish_holder();
    else if (info_waits_) publish_info();
    else if (!alarms_.empty()) publish_first(alarms_);
    else if (session_.mirror().waits()) publish_next_key();
    else if (is_live && *said_ != online && broker_.is_idle()) publish_availability(online);
    else if (is_contradicted_ && clock_ms() - availability_at_ms_ >= repair_pause_ms) say_all_again();
    else return false;
    return true;
}

void MirroredDevice::publish_first(std::deque<Publication> &waiting) {
    const Publication first = std::move(waiting.front());
    waiting.pop_front();
    publish(first);
}

void MirroredDevice::publish_holder() {
    holder_waits_ = false;
    publish({topic("bridge"), options_.id, true});
}

void MirroredDevice::publish_info() {
    info_waits_ = false;
    publish({topic("info"), info_, true});
}

/* Whoever contradicts the availability may have removed values, too. */
void MirroredDevice::say_all_again() {
    is_contradicted_ = false;
    session_.mirror().start_over();
    publish({topic("availability"), *said_, true});
    availability_at_ms_ = clock_ms();
}

void MirroredDevice::publish_availability(const std::string &availability) {
    said_ = availability;
    availability_at_ms_ = clock_ms();
    publish({topic("availability"), *said_, true});
}

void MirroredDevice::publish_next_key() {
    const kesto::Pair pair = session_.mirror().take_next();
    const std::optional<std::string> state = state_topic(serial_, pair.key);
    if (state) {
        publish({*state, pair.value, true});
    } else {
        ++counts_.not_publishable;
        say(serial_ + ": " + pair.key + " cannot be a topic");
    }
}

void MirroredDevice::publish(const Publication &publication) {
    const std::string problem = broker_.publish(publication);
    if (problem.empty()) return;
    ++counts_.not_publishable;
    say(serial_ + ": " + publication.topic + " cannot be published: " + problem);
}
