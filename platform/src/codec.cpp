// The codec's handles: what they hold, how a request comes in and how an answer leaves.
//
// Decoding is strict, so that the service never sees a text that a C string or D-Bus could not carry.
#include "codec.h"

#include <climits>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/wire_format_lite.h>

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

// An empty pair takes two bytes on the wire and fifty in memory, so that the size of a request says nothing about what
// it costs to unpack.
static constexpr int pairs_max = 65536;

static constexpr int path_to_pairs[] = {wire::Message::kRequestFieldNumber, wire::Request::kMultiWriteFieldNumber,
                                        wire::MultiWrite::kPairsFieldNumber};

static google::protobuf::LogHandler *previous_log_handler;

// protobuf reports every malformed message on the standard error, where anybody could then write.
void proto_init(int, int) { previous_log_handler = google::protobuf::SetLogHandler(nullptr); }

void proto_deinit(void) { google::protobuf::SetLogHandler(previous_log_handler); }

// A thread's last handle is kept for its next one, with the room that its messages have: most of what a short exchange
// allocates. One that has grown large is not.
static constexpr size_t bytes_worth_keeping = 4096;
static thread_local std::unique_ptr<Proto> spare;

static bool is_worth_keeping(const Proto &handle) {
    return handle.received.capacity() <= bytes_worth_keeping && handle.buffer.capacity() <= bytes_worth_keeping;
}

Proto *proto_new(void) { return spare ? spare.release() : new Proto{}; }

Proto *proto_new_full(const void *bytes, size_t length) {
    Proto *handle = proto_new();
    if (bytes != nullptr) handle->received.assign(static_cast<const char *>(bytes), length);
    return handle;
}

static void make_empty(Proto &handle) {
    handle.use = {};
    handle.received.clear();
    handle.buffer.clear();
}

void proto_destroy(Proto **handle) {
    if (handle == nullptr || *handle == nullptr) return;
    std::unique_ptr<Proto> done(std::exchange(*handle, nullptr));
    if (spare || !is_worth_keeping(*done)) return;
    make_empty(*done);
    spare = std::move(done);
}

void proto_set_discovery(Proto *handle, const char *text) { handle->use.discovery = text; }
void proto_set_private(Proto *handle, void *pointer) { handle->use.private_data = pointer; }
void *proto_get_private(const Proto *handle) { return handle->use.private_data; }
void proto_set_cb_read(Proto *handle, ProtoReadCallback callback) { handle->use.callbacks.read = callback; }
void proto_set_cb_auth(Proto *handle, ProtoAuthCallback callback) { handle->use.callbacks.auth = callback; }
void proto_set_cb_get_login_info(Proto *handle, ProtoLoginInfoCallback callback) {
    handle->use.callbacks.get_login_info = callback;
}
void proto_set_cb_write(Proto *handle, ProtoWriteCallback callback) { handle->use.callbacks.write = callback; }
void proto_set_cb_multiwrite(Proto *handle, ProtoMultiWriteCallback callback) {
    handle->use.callbacks.multi_write = callback;
}
void proto_set_cb_change(Proto *handle, ProtoChangeCallback callback) { handle->use.callbacks.change = callback; }
void proto_set_cb_action(Proto *handle, ProtoActionCallback callback) { handle->use.callbacks.action = callback; }
void proto_set_getchange(Proto *handle, ProtoGetChangeCallback callback) {
    handle->use.callbacks.get_change = callback;
}

// Counts the pairs without unpacking them, and stops beyond the limit. Where the bytes are malformed it stops like the
// parser, which then refuses them.
static int count_pairs(CodedInputStream &in, size_t depth) {
    int count = 0;
    while (count <= pairs_max) {
        const uint32_t tag = in.ReadTag();
        if (tag == 0) break;
        const bool on_path =
            tag == WireFormatLite::MakeTag(path_to_pairs[depth], WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
        if (on_path && depth + 1 < std::size(path_to_pairs)) {
            const CodedInputStream::Limit limit = in.ReadLengthAndPushLimit();
            count += count_pairs(in, depth + 1);
            in.PopLimit(limit);
        } else {
            if (on_path) ++count;
            if (!WireFormatLite::SkipField(&in, tag)) break;
        }
    }
    return count;
}

static CodedInputStream stream_of(const std::string &bytes) {
    return CodedInputStream(reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<int>(bytes.size()));
}

static bool has_few_pairs(const std::string &bytes) {
    constexpr size_t shortest_pair_bytes = 2;
    if (bytes.size() <= pairs_max * shortest_pair_bytes) return true;
    CodedInputStream in = stream_of(bytes);
    return count_pairs(in, 0) <= pairs_max;
}

// A reply or an event in the place of the request, or beside it, would be unpacked whole before it is refused.
// `unknown`: there are fields that the contract does not have.
static bool has_only_a_request(const std::string &bytes, bool &unknown) {
    constexpr uint32_t request_tag =
        WireFormatLite::MakeTag(wire::Message::kRequestFieldNumber, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
    CodedInputStream in = stream_of(bytes);
    bool found = false;
    unknown = false;
    while (const uint32_t tag = in.ReadTag()) {
        const int field = WireFormatLite::GetTagFieldNumber(tag);
        if (field == wire::Message::kReplyFieldNumber || field == wire::Message::kEventFieldNumber) return false;
        if (tag == request_tag) found = true;
        else unknown = true;
        if (!WireFormatLite::SkipField(&in, tag)) break;
    }
    return found;
}

static bool without_nul(std::initializer_list<std::string_view> texts) {
    for (const std::string_view text : texts) {
        if (text.find('\0') != std::string_view::npos) return false;
    }
    return true;
}

static bool pairs_without_nul(const wire::MultiWrite &write) {
    for (const wire::Pair &pair : write.pairs()) {
        if (!without_nul({pair.key(), pair.value()})) return false;
    }
    return true;
}

// A text with a NUL byte would reach the service cut.
static bool texts_are_whole(const wire::Request &request) {
    if (!without_nul({request.client_id()})) return false;
    switch (request.operation_case()) {
        case wire::Request::kLogin:
            return without_nul({request.login().user_name(), request.login().password(), request.login().discovery()});
        case wire::Request::kRead: return without_nul({request.read().key()});
        case wire::Request::kWrite: return without_nul({request.write().key(), request.write().value()});
        case wire::Request::kMultiWrite: return pairs_without_nul(request.multi_write());
        case wire::Request::kAuthorize: return without_nul({request.authorize().key()});
        default: return true;
    }
}

// Into the request of the handle's last use, whose room it takes over. Unknown fields would pile up in it.
static bool parse_request(Proto *handle, bool unknown) {
    if (handle->has_unknown) handle->request.Clear();
    handle->has_unknown = unknown;
    handle->request.mutable_request()->Clear();
    return handle->request.MergeFromString(handle->received);
}

int proto_decode(Proto *handle) {
    bool unknown = false;
    handle->use.answered = false;
    handle->buffer.clear();
    handle->use.decoded = handle->received.size() <= INT_MAX && has_only_a_request(handle->received, unknown) &&
                          has_few_pairs(handle->received) && parse_request(handle, unknown) &&
                          texts_are_whole(handle->request.request());
    return handle->use.decoded ? 0 : -1;
}

const char *proto_id(const Proto *handle) {
    if (!handle->use.decoded) return nullptr;
    const std::string &id = handle->request.request().client_id();
    return id.empty() ? nullptr : id.c_str();
}

void proto_change(Proto *handle) {
    if (handle->use.callbacks.change != nullptr) handle->use.callbacks.change(handle);
}

int proto_encode(Proto *handle) {
    handle->buffer.clear();
    if (!handle->use.answered) return -1;
    const ProtoGetChangeCallback get_change = handle->use.callbacks.get_change;
    handle->answer.mutable_reply()->set_change_count(get_change != nullptr ? get_change() : 0);
    return codec_store(handle, handle->answer);
}

const void *proto_buffer(const Proto *handle) { return handle->buffer.empty() ? nullptr : handle->buffer.data(); }

size_t proto_buffer_size(const Proto *handle) { return handle->buffer.empty() ? SIZE_MAX : handle->buffer.size(); }

int codec_store(Proto *handle, const wire::Message &message) {
    if (message.SerializeToString(&handle->buffer)) return 0;
    handle->buffer.clear();
    return -1;
}

bool codec_set_text(std::string *field, const char *text) {
    if (!g_utf8_validate(text, -1, nullptr)) return false;
    *field = text;
    return true;
}
