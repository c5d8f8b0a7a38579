#include "wire.h"

#include <google/protobuf/stubs/logging.h>

#include "access.pb.h"
#include "text.h"

namespace kesto {

namespace wire = access::v1;

static constexpr size_t longest_frame_bytes = size_t{10} << 20;  // the device closes the connection on a longer one

/* Fills in a request, and notices a text that must not be sent. */
class Encoder {
  public:
    explicit Encoder(wire::Request &to) : to_(to) {}

    void operator()(std::monostate) {}
    void operator()(const Login &login);
    void operator()(const Read &read);
    void operator()(const Write &write);
    void operator()(const MultiWrite &write);
    void operator()(const Authorize &question);
    void operator()(Discovery) { to_.mutable_discovery(); }
    void operator()(ChangeCount) { to_.mutable_change_count(); }

    const std::string &text(const std::string &text) {
        if (problem_.empty() && !is_text(text)) problem_ = "a text holds a NUL byte or is not UTF-8";
        return text;
    }
    const std::string &problem() const { return problem_; }

  private:
    wire::Request &to_;
    std::string problem_;
};

void Encoder::operator()(const Login &login) {
    wire::Login &fields = *to_.mutable_login();
    if (login.user_name) fields.set_user_name(text(*login.user_name));
    if (login.password) fields.set_password(text(*login.password));
    if (login.static_discovery) fields.set_discovery(text(*login.static_discovery));
    if (!login.user_name && !login.password) return;  // a log-out
    fields.set_monitor(login.flags.monitor);
    fields.set_discard_my_feedback(login.flags.discard_my_feedback);
    fields.set_hide_secure_info(login.flags.hide_secure_info);
    fields.set_no_lock(login.flags.no_lock);
}

void Encoder::operator()(const Read &read) {
    to_.mutable_read()->set_key(text(read.key));
    to_.mutable_read()->set_flags(read.flags);
}

void Encoder::operator()(const Write &write) {
    wire::Write &fields = *to_.mutable_write();
    fields.set_key(text(write.key));
    if (write.value) fields.set_value(text(*write.value));
    fields.set_type(write.type);
}

void Encoder::operator()(const MultiWrite &write) {
    to_.mutable_multi_write();
    for (const Pair &pair : write.pairs) {
        wire::Pair &fields = *to_.mutable_multi_write()->add_pairs();
        fields.set_key(text(pair.key));
        fields.set_value(text(pair.value));
    }
}

void Encoder::operator()(const Authorize &question) {
    to_.mutable_authorize()->set_operation(question.operation);
    to_.mutable_authorize()->set_key(text(question.key));
    to_.mutable_authorize()->set_recursive(question.recursive);
}

Encoded encode_request(const Request &request) {
    wire::Message message;
    wire::Request &fields = *message.mutable_request();
    Encoder encoder(fields);
    fields.set_client_id(encoder.text(request.client_id));
    fields.set_sequence(request.sequence);
    std::visit(encoder, request.operation);
    if (!encoder.problem().empty()) return {"", encoder.problem()};
    if (message.ByteSizeLong() > longest_frame_bytes) return {"", "the request is larger than 10 MiB"};
    return {message.SerializeAsString(), ""};
}

static std::vector<Pair> pairs_of(const google::protobuf::RepeatedPtrField<wire::Pair> &fields) {
    std::vector<Pair> pairs;
    pairs.reserve(static_cast<size_t>(fields.size()));
    for (const wire::Pair &pair : fields) pairs.push_back({pair.key(), pair.value()});
    return pairs;
}

static decltype(Reply::result) result_of(const wire::Reply &reply) {
    switch (reply.result_case()) {
        case wire::Reply::kSession: return Ports{reply.session().command_port(), reply.session().event_port()};
        case wire::Reply::kValue: {
            const wire::Value &value = reply.value();
            return Value{value.key(), value.signature(), value.text(), pairs_of(value.entries())};
        }
        case wire::Reply::kWrite: {
            const wire::WriteResult &write = reply.write();
            return WriteResult{write.key(), write.value(), write.type(), write.result()};
        }
        case wire::Reply::kMultiWrite: {
            const auto &results = reply.multi_write().results();
            return MultiWriteResult{
                pairs_of(reply.multi_write().pairs()), {results.begin(), results.end()}
            };
        }
        case wire::Reply::kAuthorization: return Authorization{reply.authorization().allowed()};
        case wire::Reply::kDiscovery: return StaticDiscovery{reply.discovery()};
        case wire::Reply::RESULT_NOT_SET: break;
    }
    return {};
}

static Reply reply_of(const wire::Reply &reply) {
    return {reply.client_id(), reply.sequence(), static_cast<Status>(reply.status()), reply.change_count(),
            result_of(reply)};
}

static Published event_of(const wire::Event &event) {
    switch (event.kind_case()) {
        case wire::Event::kAlarm: {
            const wire::Alarm &alarm = event.alarm();
            return Alarm{alarm.code(), alarm.active(), alarm.channel(), alarm.value()};
        }
        case wire::Event::kChange: {
            const wire::Change &change = event.change();
            Change record{change.key(), change.value(), {}};
            if (change.has_type()) record.type = change.type();
            return record;
        }
        case wire::Event::kSnapshotLoaded: return SnapshotLoaded{event.snapshot_loaded().slot()};
        case wire::Event::kSpeakerPresetLoaded: return SpeakerPresetLoaded{};
        case wire::Event::KIND_NOT_SET: break;
    }
    return {};
}

static std::optional<wire::Message> parse(const std::string &frame) {
    const google::protobuf::LogSilencer quiet;  // what is no message is told by the result
    wire::Message message;
    if (!message.ParseFromString(frame)) return std::nullopt;
    return message;
}

std::optional<std::string> encode(const Request &request) {
    Encoded encoded = encode_request(request);
    if (!encoded.problem.empty()) return std::nullopt;
    return std::move(encoded.frame);
}

std::optional<Reply> decode_reply(const std::string &frame) {
    const std::optional<wire::Message> message = parse(frame);
    if (!message || !message->has_reply()) return std::nullopt;
    return reply_of(message->reply());
}

std::optional<Published> decode_published(const std::string &frame) {
    const std::optional<wire::Message> message = parse(frame);
    if (!message) return std::nullopt;
    if (message->has_reply()) return reply_of(message->reply());
    if (message->has_event()) return event_of(message->event());
    return std::nullopt;
}

std::string status_name(Status status) { return wire::Status_Name(static_cast<wire::Status>(status)); }

}  // namespace kesto
