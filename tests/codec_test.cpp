// The codec through its C interface, with messages of the wire contract as a client sends and reads them.
#include <malloc.h>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <kesto/proto.h>

#include "access.pb.h"

namespace wire = kesto::access::v1;
using namespace std::string_literals;

using Handle = std::unique_ptr<Proto, decltype([](Proto *handle) { proto_destroy(&handle); })>;

static Handle open_handle(const std::string &bytes) { return Handle(proto_new_full(bytes.data(), bytes.size())); }

static wire::Message encoded(const Handle &handle) {
    const auto *bytes = static_cast<const char *>(proto_buffer(handle.get()));
    wire::Message message;
    EXPECT_TRUE(bytes != nullptr && message.ParseFromString({bytes, proto_buffer_size(handle.get())}));
    return message;
}

struct Codec : testing::Test {
    wire::Message message;
    wire::Request &request = *message.mutable_request();

    // What the callbacks return.
    GVariant *value = nullptr;
    uint32_t hide = 0;

    Codec() { proto_init(1, 0); }
    ~Codec() override { proto_deinit(); }

    static Codec &of(const Proto *handle) { return *static_cast<Codec *>(proto_get_private(handle)); }

    void install_callbacks(Proto *handle) {
        proto_set_private(handle, this);
        proto_set_cb_read(handle, [](Proto *h, uint32_t, const char *) { return of(h).value; });
        proto_set_cb_get_login_info(handle, [](Proto *h, uint32_t *flag) { *flag = of(h).hide; });
    }
    static wire::Reply answer_to(const Handle &handle) {
        EXPECT_EQ(proto_decode(handle.get()), 0);
        EXPECT_EQ(proto_process(handle.get()), 0);
        EXPECT_EQ(proto_encode(handle.get()), 0);
        return encoded(handle).reply();
    }
    wire::Reply ask(bool with_callbacks) {
        const Handle handle = open_handle(message.SerializeAsString());
        if (with_callbacks) install_callbacks(handle.get());
        return answer_to(handle);
    }
};

static void expect_decoded(const std::string &bytes, int result) {
    SCOPED_TRACE(testing::PrintToString(bytes.substr(0, 20)));
    const Handle handle = open_handle(bytes);
    EXPECT_EQ(proto_decode(handle.get()), result);
    EXPECT_EQ(proto_id(handle.get()), nullptr);
    EXPECT_EQ(proto_process(handle.get()), result);
}

TEST_F(Codec, RefusesWhatIsNotARequest) {
    const std::string a_read = "\n\005Z\003\n\001k", a_reply = "\022\0"s, cut_short = "\n\005Z\003\n\001";
    for (const std::string &bytes : {a_read, "\n\0"s}) expect_decoded(bytes, 0);
    const std::string a_number = "\b\001";  // where the request should be
    for (const std::string &bytes :
         {""s, a_reply, a_read + a_reply, cut_short, cut_short + '\xff', "no message"s, a_number})
        expect_decoded(bytes, -1);

    // Requests that lack their last byte, which is a text: a client id, the key of a read, the key and the value of a
    // write and of a pair, a user name, password and discovery text, a question.
    for (const char *text : {"\n\003\n\001", "\n\005Z\003\n\001", "\n\005b\003\n\001", "\n\005b\003\022\001",
                             "\n\007j\005\n\003\n\001", "\n\007j\005\n\003\022\001", "\n\005R\003\n\001",
                             "\n\005R\003\022\001", "\n\005R\003:\001", "\n\005r\003\022\001"})
        expect_decoded(text + "\0"s, -1);

    for (int i = 0; i < 65536; ++i) request.mutable_multi_write()->add_pairs();
    expect_decoded(message.SerializeAsString(), 0);
    request.mutable_multi_write()->add_pairs();
    expect_decoded(message.SerializeAsString(), -1);
}

TEST_F(Codec, OwnsItsBytesAndHasNoBufferBeforeEncoding) {
    request.set_client_id("panel-1");
    std::string bytes = message.SerializeAsString();
    const Handle handle = open_handle(bytes);
    bytes.assign(bytes.size(), '?');
    ASSERT_EQ(proto_decode(handle.get()), 0);
    EXPECT_STREQ(proto_id(handle.get()), "panel-1");
    EXPECT_EQ(proto_encode(handle.get()), -1);  // not processed
    EXPECT_EQ(proto_buffer(handle.get()), nullptr);
    EXPECT_EQ(proto_buffer_size(handle.get()), SIZE_MAX);
}

TEST_F(Codec, ShowsNothingOfTheRequestBefore) {
    request.set_client_id("panel-1");
    request.set_sequence(7);
    ask(false);
    const Handle handle = open_handle("\n\0"s);
    EXPECT_EQ(proto_process(handle.get()), -1);  // not decoded
    const wire::Reply reply = answer_to(handle);
    EXPECT_EQ(reply.client_id(), "");
    EXPECT_EQ(reply.sequence(), 0U);
}

// A handle keeps the room of its last use, but nothing that grows with each.
TEST_F(Codec, KeepsNoUnknownFields) {
    const std::string unknown_text = "\332\001\350\007" + std::string(1000, 'x');  // field 27
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) expect_decoded("\n\0"s + unknown_text, 0);
    EXPECT_LT(mallinfo2().uordblks, before + 500'000) << "bytes in use after a million of unknown ones";
}

TEST_F(Codec, EchoesTheAskerAndServesOnlyWhatIsInstalled) {
    request.set_client_id("panel-1");
    request.set_sequence(UINT64_MAX);
    for (const std::string &operation : {""s, "R\0"s, "Z\0"s, "b\0"s, "j\0"s, "r\0"s, "z\0"s, "\202\001\0"s}) {
        ASSERT_TRUE(request.MergeFromString(operation));
        SCOPED_TRACE(request.operation_case());
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
        const char *shown;  // signature and text or, each followed by a semicolon, entries
    } rows[] = {
        {"/a/Name",           "'box'",                          0, "s box"                        },
        {"/a/Name",           "<'box'>",                        0, "s box"                        },
        {"/a/Name",           "<<'box'>>",                      0, "v <'box'>"                    },
        {"/a/Number",         "uint32 7",                       0, "u 7"                          },
        {"/a",                "<{'/a/Pin': '1', '/a/b': '2'}>", 0, "a{ss} /a/Pin=1;/a/b=2;"       },
        {"/a",                "<{'/a/Pin': '1', '/a/b': '2'}>", 1, "a{ss} /a/Pin=********;/a/b=2;"},
        {"/a/Pin",            "@a{ss} {}",                      1, "a{ss} "                       },
        {"/a/Password",       "'x'",                            0, "s x"                          },
        {"/a/Password",       "'x'",                            1, "s ********"                   },
        {"/a/adminPASSWORD/", "'x'",                            1, "s ********"                   },
        {"/a/WifiPassphrase", "'x'",                            1, "s ********"                   },
        {"Secret",            "'x'",                            1, "s ********"                   },
        {"/a/userpin",        "1234",                           1, "i ********"                   },
        {"/a/Pin/Length",     "'4'",                            1, "s 4"                          },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.key) + " " + row.value);
        request.mutable_read()->set_key(row.key);
        value = g_variant_new_parsed(row.value);
        hide = row.hide;
        const wire::Reply reply = ask(true);
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        std::string shown = reply.value().signature() + ' ' + reply.value().text();
        for (const wire::Pair &pair : reply.value().entries()) shown += pair.key() + '=' + pair.value() + ';';
        EXPECT_EQ(shown, row.shown);
    }
    value = nullptr;
    EXPECT_EQ(ask(true).status(), wire::STATUS_REFUSED);
}

TEST_F(Codec, GivesNoDiscoveryTextThatNoClientCouldRead) {
    request.mutable_discovery();
    const Handle handle = open_handle(message.SerializeAsString());
    proto_set_discovery(handle.get(), "A;\xff;");
    ASSERT_EQ(proto_decode(handle.get()), 0);
    EXPECT_EQ(proto_process(handle.get()), -1);
    EXPECT_EQ(proto_encode(handle.get()), -1);
}

TEST_F(Codec, EncodesEvents) {
    const Handle handle(proto_new());
    for (const char *type : {static_cast<const char *>(nullptr), ""}) {
        ASSERT_EQ(proto_encode_kv(handle.get(), "/k", "v", type), 0);
        EXPECT_EQ(encoded(handle).event().change().has_type(), type != nullptr);
    }
    EXPECT_EQ(proto_encode_kv(handle.get(), "/k", "\xff", nullptr), -1);
    EXPECT_EQ(proto_buffer_size(handle.get()), SIZE_MAX);  // nothing left of the event before
}
