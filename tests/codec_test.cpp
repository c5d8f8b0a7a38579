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
    int result = 0;
    const char *const *texts = nullptr;
    uint32_t hide = 0;
    static inline uint32_t change_counter;
};

Service &service(const Proto *handle) {
    return *static_cast<Service *>(proto_get_private(handle));
}

std::string shown(const char *text) {
    return text != nullptr ? text : "(none)";
}

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
    proto_set_cb_auth(handle, [](Proto *h, uint32_t operation, const char *key, uint32_t recursive) {
        service(h).seen = {std::to_string(operation), key, std::to_string(recursive)};
        return service(h).result;
    });
    proto_set_cb_get_login_info(handle, [](Proto *h, uint32_t *hide) { *hide = service(h).hide; });
    proto_set_cb_write(handle, [](Proto *h, uint32_t type, const char *key, const char *value) {
        service(h).seen = {std::to_string(type), key, shown(value)};
        proto_change(h);
        return service(h).result;
    });
    proto_set_cb_multiwrite(handle, [](Proto *h, uint32_t count, const char *const *keys, const char *const *values,
                                       uint32_t *result_count, char ***results) {
        for (uint32_t i = 0; i < count; ++i) service(h).seen.push_back(shown(keys[i]) + "=" + shown(values[i]));
        *results = g_strdupv(const_cast<char **>(service(h).texts));
        *result_count = *results != nullptr ? g_strv_length(*results) : 0;
        return service(h).result;
    });
    proto_set_cb_change(handle, [](Proto *h) { return static_cast<int>(++service(h).change_counter); });
    proto_set_cb_action(handle, [](Proto *h, const char *user_name, const char *password, int32_t monitor,
                                   int32_t discard, int32_t hide, int32_t no_lock, const char *discovery) {
        service(h).seen = {shown(user_name), shown(password), shown(discovery)};
        for (const int32_t wish : {monitor, discard, hide, no_lock}) service(h).seen.push_back(std::to_string(wish));
        return service(h).value;
    });
    proto_set_getchange(handle, [] { return Service::change_counter; });
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

TEST_F(Codec, LogsInAndOut) {
    const struct {
        bool in;
        const char *value;
        wire::Status status;
        int command_port, event_port;
    } rows[] = {
        {true,  "({'other': <1>, 'ports': <(62001, 63001)>},)", wire::STATUS_OK,      62001, 63001},
        {true,  nullptr,                                        wire::STATUS_REFUSED, 0,     0    },
        {true,  "({'ports': <'62001'>},)",                      wire::STATUS_REFUSED, 0,     0    },
        {true,  "{'ports': <(1, 2)>}",                          wire::STATUS_REFUSED, 0,     0    },
        {false, nullptr,                                        wire::STATUS_OK,      0,     0    },
        {false, "({'ports': <(1, 2)>},)",                       wire::STATUS_OK,      0,     0    },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(shown(row.value));
        wire::Login &login = *request().mutable_login();
        login.Clear();
        login.set_monitor(1);
        login.set_discard_my_feedback(2);
        login.set_hide_secure_info(3);
        login.set_no_lock(4);
        if (row.in) login.set_user_name("");
        if (row.in) login.set_discovery("A;B");
        given.value = row.value != nullptr ? g_variant_new_parsed(row.value) : nullptr;
        const wire::Reply reply = ask();
        const char *const user_name = row.in ? "" : "(none)", *const discovery = row.in ? "A;B" : "(none)";
        EXPECT_EQ(given.seen, (Texts{user_name, "(none)", discovery, "1", "2", "3", "4"}));
        EXPECT_EQ(reply.status(), row.status);
        EXPECT_EQ(reply.has_session(), row.command_port != 0);
        EXPECT_EQ(reply.session().command_port(), row.command_port);
        EXPECT_EQ(reply.session().event_port(), row.event_port);
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

TEST_F(Codec, WritesAndTakesTheChangeCounterLast) {
    Service::change_counter = 41;
    request().mutable_write()->set_key("/k");
    request().mutable_write()->set_type(0x1000);
    given.result = -5;
    wire::Reply reply = ask();
    EXPECT_EQ(given.seen, (Texts{"4096", "/k", "(none)"}));
    EXPECT_EQ(reply.status(), wire::STATUS_REFUSED);
    EXPECT_EQ(reply.write().result(), -5);
    EXPECT_EQ(reply.change_count(), 42U);  // the write itself made one change
    request().mutable_write()->set_value("");
    given.result = 3;
    reply = ask();
    EXPECT_EQ(given.seen.back(), "");
    EXPECT_EQ(reply.status(), wire::STATUS_OK);
    EXPECT_EQ(reply.write().key(), "/k");
    EXPECT_EQ(reply.write().type(), 0x1000U);
    EXPECT_EQ(reply.write().result(), 3);
}

TEST_F(Codec, WritesPairsOfWhichAnythingMayBeAbsent) {
    wire::MultiWrite &write = *request().mutable_multi_write();
    write.add_pairs()->set_key("/a");
    write.add_pairs()->set_value("");
    const char *const texts[] = {"ok", "failed", nullptr};
    given.texts = texts;
    wire::Reply reply = ask();
    EXPECT_EQ(given.seen, (Texts{"/a=(none)", "(none)="}));
    EXPECT_EQ(reply.status(), wire::STATUS_OK);
    ASSERT_EQ(reply.multi_write().results_size(), 2);
    EXPECT_EQ(reply.multi_write().results(1), "failed");
    given.texts = nullptr;
    given.result = -1;
    reply = ask();
    EXPECT_EQ(reply.status(), wire::STATUS_REFUSED);
    ASSERT_EQ(reply.multi_write().pairs_size(), 2);
    EXPECT_FALSE(reply.multi_write().pairs(1).has_key());
    EXPECT_EQ(reply.multi_write().results_size(), 0);
}

TEST_F(Codec, AnswersQuestions) {
    Service::change_counter = 7;
    request().mutable_authorize()->set_operation(2);
    request().mutable_authorize()->set_key("/");
    request().mutable_authorize()->set_recursive(1);
    for (const int allowed : {0, 1}) {
        given.result = allowed;
        const wire::Reply reply = ask();
        EXPECT_EQ(given.seen, (Texts{"2", "/", "1"}));
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        ASSERT_TRUE(reply.has_authorization());
        EXPECT_EQ(reply.authorization().allowed(), allowed == 1);
    }
    request().mutable_change_count();
    const wire::Reply counted = ask();
    EXPECT_EQ(counted.status(), wire::STATUS_OK);
    EXPECT_EQ(counted.change_count(), 7U);
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
