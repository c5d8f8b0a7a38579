// What the user of a session may read and write, over the wire and down to the device.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "harness/room.h"

namespace {

const LoginOptions as_root, as_quillmont = {.user_name = "quillmont", .password = "tandrivel"};

constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial";  // position 77

using Pairs = std::vector<std::pair<OptionalText, OptionalText>>;

// The keys that are not everybody's to write, in their order.
std::vector<std::string> listed_keys() {
    const std::string live = "/Device/Audio/Presets/Live/";
    std::vector<std::string> keys;
    for (const std::string key :
         {"PreOutputProcess/Channels/Channel-#/IIR", "OutputProcess/Channels/Channel-#/IIR",
          "OutputProcess/Channels/Channel-#/TruePowerLimiter", "OutputProcess/Channels/Channel-#/CurrentLimiterRMS",
          "OutputProcess/Channels/Channel-#/DynamicEq", "OutputProcess/Channels/Channel-#/ClipLimiter",
          "OutputProcess/Channels/Channel-#/PeakLimiter", "OutputProcess/Channels/Channel-#/VoltageLimiterRMS",
          "OutputProcess/Channels/Channel-#/Feedloop"})
        for (const char channel : {'0', '1', '2', '3', '4', '5', '6', '7'})
            keys.push_back((live + key).replace(live.size() + key.find('#'), 1, 1, channel));
    for (const char *key :
         {"Hardware/Channels", "Hardware/Model/Family", "Hardware/Model/Mac", "Hardware/Model/Manufacturer",
          "Hardware/Model/Model", "Hardware/Model/Serial", "Networking/Ethernet/Dhcp/Enable", "Networking/Ethernet/Dns",
          "Networking/Ethernet/Gateway", "Networking/Ethernet/Ip", "Networking/Ethernet/Netmask",
          "Software/Firmware/Version", "EASY_SWAP_ID"})
        keys.push_back(std::string("/Device/Config/") + key);
    return keys;
}

constexpr const char *listed_branches[] = {"/", "/Device/Audio", "/Device/Audio/", "/Device/Audio/Presets",
                                           "/Device/Audio/Presets/"};
constexpr uint32_t branch = 0;  // flags of a read

TEST(Rights, KeepARestrictedUserFromWritingTheListedKeys) {
    Room room(as_quillmont);
    const auto keys = listed_keys();
    ASSERT_EQ(keys.size(), 85U);
    ASSERT_EQ(keys[77], serial_key);
    for (size_t i = 0; i < keys.size(); i++) {
        SCOPED_TRACE(keys[i]);
        const wire::Reply reply = room.panel.write(keys[i], "7");
        EXPECT_EQ(reply.status(), wire::STATUS_REFUSED);
        EXPECT_EQ(reply.write().result(), -1);
        EXPECT_EQ(reply.write().key(), keys[i]);
        EXPECT_EQ(reply.change_count(), 0U);
        room.gateway.expect_log({"write k=" + keys[i] + ", v=7, t=0x0",
                                 "key in blaklist write [" + std::to_string(i) + "]", "not autorized"});
    }
    room.expect_no_call();
}

TEST(Rights, KeepARestrictedUserFromReadingTheListedBranches) {
    Room room(as_quillmont);
    for (int i = 0; const char *key : listed_branches) {
        SCOPED_TRACE(key);
        const wire::Reply reply = room.panel.read(key, branch);
        EXPECT_EQ(reply.status(), wire::STATUS_REFUSED);
        EXPECT_FALSE(reply.has_value());
        room.gateway.expect_log({"key in blaklist read recursive [" + std::to_string(i++) + "]", "not autorized"});
    }
    EXPECT_EQ(room.panel.read("/", ~RemoteClient::single).status(), wire::STATUS_REFUSED);
    room.expect_no_call();
}

TEST(Rights, KeepNothingFromRoot) {
    Room room(as_root);
    for (const std::string &key : listed_keys()) {
        EXPECT_EQ(room.panel.write(key, "7").status(), wire::STATUS_OK) << key;
        EXPECT_EQ(room.panel.read(key).value().text(), "7") << key;
    }
    for (const char *key : listed_branches) {
        const wire::Reply reply = room.panel.read(key, branch);
        EXPECT_EQ(reply.status(), wire::STATUS_OK) << key;
        EXPECT_GT(reply.value().entries_size(), 100) << key;
    }
    EXPECT_EQ(room.panel.multi_write(Pairs(1, {serial_key, "8"})).multi_write().results(0), "OK");
}

// The device answers -1 for a key that it does not have; what counts is that it was asked.
constexpr const char *near_misses[] = {
    "/device/config/hardware/model/serial",
    "/Device/Config/Hardware/Model/Serial/",
    "/Device/Config/Hardware/Model",
    "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-8/IIR",
    "/Device/Audio/Presets/Live/PreOutputProcess/Channels/Channel-0/Feedloop",
    "/",
};

TEST(Rights, CompareKeysWholeAndExactly) {
    Room room(as_quillmont);
    for (const std::string key : near_misses) {
        SCOPED_TRACE(key);
        room.panel.write(key, "7");
        room.gateway.device().expect_log({"Write (0, '" + key + "', '7')"});
    }
    for (const std::string key : {"//", "/Device", "/device/audio", "/Device/Audio/Presets//", "/Device/Config"}) {
        SCOPED_TRACE(key);
        room.panel.read(key, branch);
        room.gateway.device().expect_log({"Read (uint32 0, '" + key + "')"});
    }
    EXPECT_EQ(room.panel.read("/Device/Audio/Presets/Live", branch).status(), wire::STATUS_OK);
}

TEST(Rights, LeaveSingleReadsAndLocksToEverybody) {
    Room room(as_quillmont);
    for (const std::string key : listed_branches) {
        SCOPED_TRACE(key);
        EXPECT_EQ(room.panel.read(key).status(), wire::STATUS_REFUSED);  // by the device, which has no such key
        room.gateway.device().expect_log({"Read (uint32 8192, '" + key + "')"});
    }
    for (const std::string &key : listed_keys())
        EXPECT_EQ(room.panel.read(key, branch).status(), wire::STATUS_OK) << key;

    EXPECT_EQ(room.panel.write(serial_key, "1", 0x1000).write().result(), 0);
    room.gateway.expect_log({"locking does not have blacklist", "write ok with retval=0"});
    room.gateway.device().expect_log({"Write (4096, '/Device/Config/Hardware/Model/Serial', '1')"});
    EXPECT_EQ(room.panel.write(serial_key, "1", 0xEFFF).write().result(), -1);  // every bit but the lock's
    EXPECT_EQ(room.panel.read(serial_key).value().text(), "QM240817");
}

struct ForbiddenCase {
    const char *why;
    Pairs pairs;
    const char *position;
};
const ForbiddenCase forbidden[] = {
    {"the first",            {{serial_key, "A"}, {name_key, "B"}, {name_key, "C"}},                "[77]"},
    {"the second",           {{name_key, "A"}, {serial_key, "B"}, {name_key, "C"}},                "[77]"},
    {"the last",             {{name_key, "A"}, {name_key, "B"}, {serial_key, "C"}},                "[77]"},
    {"two, the first tells", {{"/Device/Config/EASY_SWAP_ID", "A"}, {serial_key, "B"}},            "[84]"},
    {"one without a value",  {{name_key, "A"}, {serial_key, std::nullopt}},                        "[77]"},
    {"behind no keys",       {{"", "A"}, {std::nullopt, "B"}, {serial_key, "C"}, {name_key, "D"}}, "[77]"},
};

TEST(Rights, WriteNothingWhenOneOfManyKeysIsListed) {
    Room room(as_quillmont);
    for (const ForbiddenCase &row : forbidden) {
        SCOPED_TRACE(row.why);
        const wire::Reply reply = room.panel.multi_write(row.pairs);
        EXPECT_EQ(reply.status(), wire::STATUS_REFUSED);
        EXPECT_EQ(reply.multi_write().pairs_size(), static_cast<int>(row.pairs.size()));
        EXPECT_EQ(reply.multi_write().results_size(), 0);
        EXPECT_EQ(reply.change_count(), 0U);
        room.gateway.expect_log({std::string("key in blaklist write ") + row.position, "key not autorized"});
    }
    room.expect_no_call();
    room.panel.multi_write({
        {"",           "A"},
        {std::nullopt, "B"},
        {name_key,     "C"}
    });
    room.gateway.device().expect_log({"MultiWrite ([(1, '', 'A'), (1, '/Device/Config/Name', 'C')],)"});
}

struct QuestionCase {
    uint32_t operation;
    const char *key;
    bool recursive, quillmont, root;
};
constexpr QuestionCase questions[] = {
    {2, "/",        false, true,  true },
    {2, "/",        true,  false, true },
    {4, serial_key, false, false, true },
    {4, "/",        true,  true,  true },
    {8, serial_key, true,  true,  true },
    {8, "",         false, false, false},
    {6, name_key,   false, false, false},
};

TEST(Rights, CanBeAskedFor) {
    Gateway gateway;
    RemoteClient panel("panel-1"), owner("panel-2");
    panel.log_in(as_quillmont);
    owner.log_in(as_root);
    for (const QuestionCase &row : questions) {
        SCOPED_TRACE(std::to_string(row.operation) + ' ' + row.key);
        const wire::Reply reply = panel.authorize(row.operation, row.key, row.recursive);
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.authorization().allowed(), row.quillmont);
        EXPECT_EQ(owner.authorize(row.operation, row.key, row.recursive).authorization().allowed(), row.root);
    }
}

TEST(Rights, AreThoseOfTheSocketWhateverIdARequestCarries) {
    Gateway gateway;
    RemoteClient panel("panel-1"), owner("panel-2");
    panel.log_in(as_quillmont);
    owner.log_in(as_root);
    wire::Request request;
    request.set_client_id("panel-2");
    request.mutable_write()->set_key(serial_key);
    request.mutable_write()->set_value("7");
    EXPECT_EQ(panel.ask(Channel::command, request).status(), wire::STATUS_REFUSED);
    request.set_client_id("panel-1");
    EXPECT_EQ(owner.ask(Channel::command, request).status(), wire::STATUS_OK);
}

}  // namespace
