// A logged-in client's command socket: what it answers, and what of it reaches the data service and comes back.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "harness/room.h"

namespace {

using Texts = std::vector<std::string>;
using Pairs = std::vector<std::pair<OptionalText, OptionalText>>;

void expect_usable(Room &room) { EXPECT_EQ(room.panel.read(name_key).value().text(), name_value); }

uint32_t change_count(Room &room) {
    wire::Request request;
    request.mutable_change_count();
    return room.panel.ask(Channel::command, request).change_count();
}

std::string read_request(const std::string &key, const std::string &client_id = "panel-1", uint64_t sequence = 1) {
    wire::Message message;
    message.mutable_request()->set_client_id(client_id);
    message.mutable_request()->set_sequence(sequence);
    message.mutable_request()->mutable_read()->set_key(key);
    message.mutable_request()->mutable_read()->set_flags(RemoteClient::single);
    return message.SerializeAsString();
}

struct NoRequestCase {
    const char *why;
    Texts frames;
};
const std::string a_read = read_request(name_key), nul_in_key = read_request(std::string(1, '\0'));
const std::string event{"\x1a\x02\x22\x00", 4};
const Texts two_requests = {a_read, a_read}, many_pieces(200, a_read);
const NoRequestCase no_requests[] = {
    {"no message at all",        {"\xff\xff\xff\xff"}  },
    {"an empty frame",           {""}                  },
    {"a cut request",            {a_read.substr(0, 20)}},
    {"a message of no kind",     {"\x22\x02hi"}        },
    {"a reply",                  {"\x12\x02\x18\x01"}  },
    {"an event",                 {event}               },
    {"a NUL byte in a key",      {nul_in_key}          },
    {"two requests in one",      two_requests          },
    {"a request, then nothing",  {a_read, ""}          },
    {"an envelope of its own",   {"", a_read}          },
    {"a request in many pieces", many_pieces           },
};

TEST(Command, AnswersWhatIsNoRequestOnceAndEmpty) {
    Room room;
    for (const NoRequestCase &row : no_requests) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(room.panel.exchange(Channel::command, row.frames), "");
        room.gateway.expect_log({"*:client_read:* - error data not parsable", "[CLIENT] error encoding"});
        room.panel.write("", "");
        room.gateway.service().expect_no_log_before("*error*", "write k=, v=, t=0x0");
        expect_usable(room);
    }
}

TEST(Command, EchoesWhoAskedAndTheNumber) {
    Room room;
    for (const std::string &client_id : {std::string("somebody else"), std::string(), std::string(70000, 'i')}) {
        SCOPED_TRACE(client_id.substr(0, 20));
        wire::Message answer;
        const std::string request = read_request(name_key, client_id, UINT64_MAX);
        ASSERT_TRUE(answer.ParseFromString(room.panel.exchange(Channel::command, {request})));
        EXPECT_EQ(answer.reply().client_id(), client_id);
        EXPECT_EQ(answer.reply().sequence(), UINT64_MAX);
        EXPECT_EQ(answer.reply().value().text(), name_value);
    }
}

TEST(Command, AnswersQuestionsWithoutTheDevice) {
    Room room;
    wire::Request discovery, nothing, count;
    discovery.mutable_discovery();
    count.mutable_change_count();

    const wire::Reply text = room.panel.ask(Channel::command, discovery);
    EXPECT_EQ(text.status(), wire::STATUS_OK);
    EXPECT_EQ(text.discovery(),
              "@?DKX8-3000\x1c"
              "1.12.1.32\x1cQM240817\x1c?\x1c\x1c\x1cQM240817\x1c"
              "4221=ON!");
    EXPECT_EQ(room.panel.ask(Channel::command, count).status(), wire::STATUS_OK);
    EXPECT_EQ(room.panel.ask(Channel::command, nothing).status(), wire::STATUS_UNSUPPORTED);
    EXPECT_TRUE(room.panel.authorize(4, name_key, false).authorization().allowed());
    room.expect_no_call();
}

TEST(Command, CountsTheChangesOfEverybody) {
    Room room;
    RemoteClient other("panel-2");
    other.log_in();
    EXPECT_EQ(room.panel.write(name_key, "Hall").change_count(), 1U);  // its own change included
    EXPECT_EQ(other.multi_write(Pairs(2, {name_key, "Foyer"})).change_count(), 2U);
    EXPECT_EQ(room.panel.read(name_key).change_count(), 2U);
    EXPECT_EQ(room.panel.write("", "no key").change_count(), 2U);
    EXPECT_EQ(room.panel.multi_write({}).change_count(), 2U);

    room.gateway.call("GeneralDispatch", g_variant_new("(sss)", name_key, "Hall", "string"));
    EXPECT_EQ(change_count(room), 3U);
    room.gateway.call("SnapshotLoadedDispatch", g_variant_new("(u)", 1));
    room.gateway.call("SpeakerPresetLoadedDispatch");
    EXPECT_EQ(change_count(room), 5U);
    room.gateway.call("Dispatch", g_variant_new("(idi)", 40, 90.0, 1));
    EXPECT_EQ(change_count(room), 5U);
}

// Its other connection keeps the session, which a monitored client would otherwise lose.
TEST(Command, ClosesTheConnectionOfAFrameAboveTheLimit) {
    constexpr size_t max_frame_bytes = 10 * 1024 * 1024;
    Gateway gateway;
    RemoteClient panel("panel-1"), second("panel-1"), other("panel-2");
    const Ports ports = panel.log_in({.monitor = true});
    panel.read(name_key);
    second.connect_to(ports);
    other.log_in();
    EXPECT_EQ(second.exchange(Channel::command, {std::string(max_frame_bytes, 'x')}), "");
    gateway.service().expect_no_log_before("DISCONNECTED socket", "[CLIENT] error encoding");

    second.send(Channel::command, {std::string(max_frame_bytes + 1, 'x')});
    gateway.expect_log({"DISCONNECTED socket", "client deconnection but it is not the last one: (panel-1) 1"});
    second.hang_up();
    EXPECT_EQ(panel.read(name_key).value().text(), name_value);
    EXPECT_EQ(other.read(name_key).value().text(), name_value);
    second.connect_to(ports);
    EXPECT_EQ(second.read(name_key).value().text(), name_value);
}

struct FlagsCase {
    uint32_t flags;
    const char *call, *signature;
};
constexpr FlagsCase read_flags[] = {
    {0x2000,     "Read (uint32 8192, '/Device/Config/Name')",       "s"    },
    {0x3801,     "Read (uint32 14337, '/Device/Config/Name')",      "s"    },
    {0xFFFFFFFF, "Read (uint32 4294967295, '/Device/Config/Name')", "s"    },
    {0,          "Read (uint32 0, '/Device/Config/Name')",          "a{ss}"},
    {0xFFFFDFFF, "Read (uint32 4294959103, '/Device/Config/Name')", "a{ss}"},
};

TEST(DataAccess, PassesTheFlagsOfAReadOn) {
    Room room;
    for (const FlagsCase &row : read_flags) {
        SCOPED_TRACE(row.call);
        const wire::Reply reply = room.panel.read(name_key, row.flags);
        room.gateway.device().expect_log({row.call});
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.value().key(), name_key);
        EXPECT_EQ(reply.value().signature(), row.signature);
    }
}

struct TypeCase {
    uint32_t type;
    const char *log, *call;
    bool lock;
};
constexpr TypeCase write_types[] = {
    {0,          "0x0",        "Write (0, '/Device/Config/Name', 'Hall')",    false},
    {1,          "0x1",        "Write (1, '/Device/Config/Name', 'Hall')",    false},
    {0x801,      "0x801",      "Write (2049, '/Device/Config/Name', 'Hall')", false},
    {0xFFFFEFFF, "0xFFFFEFFF", "Write (2049, '/Device/Config/Name', 'Hall')", false},
    {0x1000,     "0x1000",     "Write (4096, '/Device/Config/Name', 'Hall')", true },
    {0xFFFF,     "0xFFFF",     "Write (6145, '/Device/Config/Name', 'Hall')", true },
};

TEST(DataAccess, MasksTheTypeOfAWrite) {
    Room room;
    for (const TypeCase &row : write_types) {
        SCOPED_TRACE(row.log);
        const wire::Reply reply = room.panel.write(name_key, "Hall", row.type);
        room.gateway.device().expect_log({row.call});
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.write().type(), row.type);
        room.gateway.expect_log({std::string("write k=/Device/Config/Name, v=Hall, t=") + row.log});
        const Texts log = room.gateway.service().log_until("write ok with retval=0");
        EXPECT_EQ(!log.empty() && log.front() == "locking does not have blacklist", row.lock);
    }
}

TEST(DataAccess, WritesWhatIsThenRead) {
    Room room;
    for (const std::string &value : {std::string(), std::string("Bühne 舞台 %s%n"), std::string(2'000'000, 'v')}) {
        SCOPED_TRACE(value.substr(0, 20));
        EXPECT_EQ(room.panel.write(name_key, value).status(), wire::STATUS_OK);
        EXPECT_EQ(room.panel.read(name_key).value().text(), value);
    }
}

TEST(DataAccess, RefusesWhatCannotBeCarriedOut) {
    Room room;
    EXPECT_EQ(room.panel.write("", "Hall").write().result(), -1);
    EXPECT_EQ(room.panel.write(name_key, std::nullopt).write().result(), -1);
    EXPECT_EQ(room.panel.read("").status(), wire::STATUS_REFUSED);
    room.gateway.expect_log({"NULL KEY", "NULL VALUE", "not possible to read NULL or empty key"});
    room.expect_no_call();
    EXPECT_EQ(room.panel.read("/no/such/key").status(), wire::STATUS_REFUSED);
    room.gateway.expect_log({"unable to call method for DBUS datad proxy: *no such key: /no/such/key"});
    EXPECT_EQ(room.panel.write("/no/such/key", "Hall").status(), wire::STATUS_REFUSED);
    room.gateway.expect_log({"write ok with retval=-1"});
}

struct PairsCase {
    const char *why;
    Pairs pairs;
    const char *sent;
    size_t discarded;
};
const OptionalText none = std::nullopt;
const PairsCase multi_writes[] = {
    {"two keys",         {{"/a", "A"}, {"/b", "B"}},              "[(1, '/a', 'A'), (1, '/b', 'B')]", 0},
    {"one key twice",    {{"/a", "B"}, {"/a", "A"}},              "[(1, '/a', 'B'), (1, '/a', 'A')]", 0},
    {"an empty key",     {{"", "A"}, {"/b", ""}},                 "[(1, '', 'A'), (1, '/b', '')]",    0},
    {"one has no value", {{"/a", none}, {"/b", "B"}},             "[(1, '/b', 'B')]",                 1},
    {"one has no key",   {{"/a", "A"}, {none, "B"}},              "[(1, '/a', 'A')]",                 1},
    {"none is whole",    {{"/a", none}, {none, "B"}, {"", none}}, "@a(iss) []",                       3},
};

TEST(DataAccess, WritesManyKeysInOneCall) {
    Room room;
    for (const PairsCase &row : multi_writes) {
        SCOPED_TRACE(row.why);
        const wire::Reply reply = room.panel.multi_write(row.pairs);
        room.gateway.device().expect_log({std::string("MultiWrite (") + row.sent + ",)"});
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.multi_write().pairs_size(), static_cast<int>(row.pairs.size()));
        room.gateway.expect_log({"multiwrite autorize all keys"});
        EXPECT_EQ(room.gateway.service().log_until("set broadcast to other client"),
                  Texts(row.discarded, "discard NULL"));
    }
    EXPECT_EQ(room.panel.multi_write({}).status(), wire::STATUS_OK);
    room.gateway.expect_log({"nothing to write"});
    room.expect_no_call("MultiWrite*");

    const auto results = room.panel
                             .multi_write({
                                 {"/a",     "A"    },
                                 {name_key, "Foyer"}
    })
                             .multi_write()
                             .results();
    EXPECT_EQ(Texts(results.begin(), results.end()), (Texts{"NO SUCH KEY", "OK"}));
    EXPECT_EQ(room.panel.read(name_key).value().text(), "Foyer");
}

constexpr const char *mask = "********";

TEST(DataAccess, ReadsBranches) {
    for (const bool hide : {false, true}) {
        SCOPED_TRACE(hide);
        Room room({.hide_secure_info = hide});
        const std::string password = hide ? mask : "changeme", pin = hide ? mask : "0000";
        const wire::Value branch = room.panel.read("/Device/Config/Security", 0).value();
        Pairs entries;
        for (const wire::Pair &pair : branch.entries()) entries.emplace_back(pair.key(), pair.value());
        EXPECT_EQ(entries, (Pairs{
                               {"/Device/Config/Security/Administrator/Password", password},
                               {"/Device/Config/Security/FrontPanel/Lock",        "0"     },
                               {"/Device/Config/Security/FrontPanel/Pin",         pin     },
        }));
        EXPECT_EQ(branch.text(), "");
        EXPECT_EQ(room.panel.read("/Device/Config/Security/FrontPanel/Pin").value().text(), pin);
        EXPECT_EQ(room.panel.read("/Device/Config/Networking/Wifi/Ssid").value().text(), "stage-left");
    }
}

}  // namespace
