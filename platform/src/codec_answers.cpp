// Carries a decoded request out: one function per operation, each of which calls its callback and fills the reply.
#include <string_view>
#include <vector>

#include "codec.h"
#include "variant.h"

static constexpr std::string_view secret_endings[] = {"Password", "Passphrase", "Secret", "Pin"};
static constexpr const char *secret_mask = "********";

// The ports of a login's "(a{sv})".
static bool read_ports(GVariant *login, wire::Session *session) {
    if (!g_variant_is_of_type(login, G_VARIANT_TYPE("(a{sv})"))) return false;
    g_autoptr(GVariant) entries = g_variant_get_child_value(login, 0);
    g_autoptr(GVariant) ports = g_variant_lookup_value(entries, "ports", G_VARIANT_TYPE("(ii)"));
    if (ports == nullptr) return false;
    int32_t command_port = 0, event_port = 0;
    g_variant_get(ports, "(ii)", &command_port, &event_port);
    session->set_command_port(command_port);
    session->set_event_port(event_port);
    return true;
}

static wire::Status answer_login(Proto *handle, const wire::Login &login, wire::Reply *reply) {
    if (handle->use.callbacks.action == nullptr) return wire::STATUS_UNSUPPORTED;
    const char *user_name = login.has_user_name() ? login.user_name().c_str() : nullptr;
    const char *password = login.has_password() ? login.password().c_str() : nullptr;
    const char *discovery = login.has_discovery() ? login.discovery().c_str() : nullptr;
    GVariant *given =
        handle->use.callbacks.action(handle, user_name, password, login.monitor(), login.discard_my_feedback(),
                                     login.hide_secure_info(), login.no_lock(), discovery);
    g_autoptr(GVariant) value = given != nullptr ? g_variant_take_ref(given) : nullptr;
    const bool log_out = user_name == nullptr && password == nullptr;
    if (log_out) return wire::STATUS_OK;
    wire::Session session;
    if (value == nullptr || !read_ports(value, &session)) return wire::STATUS_REFUSED;
    *reply->mutable_session() = session;
    return wire::STATUS_OK;
}

static bool hides_secrets(Proto *handle) {
    uint32_t hide = 0;
    if (handle->use.callbacks.get_login_info != nullptr) handle->use.callbacks.get_login_info(handle, &hide);
    return hide != 0;
}

// None of the endings reaches beyond the key's last path segment.
static bool is_secret(std::string_view key) {
    while (key.ends_with('/')) key.remove_suffix(1);
    for (const std::string_view ending : secret_endings) {
        if (key.size() < ending.size()) continue;
        const std::string_view tail = key.substr(key.size() - ending.size());
        if (g_ascii_strncasecmp(tail.data(), ending.data(), ending.size()) == 0) return true;
    }
    return false;
}

static void add_entries(GVariant *dictionary, bool hide, wire::Value *answer) {
    GVariantIter entries;
    g_variant_iter_init(&entries, dictionary);
    const char *key, *text;
    while (g_variant_iter_next(&entries, "{&s&s}", &key, &text)) {
        wire::Pair *pair = answer->add_entries();
        pair->set_key(key);
        pair->set_value(hide && is_secret(key) ? secret_mask : text);
    }
}

static void set_value_text(GVariant *value, wire::Value *answer) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        answer->set_text(g_variant_get_string(value, nullptr));
    } else {
        g_autofree char *text = g_variant_print(value, FALSE);
        answer->set_text(text);
    }
}

static wire::Status answer_read(Proto *handle, const wire::Read &read, wire::Reply *reply) {
    if (handle->use.callbacks.read == nullptr) return wire::STATUS_UNSUPPORTED;
    GVariant *given = handle->use.callbacks.read(handle, read.flags(), read.key().c_str());
    if (given == nullptr) return wire::STATUS_REFUSED;
    g_autoptr(GVariant) value = variant_unbox(g_variant_take_ref(given));
    const bool hide = hides_secrets(handle);
    wire::Value *answer = reply->mutable_value();
    answer->set_key(read.key());
    answer->set_signature(g_variant_get_type_string(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE("a{ss}"))) {
        add_entries(value, hide, answer);
    } else if (hide && is_secret(read.key())) {
        answer->set_text(secret_mask);
    } else {
        set_value_text(value, answer);
    }
    return wire::STATUS_OK;
}

static wire::Status answer_write(Proto *handle, const wire::Write &write, wire::Reply *reply) {
    if (handle->use.callbacks.write == nullptr) return wire::STATUS_UNSUPPORTED;
    const char *value = write.has_value() ? write.value().c_str() : nullptr;
    const int result = handle->use.callbacks.write(handle, write.type(), write.key().c_str(), value);
    wire::WriteResult *answer = reply->mutable_write();
    answer->set_key(write.key());
    answer->set_value(write.value());
    answer->set_type(write.type());
    answer->set_result(result);
    return result < 0 ? wire::STATUS_REFUSED : wire::STATUS_OK;
}

static wire::Status answer_multi_write(Proto *handle, const wire::MultiWrite &write, wire::Reply *reply) {
    if (handle->use.callbacks.multi_write == nullptr) return wire::STATUS_UNSUPPORTED;
    std::vector<const char *> keys, values;
    for (const wire::Pair &pair : write.pairs()) {
        keys.push_back(pair.has_key() ? pair.key().c_str() : nullptr);
        values.push_back(pair.has_value() ? pair.value().c_str() : nullptr);
    }
    uint32_t result_count = 0;
    g_auto(GStrv) results = nullptr;
    const int result = handle->use.callbacks.multi_write(handle, static_cast<uint32_t>(keys.size()), keys.data(),
                                                         values.data(), &result_count, &results);
    wire::MultiWriteResult *answer = reply->mutable_multi_write();
    *answer->mutable_pairs() = write.pairs();
    for (uint32_t i = 0; results != nullptr && i < result_count && results[i] != nullptr; ++i) {
        if (!codec_set_text(answer->add_results(), results[i])) return wire::STATUS_UNSPECIFIED;
    }
    return result < 0 ? wire::STATUS_REFUSED : wire::STATUS_OK;
}

static wire::Status answer_authorize(Proto *handle, const wire::Authorize &question, wire::Reply *reply) {
    if (handle->use.callbacks.auth == nullptr) return wire::STATUS_UNSUPPORTED;
    const int allowed =
        handle->use.callbacks.auth(handle, question.operation(), question.key().c_str(), question.recursive());
    reply->mutable_authorization()->set_allowed(allowed != 0);
    return wire::STATUS_OK;
}

static wire::Status answer_discovery(const Proto *handle, wire::Reply *reply) {
    if (handle->use.discovery == nullptr) return wire::STATUS_UNSUPPORTED;
    return codec_set_text(reply->mutable_discovery(), handle->use.discovery) ? wire::STATUS_OK
                                                                             : wire::STATUS_UNSPECIFIED;
}

// The counter itself stands in every reply.
static wire::Status answer_change_count(const Proto *handle) {
    return handle->use.callbacks.get_change != nullptr ? wire::STATUS_OK : wire::STATUS_UNSUPPORTED;
}

// The status of the reply, or unspecified when the service gave a text that no reply can carry.
static wire::Status answer(Proto *handle, const wire::Request &request, wire::Reply *reply) {
    switch (request.operation_case()) {
        case wire::Request::kLogin: return answer_login(handle, request.login(), reply);
        case wire::Request::kRead: return answer_read(handle, request.read(), reply);
        case wire::Request::kWrite: return answer_write(handle, request.write(), reply);
        case wire::Request::kMultiWrite: return answer_multi_write(handle, request.multi_write(), reply);
        case wire::Request::kAuthorize: return answer_authorize(handle, request.authorize(), reply);
        case wire::Request::kDiscovery: return answer_discovery(handle, reply);
        case wire::Request::kChangeCount: return answer_change_count(handle);
        case wire::Request::OPERATION_NOT_SET: break;
    }
    return wire::STATUS_UNSUPPORTED;
}

int proto_process(Proto *handle) {
    handle->use.answered = false;
    if (!handle->use.decoded) return -1;
    const wire::Request &request = handle->request.request();
    wire::Reply *reply = handle->answer.mutable_reply();
    reply->Clear();
    reply->set_client_id(request.client_id());
    reply->set_sequence(request.sequence());
    const wire::Status status = answer(handle, request, reply);
    if (status == wire::STATUS_UNSPECIFIED) return -1;
    reply->set_status(status);
    handle->use.answered = true;
    return 0;
}
