/* broker_connection.h - one connection to the broker, as a client of its own with a last will.
 *
 * It does not wait, and the broker sends it no message larger than 1 MiB. Its callbacks come from serve() and
 * look_after() alone. A message that was not acknowledged when the connection was lost is forgotten, unless it was to
 * be kept: whoever published it says anew what holds. */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>

#include "name_lookup.h"
#include "options.h"

struct mosquitto;

struct Publication {
    std::string topic, payload;
    bool retained = false;
    std::optional<std::string> correlation = {};
    bool keep = false;  // for take_unacknowledged
};

struct Message {
    std::string topic, payload;
    bool retained = false;  // it was there before the subscription
    std::optional<std::string> answer_topic = {}, correlation = {};
};

struct BrokerCallbacks {
    std::function<void()> connected;
    std::function<void(const std::string &why)> lost; /* or an attempt failed; further attempts follow */
    std::function<void(const Message &message)> message;
    std::function<void(const std::string &why)> refused; /* a publication, by the broker */
};

class BrokerConnection {
  public:
    /* `options` and `lookup`, of the broker's name, must outlive it. When the connection is lost the broker publishes
     * `will`, retained. */
    BrokerConnection(const Options &options, NameLookup &lookup, std::string client_id, Publication will,
                     BrokerCallbacks callbacks);
    ~BrokerConnection();
    BrokerConnection(const BrokerConnection &) = delete;
    BrokerConnection &operator=(const BrokerConnection &) = delete;

    bool is_connected() const { return stage_ == Stage::connected; }
    void seek(std::int64_t now_ms);    /* begins an attempt when there is no connection and the pause is over */
    void hurry() { retry_at_ms_ = 0; } /* the pause is over */
    void close();                      /* the broker publishes the will; nothing is told */

    pollfd to_poll() const; /* descriptor -1 when there is nothing to poll */
    void serve(short events, std::int64_t now_ms);
    void look_after(std::int64_t now_ms); /* each second or more often */

    /* Delivered at least once. Only while can_publish(); empty, or why this publication is not possible. */
    std::string publish(const Publication &publication);
    bool can_publish() const { return is_connected() && !broken_ && in_flight_ < window; }
    bool is_idle() const { return in_flight_ == 0; } /* all that was published has been acknowledged */

    /* What was published to be kept, when the connection was lost before the broker had it; in its order. */
    std::vector<Publication> take_unacknowledged();

    void subscribe(const std::string &topic); /* other clients' messages alone */
    void subscribe_with_own(const std::string &topic);
    void unsubscribe(const std::string &topic);

  private:
    enum class Stage { away, connecting, connected };
    static constexpr int window = 20;  // publications that are not acknowledged yet

    struct Listeners; /* the library's callbacks */
    void begin_attempt(std::int64_t now_ms);
    std::string set_up();
    std::string set_up_tls();
    int set_will();
    int set_largest_message();
    void check(int result);
    void drop_when_broken(std::int64_t now_ms);
    void pause(std::int64_t now_ms);
    int longest_pause_ms() const;

    const Options &options_;
    NameLookup &lookup_;
    const std::string client_id_;
    const Publication will_;
    const BrokerCallbacks callbacks_;

    std::unique_ptr<mosquitto, void (*)(mosquitto *)> handle_;
    Stage stage_ = Stage::away;
    std::optional<std::string> broken_;  // why the connection is to be dropped
    std::string detail_;                 // what the library has said to that
    int in_flight_ = 0;
    std::vector<std::pair<int, Publication>> kept_;  // with the library's number; not acknowledged yet
    std::int64_t retry_at_ms_ = 0, answer_until_ms_ = 0, connected_at_ms_ = 0;
    int pause_ms_;
};
