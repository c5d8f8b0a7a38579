#include "broker_connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <utility>

static constexpr int keepalive_s = 15;
static constexpr int connect_limit_ms = 20000;
static constexpr int first_pause_ms = 1000, ms_per_s = 1000;
static constexpr std::uint32_t largest_message_bytes = 1024 * 1024;  // else one message can take all memory
static constexpr int no_port = -1;
static constexpr int at_least_once = 1, at_most_once = 0;
static constexpr const char *authorities_of_machine = "/etc/ssl/certs";

using Properties =
    std::unique_ptr<mosquitto_property,
                    decltype([](mosquitto_property *properties) { mosquitto_property_free_all(&properties); })>;

static std::string text_of(int result) {
    if (result == MOSQ_ERR_KEEPALIVE) return "no sign of life";
    return result == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(result);
}

static const char *text_or_none(const std::string &text) { return text.empty() ? nullptr : text.c_str(); }

static std::optional<std::string> text_property(const mosquitto_property *properties, int which) {
    char *text = nullptr;
    if (mosquitto_property_read_string(properties, which, &text, false) == nullptr) return {};
    std::string copy = text;
    free(text);
    return copy;
}

static std::optional<std::string> binary_property(const mosquitto_property *properties, int which) {
    void *bytes = nullptr;
    uint16_t length = 0;
    if (mosquitto_property_read_binary(properties, which, &bytes, &length, false) == nullptr) return {};
    std::string copy(static_cast<const char *>(bytes), length);
    free(bytes);
    return copy;
}

/* They are called within the library's calls, so that nothing may be destroyed here. */
struct BrokerConnection::Listeners {
    static BrokerConnection &self(void *object) { return *static_cast<BrokerConnection *>(object); }

    static void connected(mosquitto *, void *object, int code, int, const mosquitto_property *) {
        if (code != 0) self(object).broken_ = std::string("refused: ") + mosquitto_reason_string(code);
        else self(object).stage_ = Stage::connected;
    }

    static void disconnected(mosquitto *, void *object, int code, const mosquitto_property *) {
        BrokerConnection &connection = self(object);
        if (connection.broken_) return;
        connection.broken_ = code >= MQTT_RC_UNSPECIFIED ? mosquitto_reason_string(code) : text_of(code);
    }

    /* For instance what OpenSSL has against a certificate, which no return code tells. */
    static void logged(mosquitto *, void *object, int level, const char *text) {
        if (level == MOSQ_LOG_ERR) self(object).detail_ = text;
    }

    static void message(mosquitto *, void *object, const mosquitto_message *came,
                        const mosquitto_property *properties) {
        Message message = {came->topic, {}, came->retain};
        if (came->payloadlen > 0)
            message.payload.assign(static_cast<const char *>(came->payload), static_cast<size_t>(came->payloadlen));
        message.answer_topic = text_property(properties, MQTT_PROP_RESPONSE_TOPIC);
        message.correlation = binary_property(properties, MQTT_PROP_CORRELATION_DATA);
        self(object).callbacks_.message(message);
    }

    static void published(mosquitto *, void *object, int number, int code, const mosquitto_property *) {
        BrokerConnection &connection = self(object);
        --connection.in_flight_;
        std::erase_if(connection.kept_, [&](const auto &kept) { return kept.first == number; });
        if (code >= MQTT_RC_UNSPECIFIED) connection.callbacks_.refused(mosquitto_reason_string(code));
    }
};

BrokerConnection::BrokerConnection(const Options &options, NameLookup &lookup, std::string client_id, Publication will,
                                   BrokerCallbacks callbacks)
    : options_(options),
      lookup_(lookup),
      client_id_(std::move(client_id)),
      will_(std::move(will)),
      callbacks_(std::move(callbacks)),
      handle_(nullptr, mosquitto_destroy),
      pause_ms_(first_pause_ms) {}

BrokerConnection::~BrokerConnection() { close(); }

void BrokerConnection::close() {
    if (is_connected()) mosquitto_disconnect_v5(handle_.get(), MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
    stage_ = Stage::away;
    handle_.reset();
}

int BrokerConnection::set_will() {
    return mosquitto_will_set_v5(handle_.get(), will_.topic.c_str(), static_cast<int>(will_.payload.size()),
                                 will_.payload.data(), at_least_once, true, nullptr);
}

/* Only the call that waits for its connection takes properties. They hold for the handle's further connections, and
 * with a port that is none there is nothing to wait for. */
int BrokerConnection::set_largest_message() {
    mosquitto_property *list = nullptr;
    mosquitto_property_add_int32(&list, MQTT_PROP_MAXIMUM_PACKET_SIZE, largest_message_bytes);
    const Properties properties(list);
    const int result = mosquitto_connect_bind_v5(handle_.get(), "", no_port, keepalive_s, nullptr, list);
    return result == MOSQ_ERR_INVAL ? MOSQ_ERR_SUCCESS : result;
}

/* Why it cannot be; empty when all is set. */
std::string BrokerConnection::set_up() {
    mosquitto *const handle = handle_.get();
    if (handle == nullptr) return strerror(errno);
    mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(handle, Listeners::connected);
    mosquitto_disconnect_v5_callback_set(handle, Listeners::disconnected);
    mosquitto_message_v5_callback_set(handle, Listeners::message);
    mosquitto_publish_v5_callback_set(handle, Listeners::published);
    mosquitto_log_callback_set(handle, Listeners::logged);
    int result = set_largest_message();
    if (result == MOSQ_ERR_SUCCESS) result = set_will();
    if (result == MOSQ_ERR_SUCCESS && !options_.broker_user.empty())
        result =
            mosquitto_username_pw_set(handle, options_.broker_user.c_str(), text_or_none(options_.broker_password));
    if (result != MOSQ_ERR_SUCCESS) return text_of(result);
    return uses_tls(options_) ? set_up_tls() : "";
}

std::string BrokerConnection::set_up_tls() {
    const char *ca_folder = options_.ca_file.empty() ? authorities_of_machine : nullptr;
    const int result =
        mosquitto_tls_set(handle_.get(), text_or_none(options_.ca_file), ca_folder, text_or_none(options_.certificate),
                          text_or_none(options_.private_key), nullptr);
    if (result == MOSQ_ERR_INVAL) return "a file for TLS cannot be read, or the certificate has no key with it";
    return result == MOSQ_ERR_SUCCESS ? "" : text_of(result);
}

void BrokerConnection::seek(std::int64_t now_ms) {
    if (stage_ == Stage::away && now_ms >= retry_at_ms_ && lookup_.is_quick()) begin_attempt(now_ms);
}

/* A new handle each time: the old one would send again what it holds, however old that is by now. */
void BrokerConnection::begin_attempt(std::int64_t now_ms) {
    stage_ = Stage::connecting;
    in_flight_ = 0;
    broken_.reset();
    detail_.clear();
    answer_until_ms_ = now_ms + connect_limit_ms;
    handle_.reset(mosquitto_new(client_id_.c_str(), true, this));
    const std::string problem = set_up();
    if (!problem.empty()) broken_ = problem;
    else check(mosquitto_connect_async(handle_.get(), options_.broker.c_str(), broker_port(options_), keepalive_s));
    drop_when_broken(now_ms);
}

void BrokerConnection::check(int result) {
    if (result != MOSQ_ERR_SUCCESS && result != MOSQ_ERR_CONN_PENDING && !broken_) broken_ = text_of(result);
}

void BrokerConnection::drop_when_broken(std::int64_t now_ms) {
    if (!broken_) return;
    const std::string why = detail_.empty() ? *broken_ : *broken_ + " (" + detail_ + ")";
    if (is_connected() && now_ms - connected_at_ms_ >= longest_pause_ms()) pause_ms_ = first_pause_ms;
    stage_ = Stage::away;
    broken_.reset();
    handle_.reset();
    pause(now_ms);
    callbacks_.lost(why);
}

int BrokerConnection::longest_pause_ms() const { return options_.longest_pause_s * ms_per_s; }

void BrokerConnection::pause(std::int64_t now_ms) {
    retry_at_ms_ = now_ms + pause_ms_;
    pause_ms_ = std::min(2 * pause_ms_, longest_pause_ms());
}

pollfd BrokerConnection::to_poll() const {
    if (stage_ == Stage::away) return {-1, 0, 0};
    const int events = mosquitto_want_write(handle_.get()) ? POLLIN | POLLOUT : POLLIN;
    return {mosquitto_socket(handle_.get()), static_cast<short>(events), 0};
}

void BrokerConnection::serve(short events, std::int64_t now_ms) {
    if (stage_ == Stage::away || events == 0) return;
    const bool was_connected = is_connected();
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) check(mosquitto_loop_read(handle_.get(), 1));
    if (!broken_ && (events & POLLOUT) != 0) check(mosquitto_loop_write(handle_.get(), 1));
    if (!broken_ && is_connected() && !was_connected) {
        connected_at_ms_ = now_ms;
        callbacks_.connected();
    }
    drop_when_broken(now_ms);
}

void BrokerConnection::look_after(std::int64_t now_ms) {
    if (stage_ == Stage::away) return;
    check(mosquitto_loop_misc(handle_.get()));
    if (stage_ == Stage::connecting && now_ms >= answer_until_ms_ && !broken_) broken_ = "no answer";
    drop_when_broken(now_ms);
}

/* Whether the publication itself is at fault, and not the connection. */
static bool is_fault_of_message(int result) {
    return result == MOSQ_ERR_INVAL || result == MOSQ_ERR_MALFORMED_UTF8 || result == MOSQ_ERR_PAYLOAD_SIZE ||
           result == MOSQ_ERR_OVERSIZE_PACKET || result == MOSQ_ERR_RETAIN_NOT_SUPPORTED ||
           result == MOSQ_ERR_QOS_NOT_SUPPORTED;
}

std::string BrokerConnection::publish(const Publication &publication) {
    mosquitto_property *list = nullptr;
    if (publication.correlation)
        mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, publication.correlation->data(),
                                      static_cast<uint16_t>(publication.correlation->size()));
    const Properties properties(list);
    const std::string &payload = publication.payload;
    int number = 0;
    const int result =
        mosquitto_publish_v5(handle_.get(), &number, publication.topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), at_least_once, publication.retained, properties.get());
    if (is_fault_of_message(result)) return text_of(result);
    ++in_flight_;
    if (publication.keep) kept_.emplace_back(number, publication);
    check(result);
    return "";
}

std::vector<Publication> BrokerConnection::take_unacknowledged() {
    std::vector<Publication> publications;
    for (auto &[number, publication] : std::exchange(kept_, {})) publications.push_back(std::move(publication));
    return publications;
}

void BrokerConnection::subscribe(const std::string &topic) {
    check(mosquitto_subscribe_v5(handle_.get(), nullptr, topic.c_str(), at_least_once, MQTT_SUB_OPT_NO_LOCAL, nullptr));
}

void BrokerConnection::subscribe_with_own(const std::string &topic) {
    check(mosquitto_subscribe_v5(handle_.get(), nullptr, topic.c_str(), at_most_once, 0, nullptr));
}

void BrokerConnection::unsubscribe(const std::string &topic) {
    check(mosquitto_unsubscribe(handle_.get(), nullptr, topic.c_str()));
}
