// A client's discovery request and the device's answer.
#include "harness/discovery.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/gateway.h"
#include "harness/remote_client.h"

namespace {

constexpr const char *shared_key = "7D2E5A91C04BF368";
constexpr const char *added = "[DISCOVERY] added client: panel-1";
constexpr const char *known = "[DISCOVERY] client: panel-1 already discovered and active (never logged out) (panel-1)";
constexpr const char *dropped = "free local client no map remove";

struct DiscardedCase {
    const char *why;
    std::string datagram, log;
};
const std::string too_long = "@?" + std::string(8189, 'x') + "!";
const DiscardedCase discarded[] = {
    {"nothing in it",       "",           "[DISCOVERY] discarded... (r < 3) || (r >= BUFSIZ) (0)"},
    {"too short",           "@!",         "[DISCOVERY] discarded... (r < 3) || (r >= BUFSIZ) (2)"},
    {"wrong first byte",    "!?panel!",   "[DISCOVERY] discarded... (8 ! ? !)"                   },
    {"wrong second byte",   "@!panel!",   "[DISCOVERY] discarded... (8 @ ! !)"                   },
    {"wrong last byte",     "@?panel",    "[DISCOVERY] discarded... (7 @ ? l)"                   },
    {"an end behind it",    "@?panel!\n", "[DISCOVERY] discarded... (9 @ ? *"                    },
    {"cut before its mark", too_long,     "[DISCOVERY] discarded... (8191 @ ? x)"                },
};

TEST(Discovery, DiscardsWhatIsNotFramed) {
    Gateway gateway;
    Discovery discovery;
    for (const DiscardedCase &row : discarded) {
        SCOPED_TRACE(row.why);
        EXPECT_FALSE(discovery.ask(row.datagram));
        gateway.expect_log({row.log});
    }
    EXPECT_TRUE(discovery.ask(discovery_request("panel-1")));
}

TEST(Discovery, AcceptsTheShortestAndTheLongestRequest) {
    Gateway gateway;
    Discovery discovery;
    discovery.send("@?!");
    EXPECT_EQ(discovery.receive().fields.at(field_wrapped_key), "");
    gateway.expect_log(
        {"[DISCOVERY] > read 3 bytes: [@?!]", "[DISCOVERY] received id=[]", "[DISCOVERY] added client: "});

    const std::string empty = discovery_request("");
    const std::string id(8191 - empty.size(), 'i');
    discovery.send(discovery_request(id));
    EXPECT_EQ(discovery.receive().fields.size(), discovery_field_count);
    gateway.expect_log({"[DISCOVERY] > read 8191 bytes: [*", "[DISCOVERY] added client: " + id});
}

struct ReplyCase {
    const char *why;
    Environment environment;
    const char *reply;  // with "|" for the separators
    const char *log;
};
const Environment all_settings = {
    {"hw_serial",      "H-1"       },
    {"oem_serial",     "O-2"       },
    {"hw_model",       "KX4"       },
    {"oem_manufacter", "Oem & Co"  },
    {"oem_model",      "OX"        },
    {"ENABLE4221",     "0"         },
    {"HAS_LUMAVERSA",  "1"         },
    {"KESTO_SLOT_ID",  "3"         },
    {"KESTO_AMP_NAME", "Stage left"},
};
const Environment loopback_only = {
    {"ZMQ_ACCESS_IP", "127.0.0.1"}
};
constexpr const char *device_reply =
    "@?DKX8-3000|1.12.1.32|QM240817|ZMQ:60000|ZMQ:61000||?||||QM240817|17|Harbour hall|4221=ON!";
constexpr const char *device_log =
    "[DISCOVERY] < HW_MODEL=KX8-3000 FW=1.12.1.32 SERIAL=QM240817 OEM_SERIAL=QM240817 ZMQ:60000 slot=? "
    "manufacter= oem_model= ENCKEY= ";
constexpr const char *all_settings_reply =
    "@?DKX4|1.12.1.32|O-2|ZMQ:60000|ZMQ:61000||+|Oem & Co|OX|Stage left|H-1|17|Harbour hall|4221=OFF,LUMAVERSA=ON!";
constexpr const char *all_settings_log =
    "[DISCOVERY] < HW_MODEL=KX4 FW=1.12.1.32 SERIAL=H-1 OEM_SERIAL=O-2 ZMQ:60000 slot=+ "
    "manufacter=Oem & Co oem_model=OX ENCKEY= ";
constexpr const char *loopback_reply =
    "@?DKX8-3000|1.12.1.32|QM240817|ZMQ:0|ZMQ:0||?||||QM240817|17|Harbour hall|4221=ON!";
constexpr const char *loopback_log =
    "[DISCOVERY] < HW_MODEL=KX8-3000 FW=1.12.1.32 SERIAL=QM240817 OEM_SERIAL=QM240817 ZMQ:0 slot=? "
    "manufacter= oem_model= ENCKEY= ";
const ReplyCase replies[] = {
    {"from the device",      {},            device_reply,       device_log      },
    {"from the environment", all_settings,  all_settings_reply, all_settings_log},
    {"on loopback only",     loopback_only, loopback_reply,     loopback_log    },
};

TEST(Discovery, DescribesTheDevice) {
    for (const ReplyCase &row : replies) {
        SCOPED_TRACE(row.why);
        Gateway gateway({.environment = row.environment});
        Discovery discovery;
        discovery.send(discovery_request("panel-1"));
        std::string reply = discovery.receive().raw;
        std::replace(reply.begin(), reply.end(), '\x1c', '|');
        EXPECT_EQ(reply, row.reply);
        gateway.expect_log({"client family in discovery: family", "client serial in discovery: serial",
                            "[DISCOVERY] received id=[panel-1]", row.log, added,
                            "[DISCOVERY] < written " + std::to_string(reply.size()) + " bytes"});
    }
}

TEST(Discovery, ReadsTheProjectForEachReplyAndTheIdentityOnce) {
    Gateway gateway;
    Discovery discovery;
    discovery.send(discovery_request("panel-1"));
    EXPECT_EQ(discovery.receive().fields.at(field_project_info), "Harbour hall");
    gateway.control("Change", "('/Device/Config/PROJECT_INFO', 'Opera', '')");
    gateway.control("Change", "('/Device/Config/EASY_SWAP_ID', '18', '')");
    discovery.send(discovery_request("panel-1"));
    const DiscoveryReply reply = discovery.receive();
    EXPECT_EQ(reply.fields.at(field_project_info), "Opera");
    EXPECT_EQ(reply.fields.at(field_easy_swap_id), "17");

    gateway.control("Fault", "('read:/Device/Config/PROJECT_INFO=error',)");
    discovery.send(discovery_request("panel-1"));
    EXPECT_EQ(discovery.receive().fields.at(field_project_info), "");
    gateway.control("Fault", "('read:/Device/Config/PROJECT_INFO=none',)");

    const std::string info(9000, 'p');
    gateway.control("Change", ("('/Device/Config/PROJECT_INFO', '" + info + "', '')").c_str());
    discovery.send(discovery_request("panel-1"));
    const std::string cut = discovery.receive().raw;
    EXPECT_EQ(cut.size(), 8191U);
    EXPECT_TRUE(cut.ends_with("pppp"));
}

TEST(Discovery, WrapsTheSharedKeyForEachRequest) {
    Gateway gateway;
    Discovery discovery;
    for (const char *log : {added, known}) {
        const KeyPair key;
        discovery.send(discovery_request("panel-1", key.public_pem()));
        const std::string wrapped = discovery.receive().fields.at(field_wrapped_key);
        EXPECT_EQ(wrapped.size(), 512U);
        EXPECT_EQ(wrapped.find_first_not_of("0123456789ABCDEF"), std::string::npos);
        EXPECT_EQ(key.unwrap(wrapped), shared_key);
        gateway.expect_log({log});
    }
    gateway.expect_log({dropped, "client free cmd port = -1, event port -1 (type: 0)", "free cl_pubkey",
                        "free cl_enckey", "free cl_id", "[DISCOVERY] < written * bytes"});
}

// The first request's record stays, whatever later ones of its id bring.
TEST(Discovery, KeepsTheRecordUntilItsClientLogsOut) {
    Gateway gateway;
    Discovery discovery;
    discovery.send(discovery_request("panel-1", KeyPair().public_pem()));
    discovery.receive();
    discovery.send(discovery_request("panel-1"));
    EXPECT_EQ(discovery.receive().fields.at(field_wrapped_key), "");
    gateway.expect_log({"[DISCOVERY] client: panel-1 already discovered*", dropped});

    RemoteClient panel("panel-1");
    EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
    gateway.expect_log({"login known client: panel-1"});
    panel.log_out();
    gateway.expect_log({"free cl_username", "free cl_pubkey", "free cl_enckey",
                        "remove cl_id from list of known client", "free cl_id"});
    discovery.send(discovery_request("panel-1"));
    gateway.expect_log({added});
}

constexpr const char *elliptic_key =
    "-----BEGIN PUBLIC KEY-----\n"
    "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE/fq1J9CxCaf3uS5bTLzOZSM2gAy1\n"
    "fUeqC0FWF3Y/oiOKaukyyFCq/QJ4EHEHLp5BI+4fmdh7bgqxJ7y7o10RMg==\n"
    "-----END PUBLIC KEY-----\n";

std::string locked_key() {
    std::string pem = KeyPair().public_pem();
    pem.insert(pem.find('\n') + 1,
               "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
    return pem;
}

TEST(Discovery, SaysNothingToAClientWithoutAProperKey) {
    Gateway gateway;
    Discovery discovery;
    for (const std::string &key : std::vector<std::string>{"no key", elliptic_key, locked_key()}) {
        SCOPED_TRACE(key);
        EXPECT_FALSE(discovery.ask(discovery_request("panel-1", key)));
        gateway.expect_log({"*:client_process_discovery:* - kesto_pubkey_encrypt", "[DISCOVERY] received malformed",
                            "*:server_discovery:* - client_discovery_process", dropped, "free cl_pubkey",
                            "free cl_id"});
    }
    discovery.send(discovery_request("panel-1"));
    discovery.receive();
    gateway.expect_log({added});  // none of them had left a record
}

TEST(Discovery, WaitsForTheDevicesIdentity) {
    Gateway gateway({.with_device = false});
    Discovery discovery;
    const KeyPair key;
    discovery.send(discovery_request("panel-1", key.public_pem()));
    gateway.expect_log({"error reading CHANNELS. it can failt will be reread later",
                        "*:server_discovery:* - server data not available discrovery discard", dropped});
    gateway.start_device();
    discovery.send(discovery_request("panel-1"));
    const DiscoveryReply reply = discovery.receive();
    EXPECT_EQ(reply.fields.at(field_wrapped_key), "");  // the second request's; the first had no answer
    EXPECT_EQ(reply.fields.at(field_model), "DKX8-3000");
    EXPECT_EQ(reply.fields.at(field_oem_serial), "QM240817");
    gateway.expect_log({added});
}

struct IdCase {
    const char *why;
    std::string id, received;
};
const IdCase strange_ids[] = {
    {"a separator in it", "pa\x1cnel\x1c",          "pa\x1cnel\x1c"},
    {"an end mark in it", "pa!nel",                 "pa"           },
    {"a NUL in it",       std::string("nul\0panel", 9),              "nul"},
    {"not UTF-8",                   "pa\xffnel\xc3",                                 "pa\xffnel\xc3"              },
    {"a format",                   "%s%n%d",                                  "%s%n%d"        },
};

TEST(Discovery, TakesAnyBytesAsAnId) {
    Gateway gateway;
    Discovery discovery;
    for (const IdCase &row : strange_ids) {
        SCOPED_TRACE(row.why);
        EXPECT_TRUE(discovery.ask(discovery_request(row.id)));
        gateway.expect_log(
            {"[DISCOVERY] received id=[" + row.received + "]", "[DISCOVERY] added client: " + row.received});
        EXPECT_TRUE(discovery.ask(discovery_request(row.id)));
        gateway.expect_log({"[DISCOVERY] client: " + row.received + " already discovered*"});
    }
    EXPECT_EQ(RemoteClient("panel-1").log_in(), (Ports{62001, 63001}));
}

}  // namespace
