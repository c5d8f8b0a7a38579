/* device.h - one device of the hall on the broker: its values, alarms and availability, and sets for it. It has a
 * connection to the broker of its own, whose last will says that the device is offline. */
#pragma once

#include <deque>

#include <kesto-client/device.h>

#include "broker_connection.h"
#include "counts.h"
#include "device_session.h"
#include "topics.h"

constexpr const char *online = "online", *offline = "offline";

class MirroredDevice {
  public:
    /* All but `serial` must outlive it. */
    MirroredDevice(kesto::Loop &loop, const Options &options, NameLookup &lookup, Counts &counts,
                   const std::string &serial);

    void follow(const kesto::Device &device); /* it was found, or says something else of itself */
    DeviceSession &session() { return session_; }
    BrokerConnection &broker() { return broker_; }

    /* When something may have happened: reads when it is time to, publishes what waits. */
    void go_on(std::int64_t now_ms);

  private:
    struct Set {
        std::string key;
        std::optional<std::string> answer_topic, correlation;
    };

    BrokerCallbacks broker_callbacks();
    void broker_connected();
    void broker_lost(const std::string &why);
    void take_message(const Message &message);
    void take_availability(const Message &message);
    void take_holder(const Message &message);
    void take_set(const std::string &key, const Message &message);
    void take_alarm(const kesto::Alarm &alarm);
    void drop_old_alarms();
    void answer_set(const Set &set, const kesto::Answer &answer);
    void answer(const Set &set, const std::string &outcome, const std::string &reason);

    void stop_looking(std::int64_t now_ms);
    bool publish_next();
    void publish_first(std::deque<Publication> &waiting);
    void publish_info();
    void publish_holder();
    void publish_next_key();
    void say_all_again();
    void publish_availability(const std::string &availability);
    void publish(const Publication &publication);
    std::string topic(const std::string &rest) const { return device_topic(serial_, rest); }

    const Options &options_;
    Counts &counts_;
    const std::string serial_;
    DeviceSession session_;
    BrokerConnection broker_;

    std::optional<std::string> said_;  // of the availability, on this connection
    bool was_connected_ = false;       // until the loss was told
    bool is_contradicted_ = false;     // by somebody else's message
    std::string info_;                 // JSON
    bool info_waits_ = false, holder_waits_ = false;
    std::deque<Publication> alarms_, answers_;
    int sets_under_way_ = 0;
    std::string rival_, complaint_;  // said last
    std::int64_t availability_at_ms_ = 0;
    std::optional<std::int64_t> look_until_ms_;  // at what the broker has from earlier
};
