// A logged-in client's command socket: what it answers, and what of it reaches the data service and comes back.
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "harness/fixtures.h"

struct Command : testing::Test, LoggedInFixture {};
using DataAccess = Command;

static std::string read_request(const std::string &client_id) {
    wire::Message message;
    message.mutable_request()->set_client_id(client_id);
    message.mutable_request()->mutable_read()->set_key(name_key);
    message.mutable_request()->mutable_read()->set_flags(RemoteClient::single);
    return message.SerializeAsString();
}

static const std::string a_read = read_request("panel-1");
static const Texts two_requests = {a_read, a_read}, many_pieces(200, a_read);
static const struct {
    const char *why;
    Texts frames;
} no_requests[] = {
    {"no message at all",        {"\xff\xff\xff\xff"}},
    {"two requests in one",      two_requests        },
    {"an envelope of its own",   {"", a_read}        },
    {"a request in many pieces", many_pieces         },
};

TEST_F(Command, AnswersWhatIsNoRequestOnceAndEmpty) {
    for (const auto &row : no_requests) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(panel.exchange(Channel::command, row.frames), "");
        gateway.expect_log({"*:client_read:* - error data not parsable", "[CLIENT] error encoding"});
        panel.write("", "");
        gateway.service().expect_no_log_before("*error*", "write k=, v=, t=0x0");
        EXPECT_EQ(panel.read(name_key).value().text(), name_value);
    }
}

TEST_F(Command, ServesAndEchoesWhateverIdARequestCarries) {
    for (const std::string &id : {std::string("somebody else"), std::string(), std::string(70000, 'i')}) {
        SCOPED_TRACE(id.substr(0, 20));
        wire::Message answer;
        ASSERT_TRUE(answer.ParseFromString(panel.exchange(Channel::command, {read_request(id)})));
        EXPECT_TRUE(answer.reply().client_id() == id);
        EXPECT_EQ(answer.reply().value().text(), name_value);
    }
}

// Its other connection keeps the session, which a monitored client would otherwise lose.
TEST(FrameAboveTheLimit, ClosesItsConnectionAlone) {
    constexpr size_t max_frame_bytes = size_t{10} * 1024 * 1024;
    Gateway gateway;
    RemoteClient panel("panel-1"), second("panel-1");
    const Ports ports = panel.log_in({.monitor = true});
    panel.read(name_key);
    second.connect_to(ports);
    EXPECT_EQ(second.exchange(Channel::command, {std::string(max_frame_bytes, 'x')}), "");
    gateway.service().expect_no_log_before("DISCONNECTED socket", "[CLIENT] error encoding");

    second.send(Channel::command, {std::string(max_frame_bytes + 1, 'x')});
    gateway.expect_log({"DISCONNECTED socket", "client deconnection but it is not the last one: (panel-1) 1"});
    second.hang_up();
    EXPECT_EQ(panel.read(name_key).value().text(), name_value);
    second.connect_to(ports);
    EXPECT_EQ(second.read(name_key).value().text(), name_value);
}

TEST_F(DataAccess, PassesTheFlagsOfAReadOn) {
    for (const uint32_t flags : {0x2000U, 0xFFFFFFFFU, 0U, 0xFFFFDFFFU}) {
        const wire::Reply reply = panel.read(name_key, flags);
        gateway.device().expect_log({"Read (uint32 " + std::to_string(flags) + ", '/Device/Config/Name')"});
        EXPECT_EQ(reply.value().key(), name_key);
        EXPECT_EQ(reply.value().signature(), (flags & 0x2000) != 0 ? "s" : "a{ss}");
    }
}

TEST_F(DataAccess, MasksTheTypeOfAWrite) {
    for (const auto &[type, sent] : {
             std::pair(1U, "1"), {0xFFFFEFFFU, "2049"},
               {0x1000U,     "4096"},
               {0xFFFFU,     "6145"}
    }) {
        SCOPED_TRACE(type);
        const wire::Reply reply = panel.write(name_key, "Hall", type);
        gateway.device().expect_log({std::string("Write (") + sent + ", '/Device/Config/Name', 'Hall')"});
        EXPECT_EQ(reply.write().type(), type);
        gateway.expect_log({"write k=/Device/Config/Name, v=Hall, t=0x*"});
        const Texts log = gateway.service().log_until("write ok with retval=0");
        EXPECT_EQ(!log.empty() && log.front() == "locking does not have blacklist", (type & 0x1000) != 0);
    }
}

TEST_F(DataAccess, WritesWhatIsThenRead) {
    for (const std::string &value : {std::string(), std::string("Bühne 舞台 %s%n"), std::string(2'000'000, 'v')}) {
        EXPECT_EQ(panel.write(name_key, value).status(), wire::STATUS_OK);
        EXPECT_TRUE(panel.read(name_key).value().text() == value) << value.substr(0, 20);
    }
}

TEST_F(DataAccess, TellsTheDeviceNothingOfWhatIsIncomplete) {
    EXPECT_EQ(panel.write("", "Hall").write().result(), -1);
    EXPECT_EQ(panel.write(name_key, std::nullopt).write().result(), -1);
    EXPECT_EQ(panel.read("").status(), wire::STATUS_REFUSED);
    const wire::Reply last = panel.multi_write({});
    EXPECT_EQ(last.status(), wire::STATUS_OK);
    EXPECT_EQ(last.change_count(), 0u) << "no change, and so no echo";
    gateway.expect_log({"NULL KEY", "NULL VALUE", "not possible to read NULL or empty key", "nothing to write"});
    expect_no_call();
}

static const OptionalText none = std::nullopt;
static const struct {
    const char *why;
    Pairs pairs;
    const char *sent;
    size_t discarded;
} multi_writes[] = {
    {"one key twice",    {{"/a", "B"}, {"/a", "A"}},              "[(1, '/a', 'B'), (1, '/a', 'A')]", 0},
    {"an empty key",     {{"", "A"}, {"/b", ""}},                 "[(1, '', 'A'), (1, '/b', '')]",    0},
    {"one has no value", {{"/a", none}, {"/b", "B"}},             "[(1, '/b', 'B')]",                 1},
    {"one has no key",   {{"/a", "A"}, {none, "B"}},              "[(1, '/a', 'A')]",                 1},
    {"none is whole",    {{"/a", none}, {none, "B"}, {"", none}}, "@a(iss) []",                       3},
};

TEST_F(DataAccess, WritesManyKeysInOneCall) {
    for (const auto &row : multi_writes) {
        SCOPED_TRACE(row.why);
        const wire::Reply reply = panel.multi_write(row.pairs);
        gateway.device().expect_log({std::string("MultiWrite (") + row.sent + ",)"});
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.multi_write().pairs_size(), static_cast<int>(row.pairs.size()));
        gateway.expect_log({"multiwrite autorize all keys"});
        EXPECT_EQ(gateway.service().log_until("set broadcast to other client"), Texts(row.discarded, "discard NULL"));
    }
    Pairs unknown_and_known(2, {"/a", "Foyer"});
    unknown_and_known[1].first = name_key;
    const auto results = panel.multi_write(unknown_and_known).multi_write().results();
    EXPECT_EQ(Texts(results.begin(), results.end()), (Texts{"NO SUCH KEY", "OK"}));
}
