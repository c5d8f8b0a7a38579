// What the user of a session may read and write, over the wire and down to the device.
#include <string>

#include <gtest/gtest.h>

#include "harness/fixtures.h"

struct RightsOfRoot : testing::Test, LoggedInFixture {};
struct Rights : testing::Test, LoggedInFixture {
    Rights() : LoggedInFixture(as_quillmont) {}
};

static constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial";  // position 77
static constexpr const char *listed_branches[] = {"/", "/Device/Audio", "/Device/Audio/", "/Device/Audio/Presets",
                                                  "/Device/Audio/Presets/"};
static constexpr uint32_t branch = 0;  // flags of a read

// The keys that only root may write, in the order of the service's list.
static Texts listed_keys() {
    Texts keys;
    for (const std::string key :
         {"PreOutput#IIR", "Output#IIR", "Output#TruePowerLimiter", "Output#CurrentLimiterRMS", "Output#DynamicEq",
          "Output#ClipLimiter", "Output#PeakLimiter", "Output#VoltageLimiterRMS", "Output#Feedloop"})
        for (char channel = '0'; channel < '8'; ++channel) {
            const std::string place = std::string("Process/Channels/Channel-") + channel + '/';
            keys.push_back("/Device/Audio/Presets/Live/" + std::string(key).replace(key.find('#'), 1, place));
        }
    for (const char *key :
         {"Hardware/Channels", "Hardware/Model/Family", "Hardware/Model/Mac", "Hardware/Model/Manufacturer",
          "Hardware/Model/Model", "Hardware/Model/Serial", "Networking/Ethernet/Dhcp/Enable", "Networking/Ethernet/Dns",
          "Networking/Ethernet/Gateway", "Networking/Ethernet/Ip", "Networking/Ethernet/Netmask",
          "Software/Firmware/Version", "EASY_SWAP_ID"})
        keys.push_back(std::string("/Device/Config/") + key);
    return keys;
}

TEST_F(Rights, KeepARestrictedUserFromTheListedKeysAndBranches) {
    for (int i = 0; const std::string &key : listed_keys()) {
        EXPECT_EQ(panel.write(key, "7").status(), wire::STATUS_REFUSED) << key;
        gateway.expect_log({"key in blaklist write [" + std::to_string(i++) + "]", "not autorized"});
    }
    for (int i = 0; const char *key : listed_branches) {
        EXPECT_EQ(panel.read(key, branch).status(), wire::STATUS_REFUSED) << key;
        gateway.expect_log({"key in blaklist read recursive [" + std::to_string(i++) + "]", "not autorized"});
    }
    EXPECT_EQ(panel.read("/", ~RemoteClient::single).status(), wire::STATUS_REFUSED);
    expect_no_call();
}

TEST_F(RightsOfRoot, AreLimitedOnAnothersSocketOnly) {
    for (const std::string &key : listed_keys()) EXPECT_EQ(panel.write(key, "7").status(), wire::STATUS_OK) << key;
    for (const char *key : listed_branches) EXPECT_GT(panel.read(key, branch).value().entries_size(), 100) << key;
    EXPECT_EQ(panel.multi_write(Pairs(1, {serial_key, "8"})).multi_write().results(0), "OK");
    RemoteClient restricted("panel-2");
    panel.connect_to(restricted.log_in(as_quillmont));
    EXPECT_EQ(panel.write(serial_key, "7").status(), wire::STATUS_REFUSED);
}

// The device answers -1 for a key that it does not have; what counts is that it was asked.
TEST_F(Rights, LeaveWhatIsNotListedToEverybody) {
    for (const std::string key :
         {"/device/config/hardware/model/serial", "/Device/Config/Hardware/Model/Serial/",
          "/Device/Config/Hardware/Model", "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-8/IIR",
          "/Device/Audio/Presets/Live/PreOutputProcess/Channels/Channel-0/Feedloop", "/"}) {
        panel.write(key, "7");
        gateway.device().expect_log({"Write (0, '" + key + "', '7')"});
    }
    for (const std::string key : {"//", "/Device", "/device/audio", "/Device/Audio/Presets//", serial_key}) {
        panel.read(key, branch);
        gateway.device().expect_log({"Read (uint32 0, '" + key + "')"});
    }
    for (const std::string key : listed_branches) {
        panel.read(key);
        gateway.device().expect_log({"Read (uint32 8192, '" + key + "')"});
    }
    EXPECT_EQ(panel.write(serial_key, "1", 0x1000).write().result(), 0);
    EXPECT_EQ(panel.write(serial_key, "1", 0xEFFF).write().result(), -1);  // every bit but the lock's
}

static const struct {
    const char *why;
    Pairs pairs;
    const char *position;
} forbidden[] = {
    {"the last",             {{name_key, "A"}, {name_key, "B"}, {serial_key, std::nullopt}}, "[77]"},
    {"two, the first tells", {{"/Device/Config/EASY_SWAP_ID", "A"}, {serial_key, "B"}},      "[84]"},
    {"behind no keys",       {{"", "A"}, {std::nullopt, "B"}, {serial_key, "C"}},            "[77]"},
};

TEST_F(Rights, WriteNothingWhenOneOfManyKeysIsListed) {
    for (const auto &row : forbidden) {
        SCOPED_TRACE(row.why);
        const wire::Reply reply = panel.multi_write(row.pairs);
        EXPECT_EQ(reply.status(), wire::STATUS_REFUSED);
        EXPECT_EQ(reply.multi_write().results_size(), 0);
        gateway.expect_log({std::string("key in blaklist write ") + row.position, "key not autorized"});
    }
    expect_no_call();
    EXPECT_EQ(panel.multi_write(Pairs(2, {"", "A"})).status(), wire::STATUS_OK);
}

static constexpr struct {
    uint32_t operation;
    const char *key;
    uint32_t recursive;
    bool allowed;
} questions[] = {
    {2, "/",        0, true },
    {2, "/",        1, false},
    {2, "/",        2, false},
    {4, serial_key, 0, false},
    {8, serial_key, 1, true },
    {3, name_key,   0, false},
    {8, "",         0, false},
};

TEST_F(Rights, CanBeAskedFor) {
    for (const auto &row : questions) {
        SCOPED_TRACE(std::to_string(row.operation) + ' ' + row.key);
        const wire::Reply reply = panel.authorize(row.operation, row.key, row.recursive);
        EXPECT_EQ(reply.authorization().allowed(), row.allowed);
        EXPECT_EQ(reply.change_count(), 0u);
    }
}
