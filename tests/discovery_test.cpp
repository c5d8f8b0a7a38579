// What the service says of the device: to a client that asks by UDP, in files, and to logged-in clients.
#include "harness/discovery.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <regex>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "harness/fixtures.h"

struct DiscoveryRequest : testing::Test, GatewayFixture {
    Discovery discovery;
};
using DiscoveryReply = DiscoveryRequest;
using DiscoveryFiles = DiscoveryRequest;

static constexpr const char *added = "[DISCOVERY] added client: panel-1";
static constexpr const char *known =
    "[DISCOVERY] client: panel-1 already discovered and active (never logged out) (panel-1)";
static constexpr const char *dropped = "free local client no map remove";
static constexpr const char *plain_text = "@?DKX8-3000|1.12.1.32|QM240817|?|||QM240817|4221=ON!";
static constexpr const char *plain_files = "QM240817|KX8-3000|DKX8-3000_ND|1.12.1.32|8|||QM240817||?|4221=ON|";

static constexpr const char *file_names[] = {"serial",           "hw_model",       "full_model", "fw_version",
                                             "hw_channels",      "oem_manufacter", "oem_model",  "oem_serial",
                                             "commercial_model", "dante",          "extra"};

static std::string path_of(const std::string &name) { return "/tmp/discovery_" + name + ".txt"; }

static std::string content_of(const char *name) {
    std::ifstream file(path_of(name));
    if (!file) return "(cannot be read)";
    return {std::istreambuf_iterator<char>(file), {}};
}

static std::string all_files() {
    std::string contents;
    for (const char *name : file_names) contents += content_of(name) + '|';
    return contents;
}

static std::string text_for(RemoteClient &client, Channel channel) {
    std::string text = client.discovery_text(channel);
    std::replace(text.begin(), text.end(), '\x1c', '|');
    return text;
}

static constexpr const char *all_settings =
    "export hw_serial=H-1 oem_serial=O-2 hw_model=KX4 oem_manufacter='Oem & Co' oem_model=OX commercial_model=Concert "
    "ENABLE4221=off HAS_LUMAVERSA=on KESTO_SLOT_ID=3 KESTO_AMP_NAME='Stage left'";
static constexpr const char *plain_reply =
    "@?DKX8-3000|1.12.1.32|QM240817|ZMQ:60000|ZMQ:61000||?||||QM240817|17|Harbour hall|4221=ON!";
static constexpr const char *set_reply =
    "@?DKX4|1.12.1.32|O-2|ZMQ:60000|ZMQ:61000||+|Oem & Co|OX|Stage left|H-1|17|Harbour hall|4221=OFF,LUMAVERSA=ON!";
static constexpr const char *set_text = "@?DKX4|1.12.1.32|O-2|+|Oem & Co|OX|H-1|4221=OFF,LUMAVERSA=ON!";
static constexpr const char *set_files = "H-1|KX4|DKX4_P|1.12.1.32|8|Oem & Co|OX|O-2|Concert|+|4221=OFF,LUMAVERSA=ON|";
static constexpr const char *loopback_reply =
    "@?DKX8-3000|1.12.1.32|QM240817|ZMQ:0|ZMQ:0||?||||QM240817|17|Harbour hall|4221=ON!";
static constexpr struct {
    const char *settings, *reply, *text, *files;
} devices[] = {
    {":",                              plain_reply,    plain_text, plain_files},
    {all_settings,                     set_reply,      set_text,   set_files  },
    {"export ZMQ_ACCESS_IP=127.0.0.1", loopback_reply, plain_text, plain_files},
};

TEST(Discovery, DescribesTheDevice) {
    umask(022);
    for (const auto &row : devices) {
        SCOPED_TRACE(row.settings);
        Gateway gateway({.prepared_by = row.settings});
        EXPECT_EQ(all_files(), row.files);
        EXPECT_EQ(std::filesystem::status(path_of("serial")).permissions(), std::filesystem::perms{0644});
        EXPECT_EQ(Discovery().find("panel-1"), row.reply);
        RemoteClient panel("panel-1");
        panel.log_in();
        EXPECT_EQ(text_for(panel, Channel::authentication), row.text);
        EXPECT_EQ(text_for(panel, Channel::command), row.text);
    }
}

// A name with letters of two bytes from its 255th byte on: it is cut between them.
static const std::string cut_name(254, 'a'), long_name = cut_name + "éééé",
                                             in_its_place = "|" + cut_name + "|QM240817|";

static const struct {
    const char *variable;
    std::string value, in_reply;
    const char *file, *content;
} settings[] = {
    {"hw_serial",      "",        "|4221=ON!",              "serial",     ""                    },
    {"hw_model",       "",        "|4221=ON!",              "hw_model",   ""                    },
    {"oem_serial",     "",        "|4221=ON!",              "oem_serial", ""                    },
    {"ENABLE4221",     "",        "|4221=ON!",              "extra",      "4221=ON"             },
    {"ENABLE4221",     "1",       "|4221=ON!",              "extra",      "4221=ON"             },
    {"ENABLE4221",     "ON",      "|4221=OFF!",             "extra",      "4221=OFF"            },
    {"HAS_LUMAVERSA",  "",        "|4221=ON!",              "extra",      "4221=ON"             },
    {"HAS_LUMAVERSA",  "on",      "|4221=ON,LUMAVERSA=ON!", "extra",      "4221=ON,LUMAVERSA=ON"},
    {"HAS_LUMAVERSA",  "yes",     "|4221=ON!",              "extra",      "4221=ON"             },
    {"KESTO_AMP_NAME", long_name, in_its_place,             "oem_model",  ""                    },
};

TEST(Discovery, TakesEachSettingAsItIs) {
    for (const auto &row : settings) {
        SCOPED_TRACE(row.variable + ("=" + row.value));
        Gateway gateway({.environment = {{row.variable, row.value}}});
        EXPECT_THAT(Discovery().find("panel-1"), testing::HasSubstr(row.in_reply));
        EXPECT_EQ(content_of(row.file), row.content);
    }
}

static constexpr struct {
    const char *id, *log, *mark, *full_model;
} slots[] = {
    {"1",  "slotid: 1 -",                          "-", "DKX8-3000_ND"},
    {"2",  "slotid: 2 D",                          "D", "DKX8-3000"   },
    {"3",  "slotid: 3 +",                          "+", "DKX8-3000_P" },
    {"4",  "not supported retcode for slotid: 4",  "?", "DKX8-3000_ND"},
    {"-1", "not supported retcode for slotid: -1", "?", "DKX8-3000_ND"},
    {"II", "KESTO_SLOT_ID is not used: *",         "?", "DKX8-3000_ND"},
};

TEST(Discovery, NamesTheSlotAndTheModelInIt) {
    for (const auto &row : slots) {
        SCOPED_TRACE(row.id);
        Gateway gateway({.environment = {{"KESTO_SLOT_ID", row.id}}});
        gateway.service().rewind().expect_log({row.log});
        EXPECT_THAT(Discovery().find("panel-1"), testing::HasSubstr("|ZMQ:61000||" + std::string(row.mark) + "|"));
        EXPECT_EQ(content_of("dante"), row.mark);
        EXPECT_EQ(content_of("full_model"), row.full_model);
    }
}

TEST(Discovery, LeavesOutOrCutsWhatIsTooLong) {
    constexpr size_t longest_model = 8190;
    for (const size_t length : {longest_model, longest_model + 1}) {
        SCOPED_TRACE(length);
        const std::string model(length, 'm');
        Gateway gateway({.environment = {{"hw_model", model}}});
        EXPECT_EQ(content_of("full_model"), length == longest_model ? "D" + model : "D_ND");
        RemoteClient panel("panel-1");
        EXPECT_THAT(text_for(panel, Channel::authentication), testing::SizeIs(8191));
    }
}

TEST_F(DiscoveryFiles, AreLeftAloneWhenTheyAreThere) {
    gateway.stop_service();
    std::ofstream(path_of("serial")) << "as it was";
    std::filesystem::remove(path_of("hw_model"));
    gateway.start_service();
    EXPECT_EQ(all_files(), "as it was" + std::string(plain_files).substr(8));
    std::filesystem::remove(path_of("serial"));
    EXPECT_EQ(text_for(panel, Channel::authentication), plain_text);
    EXPECT_FALSE(std::filesystem::exists(path_of("serial")));  // a start writes them, not a request
}

TEST(Discovery, WritesNoFileThroughALink) {
    Gateway gateway({.with_service = false});
    std::filesystem::create_symlink("/tmp/elsewhere", path_of("serial"));
    gateway.start_service();
    gateway.service().rewind().expect_log({"error writing on " + path_of("serial")});
    EXPECT_FALSE(std::filesystem::exists("/tmp/elsewhere"));
}

TEST_F(DiscoveryReply, HasTheProjectOfNowAndTheIdentityOfTheStart) {
    EXPECT_THAT(discovery.find("panel-1"), testing::EndsWith("|17|Harbour hall|4221=ON!"));
    gateway.control("Change", "('/Device/Config/PROJECT_INFO', 'Opera', '')");
    gateway.control("Change", "('/Device/Config/EASY_SWAP_ID', '18', '')");
    EXPECT_THAT(discovery.find("panel-1"), testing::EndsWith("|17|Opera|4221=ON!"));

    gateway.set_fault("read:/Device/Config/PROJECT_INFO=error");
    EXPECT_THAT(discovery.find("panel-1"), testing::EndsWith("|17||4221=ON!"));
    gateway.set_fault("read:/Device/Config/PROJECT_INFO=none");

    gateway.control("Change", ("('/Device/Config/PROJECT_INFO', '" + std::string(9000, 'p') + "', '')").c_str());
    EXPECT_THAT(discovery.find("panel-1"), testing::AllOf(testing::SizeIs(8191), testing::EndsWith("pppp")));
}

static const std::string bad_length = "[DISCOVERY] discarded... (r < 3) || (r >= BUFSIZ) ",
                         bad_frame = "[DISCOVERY] discarded... ";
static const std::string too_long = "@?" + std::string(8189, 'x') + "!", id_added = "[DISCOVERY] added client: ";
static const std::string longest_id(8191 - discovery_request("").size(), 'i'), nul_in_it("nul\0panel", 9);
static const std::string of_a_device =
    "@?DKX\0341.0\034\034ZMQ:60000\034ZMQ:61000\034\034?\034\034\034\034serial\034\034\0344221=ON!";
static const std::string of_a_device_log = bad_frame + "(" + std::to_string(of_a_device.size()) + " @ ? !)";
static const struct {
    const char *why;
    std::string datagram;
    bool answered;
    std::string log;
} requests[] = {
    {"too short",            "@!",                     false,                            bad_length + "(2)"         },
    {"wrong first byte",     "!?panel!",               false,                            bad_frame + "(8 ! ? !)"    },
    {"cut before its mark",  too_long,                 false,                            bad_frame + "(8191 @ ? x)" },
    {"a device's own reply", of_a_device,              false,                            of_a_device_log            },
    {"the shortest",         "@?!",                    true,                             id_added                   },
    {"a NUL behind it",      std::string("@?panel!\0", 9),                               false,                       bad_frame + "(9 @ ? ?)"},
    {"the longest",                      discovery_request(longest_id),                                  true,                id_added + longest_id     },
    {"an id like a port",                      discovery_request("ZMQ:60000"),                            true,         id_added + "ZMQ:60000"},
    {"a separator in the id",                      discovery_request("pa\x1cnel\x1c"),                        true, id_added + "pa\x1cnel\x1c" },
    {"an end mark in the id",                      discovery_request("pa!nel"),                        true,        id_added + "pa"      },
    {"a NUL in the id",                      discovery_request(nul_in_it),                              true,             id_added + "nul"},
    {"not UTF-8",                      discovery_request("pa\xffnel\xc3"),                                    true,             id_added + "pa\xffnel\xc3"},
};

TEST_F(DiscoveryRequest, MayHaveAnyBytesInsideItsFrame) {
    for (const auto &row : requests) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(discovery.ask(row.datagram).has_value(), row.answered);
        gateway.expect_log({row.log});
        if (!row.answered) gateway.service().expect_no_log_before(id_added + "*", "[DISCOVERY] received id=[fence]");
    }
    Discovery("127.255.255.255").send(discovery_request("from one to all"));
    gateway.expect_log({id_added + "from one to all"});
}

static constexpr int visitors_most = 1024;  // clients that are remembered without a session

static std::string visitor(int number) { return "visitor-" + std::to_string(number); }

TEST_F(DiscoveryRequest, ComesFromAClientUntilTooManyLaterOnesHaveCome) {
    for (int i = 0; i < visitors_most; i++) discovery.find(visitor(i), i == 0 ? KeyPair().public_pem() : "");
    discovery.find(visitor(0));
    gateway.expect_log({"[DISCOVERY] client: visitor-0 already discovered and active (never logged out) (visitor-0)"});
    discovery.find(visitor(visitors_most));
    gateway.expect_log({id_added + visitor(visitors_most)});
    discovery.find(visitor(1));  // the second oldest is still there
    gateway.expect_log({"[DISCOVERY] client: visitor-1 already discovered*"});
    discovery.find(visitor(0));
    gateway.expect_log({id_added + visitor(0)});
    for (int i = 0; i < 600; i++) discovery.find(visitor(i) + std::string(8000, 'i'));  // they hold more than 4 MiB
    discovery.find(visitor(0));
    gateway.expect_log({id_added + visitor(0)});
}

static constexpr const char *elliptic_key =
    "-----BEGIN PUBLIC KEY-----\n"
    "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE/fq1J9CxCaf3uS5bTLzOZSM2gAy1\n"
    "fUeqC0FWF3Y/oiOKaukyyFCq/QJ4EHEHLp5BI+4fmdh7bgqxJ7y7o10RMg==\n"
    "-----END PUBLIC KEY-----\n";

static std::string locked_key() {
    std::string pem = KeyPair().public_pem();
    return pem.insert(pem.find('\n') + 1,
                      "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
}

TEST_F(DiscoveryRequest, WithoutAProperKeyIsNotAnswered) {
    for (const std::string &key : Texts{"no key", elliptic_key, locked_key()}) {
        SCOPED_TRACE(key);
        EXPECT_FALSE(discovery.ask(discovery_request("panel-1", key)));
        gateway.expect_log({"*:client_process_discovery:* - kesto_pubkey_encrypt", "[DISCOVERY] received malformed",
                            "*:server_discovery:* - client_discovery_process", dropped, "free cl_pubkey",
                            "free cl_id"});
    }
    discovery.find("panel-1");
    gateway.expect_log({added});  // none of them had left a record
}

TEST_F(DiscoveryReply, WrapsTheSharedKeyForEachRequestOfAClientThatIsKnown) {
    for (const char *log : {added, known}) {
        const KeyPair key;
        const std::string reply = discovery.find("panel-1", key.public_pem());
        std::smatch found;
        ASSERT_TRUE(std::regex_search(reply, found, std::regex(R"(\|ZMQ:61000\|([0-9A-F]{512})\|\?\|)"))) << reply;
        EXPECT_EQ(key.unwrap(found[1]), "7D2E5A91C04BF368");
        gateway.expect_log({log});
    }
    gateway.expect_log({dropped});
    EXPECT_EQ(discovery.find("panel-1"), plain_reply);  // nothing to wrap it with, whatever the record has
    gateway.expect_log({known, dropped});

    EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
    gateway.expect_log({"login known client: panel-1"});
    panel.log_out();
    discovery.find("panel-1");
    gateway.expect_log({added});
}

static const struct {
    const char *why;
    Channel channel;
    OptionalText discovery;
    wire::Status status;
} first_requests[] = {
    {"any on the authentication socket",    Channel::authentication, std::nullopt,        wire::STATUS_OK     },
    {"a login with a text on the commands", Channel::command,        "of another device", wire::STATUS_REFUSED},
};

TEST(Discovery, WaitsForTheIdentityAndTheFilesForTheFirstRequestAfterIt) {
    for (const auto &row : first_requests) {
        SCOPED_TRACE(row.why);
        Gateway gateway({.with_device = false});
        gateway.service().rewind().expect_log({"result: 0", "NOT POSSIBLE COMPUTE STATIC DISCOVERY"});
        Discovery discovery;
        discovery.send(discovery_request("panel-1"));
        gateway.expect_log({"error reading CHANNELS. it can failt will be reread later",
                            "*:server_discovery:* - server data not available discrovery discard", dropped});
        RemoteClient panel("panel-2");
        EXPECT_EQ(panel.log_in({.discovery = "of another device"}), (Ports{62001, 63001}));  // nothing to compare
        EXPECT_EQ(text_for(panel, Channel::command), "");

        gateway.start_device();
        EXPECT_EQ(discovery.find("panel-1"), plain_reply);
        gateway.expect_log({added});
        EXPECT_TRUE(discovery_files().empty());  // an identity alone writes none
        EXPECT_EQ(panel.ask(row.channel, login_request({.discovery = row.discovery})).status(), row.status);
        EXPECT_EQ(all_files(), plain_files);
        EXPECT_EQ(text_for(panel, Channel::command), plain_text);
    }
}
