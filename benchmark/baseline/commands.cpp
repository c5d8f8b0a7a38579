// One request, one answer; a change goes to the other clients as the very bytes of the answer.
#include <cstring>

#include <google/protobuf/io/coded_stream.h>

#include "baseline.h"

bool receive_request(void *socket, wire::Message &message) {
    zmq_msg_t received;
    zmq_msg_init(&received);
    bool ok = zmq_msg_recv(&received, socket, ZMQ_DONTWAIT) >= 0;
    google::protobuf::io::CodedInputStream bytes(static_cast<uint8_t *>(zmq_msg_data(&received)),
                                                 static_cast<int>(zmq_msg_size(&received)));
    message.mutable_request()->Clear();  // merging then fills the same request anew, where parsing would make another
    ok = ok && message.MergeFromCodedStream(&bytes);
    zmq_msg_close(&received);
    return ok;
}

void send_bytes(void *socket, const std::string &bytes) { zmq_send(socket, bytes.data(), bytes.size(), 0); }

void send_to_all(Baseline &baseline, const std::string &bytes, const Session *source) {
    zmq_msg_t shared;
    zmq_msg_init_size(&shared, bytes.size());
    memcpy(zmq_msg_data(&shared), bytes.data(), bytes.size());
    for (const auto &[id, session] : baseline.sessions) {
        if (session.get() == source && !source->hears_itself) continue;
        zmq_msg_t message;
        zmq_msg_init(&message);
        zmq_msg_copy(&message, &shared);
        zmq_msg_send(&message, zsock_resolve(session->events), 0);
    }
    zmq_msg_close(&shared);
}

static wire::Status answer_read(const wire::Read &read, wire::Value *answer) {
    g_autoptr(GVariant) value = bus_read(the_baseline, read.flags(), read.key());
    if (value == nullptr) return wire::STATUS_REFUSED;
    answer->set_key(read.key());
    answer->set_signature(g_variant_get_type_string(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        answer->set_text(g_variant_get_string(value, nullptr));
        return wire::STATUS_OK;
    }
    GVariantIter entries;
    g_variant_iter_init(&entries, value);
    const char *key, *text;
    while (g_variant_iter_next(&entries, "{&s&s}", &key, &text)) {
        wire::Pair *pair = answer->add_entries();
        pair->set_key(key);
        pair->set_value(text);
    }
    return wire::STATUS_OK;
}

static wire::Status answer_write(const wire::Write &write, wire::WriteResult *answer) {
    const int result = bus_write(the_baseline, write);
    answer->set_key(write.key());
    answer->set_value(write.value());
    answer->set_type(write.type());
    answer->set_result(result);
    return result < 0 ? wire::STATUS_REFUSED : wire::STATUS_OK;
}

static wire::Status answer_multi_write(const wire::MultiWrite &write, wire::MultiWriteResult *answer) {
    g_autoptr(GVariant) results = bus_multi_write(the_baseline, write);
    if (results == nullptr) return wire::STATUS_REFUSED;
    *answer->mutable_pairs() = write.pairs();
    GVariantIter texts;
    g_variant_iter_init(&texts, results);
    const char *text;
    while (g_variant_iter_next(&texts, "&s", &text)) answer->add_results(text);
    return wire::STATUS_OK;
}

static wire::Status fill_answer(const wire::Request &request, wire::Reply *reply) {
    switch (request.operation_case()) {
        case wire::Request::kRead: return answer_read(request.read(), reply->mutable_value());
        case wire::Request::kWrite: return answer_write(request.write(), reply->mutable_write());
        case wire::Request::kMultiWrite: return answer_multi_write(request.multi_write(), reply->mutable_multi_write());
        case wire::Request::kAuthorize: reply->mutable_authorization()->set_allowed(true); return wire::STATUS_OK;
        default: return wire::STATUS_OK;  // a log-out, or the change counter alone
    }
}

static bool changes_data(const wire::Request &request, wire::Status status) {
    return status == wire::STATUS_OK && (request.has_write() || request.has_multi_write());
}

int on_command(zloop_t *, zmq_pollitem_t *item, void *argument) {
    static wire::Message received, answer;  // made once: what they hold is kept for the next request
    static std::string bytes;
    const auto *session = static_cast<Session *>(argument);
    if (!receive_request(item->socket, received)) return 0;
    const wire::Request &request = received.request();
    wire::Reply *reply = answer.mutable_reply();
    reply->Clear();
    reply->set_client_id(request.client_id());
    reply->set_sequence(request.sequence());
    const wire::Status status = fill_answer(request, reply);
    const bool changed = changes_data(request, status);
    if (changed) the_baseline.change_count.fetch_add(1);
    reply->set_status(status);
    reply->set_change_count(the_baseline.change_count.load());
    answer.SerializeToString(&bytes);
    send_bytes(item->socket, bytes);
    if (changed) send_to_all(the_baseline, bytes, session);
    if (request.has_login()) session_close(the_baseline, session->id);
    return 0;
}
