// The codec through its C interface, with the messages of the wire contract as a client would send and read them.
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kesto/proto.h>

#include "access.pb.h"

namespace wire = kesto::access::v1;
using namespace std::string_view_literals;

namespace {

using Texts = std::vector<std::string>;

struct Release {
    void operator()(Proto *handle) const { proto_destroy(&handle); }
};
using Handle = std::unique_ptr<Proto, Release>;

// What the callbacks were given, and what they give; the handle's private pointer.
struct Service {
    Texts seen;
    GVariant *value = nullptr;
    uint32_t hide = 0;
};

Service &service(const Proto *handle) { return *static_cast<Service *>(proto_get_private(handle)); }

Handle open_handle(const std::string &bytes, Service *with) {
    Handle handle(proto_new_full(bytes.data(), bytes.size()));
    proto_set_private(handle.get(), with);
    return handle;
}

void install_callbacks(Proto *handle) {
    proto_set_cb_read(handle, [](Proto *h, uint32_t flags, const char *key) {
        service(h).seen = {std::to_string(flags), key};
        return service(h).value;
    });
    proto_set_cb_get_login_info(handle, [](Proto *h, uint32_t *hide) { *hide = service(h).hide; });
}

wire::Message encoded(const Proto *handle) {
    wire::Message message;
    EXPECT_NE(proto_buffer(handle), nullptr);
    EXPECT_TRUE(message.ParseFromString({static_cast<const char *>(proto_buffer(handle)), proto_buffer_size(handle)}));
    return message;
}

class Codec : public testing::Test {
  protected:
    Codec() { proto_init(1, 0); }
    ~Codec() override { proto_deinit(); }

    wire::Request &request() { return *message.mutable_request(); }

    wire::Reply ask(bool with_callbacks = true) {
        Handle handle = open_handle(message.SerializeAsString(), &given);
        if (with_callbacks) install_callbacks(handle.get());
        EXPECT_EQ(proto_decode(handle.get()), 0);
        EXPECT_EQ(proto_process(handle.get()), 0);
        EXPECT_EQ(proto_encode(handle.get()), 0);
        return encoded(handle.get()).reply();
    }

    wire::Message message;
    Service given;
};

TEST_F(Codec, RefusesWhatIsNotARequest) {
    const struct {
        const char *why;
        std::string_view bytes;
        int decoded;
    } rows[] = {
        {"a read",               "\n\005Z\003\n\001k"sv,          0 },
        {"a request of nothing", "\n\0"sv,                        0 },
        {"empty",                ""sv,                            -1},
        {"a reply",              "\022\0"sv,                      -1},
        {"a reply beside it",    "\n\0\022\0"sv,                  -1},
        {"cut short",            "\n\005Z\003\n\001"sv,           -1},
        {"no message",           "hello"sv,                       -1},
        {"key not UTF-8",        "\n\005Z\003\n\001\377"sv,       -1},
        {"NUL in the client id", "\n\003\n\001\0"sv,              -1},
        {"NUL in a key",         "\n\005Z\003\n\001\0"sv,         -1},
        {"NUL in a value",       "\n\005b\003\022\001\0"sv,       -1},
        {"NUL in a pair",        "\n\007j\005\n\003\022\001\0"sv, -1},
        {"NUL in a password",    "\n\005R\003\022\001\0"sv,       -1},
        {"NUL in a discovery",   "\n\005R\003:\001\0"sv,          -1},
        {"NUL in a question",    "\n\005r\003\022\001\0"sv,       -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        Handle handle = open_handle(std::string(row.bytes), &given);
        EXPECT_EQ(proto_decode(handle.get()), row.decoded);
        EXPECT_EQ(proto_id(handle.get()), nullptr);
        EXPECT_EQ(proto_process(handle.get()), row.decoded);
    }
}

TEST_F(Codec, RefusesAFloodOfPairs) {
    for (int i = 0; i < 65536; ++i) request().mutable_multi_write()->add_pairs();
    const std::string most = message.SerializeAsString();
    const std::string one_more("\n\004j\002\n\0", 6);
    for (const auto &[bytes, decoded] : {std::pair(most, 0), std::pair(most + one_more, -1)}) {
        Handle handle = open_handle(bytes, &given);
        EXPECT_EQ(proto_decode(handle.get()), decoded);
    }
}

TEST_F(Codec, OwnsItsBytesAndHasNoBufferBeforeEncoding) {
    request().set_client_id("panel-1");
    std::string bytes = message.SerializeAsString();
    Handle handle = open_handle(bytes, &given);
    bytes.assign(bytes.size(), '?');
    ASSERT_EQ(proto_decode(handle.get()), 0);
    EXPECT_STREQ(proto_id(handle.get()), "panel-1");
    EXPECT_EQ(proto_encode(handle.get()), -1);  // not processed
    EXPECT_EQ(proto_buffer(handle.get()), nullptr);
    EXPECT_EQ(proto_buffer_size(handle.get()), SIZE_MAX);
}

TEST_F(Codec, EchoesTheAskerAndServesOnlyWhatIsInstalled) {
    using Operation = void (*)(wire::Request &);
    const Operation operations[] = {
        [](wire::Request &r) { r.mutable_login(); },        [](wire::Request &r) { r.mutable_read(); },
        [](wire::Request &r) { r.mutable_write(); },        [](wire::Request &r) { r.mutable_multi_write(); },
        [](wire::Request &r) { r.mutable_authorize(); },    [](wire::Request &r) { r.mutable_discovery(); },
        [](wire::Request &r) { r.mutable_change_count(); }, [](wire::Request &r) { r.clear_operation(); },
    };
    request().set_client_id("panel-1");
    request().set_sequence(UINT64_MAX);
    for (const Operation set_operation : operations) {
        set_operation(request());
        SCOPED_TRACE(request().operation_case());
        const wire::Reply reply = ask(false);
        EXPECT_EQ(reply.status(), wire::STATUS_UNSUPPORTED);
        EXPECT_EQ(reply.result_case(), wire::Reply::RESULT_NOT_SET);
        EXPECT_EQ(reply.client_id(), "panel-1");
        EXPECT_EQ(reply.sequence(), UINT64_MAX);
    }
}

TEST_F(Codec, ReadsValuesAndMasksSecrets) {
    const struct {
        const char *key, *value;
        uint32_t hide;
        const char *signature, *text;  // entries as key=value, each followed by a semicolon
    } rows[] = {
        {"/a/Name",           "'box'",                          0, "s",     "box"                    },
        {"/a/Name",           "<'box'>",                        0, "s",     "box"                    },
        {"/a/Name",           "<<'box'>>",                      0, "v",     "<'box'>"                },
        {"/a/Gain",           "<-3>",                           0, "i",     "-3"                     },
        {"/a",                "<{'/a/Pin': '1', '/a/b': '2'}>", 0, "a{ss}", "/a/Pin=1;/a/b=2;"       },
        {"/a",                "<{'/a/Pin': '1', '/a/b': '2'}>", 1, "a{ss}", "/a/Pin=********;/a/b=2;"},
        {"/a/Pin",            "@a{ss} {}",                      1, "a{ss}", ""                       },
        {"/a/Password",       "'x'",                            0, "s",     "x"                      },
        {"/a/Password",       "'x'",                            1, "s",     "********"               },
        {"/a/adminPASSWORD/", "'x'",                            1, "s",     "********"               },
        {"/a/WifiPassphrase", "'x'",                            1, "s",     "********"               },
        {"Secret",            "'x'",                            1, "s",     "********"               },
        {"/a/userpin",        "1234",                           1, "i",     "********"               },
        {"/a/Pin/Length",     "'4'",                            1, "s",     "4"                      },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.key) + " " + row.value);
        request().mutable_read()->set_key(row.key);
        request().mutable_read()->set_flags(0x2001);
        given.value = g_variant_new_parsed(row.value);
        given.hide = row.hide;
        const wire::Reply reply = ask();
        EXPECT_EQ(given.seen, (Texts{"8193", row.key}));
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.value().key(), row.key);
        EXPECT_EQ(reply.value().signature(), row.signature);
        std::string text = reply.value().text();
        for (const wire::Pair &pair : reply.value().entries()) text += pair.key() + "=" + pair.value() + ";";
        EXPECT_EQ(text, row.text);
    }
    given.value = nullptr;
    const wire::Reply refused = ask();
    EXPECT_EQ(refused.status(), wire::STATUS_REFUSED);
    EXPECT_FALSE(refused.has_value());
}

TEST_F(Codec, GivesTheDiscoveryTextUnlessNoClientCouldReadIt) {
    request().mutable_discovery();
    for (const char *text : {"A;B;", "A;\xff;"}) {
        const bool readable = g_utf8_validate(text, -1, nullptr);
        Handle handle = open_handle(message.SerializeAsString(), &given);
        proto_set_discovery(handle.get(), text);
        ASSERT_EQ(proto_decode(handle.get()), 0);
        EXPECT_EQ(proto_process(handle.get()), readable ? 0 : -1);
        EXPECT_EQ(proto_encode(handle.get()), readable ? 0 : -1);
        if (!readable) continue;
        EXPECT_EQ(encoded(handle.get()).reply().discovery(), text);
    }
}

TEST_F(Codec, EncodesEvents) {
    Handle handle(proto_new());
    const ProtoAlarm alarm{-40, 1, -2, 0.5F, 0};
    ASSERT_EQ(proto_encode_alarm_event(handle.get(), &alarm), 0);
    const wire::Alarm seen = encoded(handle.get()).event().alarm();
    EXPECT_EQ(seen.code(), -40);
    EXPECT_EQ(seen.active(), 1U);
    EXPECT_EQ(seen.channel(), -2);
    EXPECT_EQ(seen.value(), 0.5F);
    ASSERT_EQ(proto_encode_kv(handle.get(), "/k", "v", nullptr), 0);
    EXPECT_FALSE(encoded(handle.get()).event().change().has_type());
    ASSERT_EQ(proto_encode_kv(handle.get(), "/k", "v", ""), 0);
    EXPECT_TRUE(encoded(handle.get()).event().change().has_type());
    ASSERT_EQ(proto_encode_RestoreSnapshot(handle.get(), UINT32_MAX), 0);
    EXPECT_EQ(encoded(handle.get()).event().snapshot_loaded().slot(), UINT32_MAX);
    ASSERT_EQ(proto_encode_SpeakerPresetLoaded(handle.get()), 0);
    EXPECT_TRUE(encoded(handle.get()).event().has_speaker_preset_loaded());
    EXPECT_EQ(proto_encode_kv(handle.get(), "/k", "\xff", nullptr), -1);
    EXPECT_EQ(proto_buffer_size(handle.get()), SIZE_MAX);  // nothing left of the event before
}

}  // namespace
