// The device's description as other programs on the device and logged-in clients find it.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/gateway.h"
#include "harness/remote_client.h"

namespace {

using Files = std::vector<std::pair<std::string, std::string>>;  // path and content, in the order of writing

std::string content(const std::string &path) {
    std::ifstream file(path);
    if (!file) return path + " cannot be read";
    return {std::istreambuf_iterator<char>(file), {}};
}

void expect_files(const Files &files) {
    for (const auto &[path, text] : files) EXPECT_EQ(content(path), text) << path;
}

size_t file_count() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        count += name.starts_with("discovery_") && name.ends_with(".txt");
    }
    return count;
}

const Files plain_files = {
    {"/tmp/discovery_serial.txt",           "QM240817"    },
    {"/tmp/discovery_hw_model.txt",         "KX8-3000"    },
    {"/tmp/discovery_full_model.txt",       "DKX8-3000_ND"},
    {"/tmp/discovery_fw_version.txt",       "1.12.1.32"   },
    {"/tmp/discovery_hw_channels.txt",      "8"           },
    {"/tmp/discovery_oem_manufacter.txt",   ""            },
    {"/tmp/discovery_oem_model.txt",        ""            },
    {"/tmp/discovery_oem_serial.txt",       "QM240817"    },
    {"/tmp/discovery_commercial_model.txt", ""            },
    {"/tmp/discovery_dante.txt",            "?"           },
    {"/tmp/discovery_extra.txt",            "4221=ON"     },
};
constexpr const char *plain_text =
    "@?DKX8-3000\x1c"
    "1.12.1.32\x1cQM240817\x1c?\x1c\x1c\x1cQM240817\x1c"
    "4221=ON!";

const Environment all_settings = {
    {"hw_serial",        "H-1"     },
    {"oem_serial",       "O-2"     },
    {"hw_model",         "KX4"     },
    {"oem_manufacter",   "Oem & Co"},
    {"oem_model",        "OX"      },
    {"commercial_model", "Concert" },
    {"ENABLE4221",       "off"     },
    {"HAS_LUMAVERSA",    "on"      },
    {"KESTO_SLOT_ID",    "3"       },
};
const Files all_settings_files = {
    {"/tmp/discovery_serial.txt",           "H-1"                  },
    {"/tmp/discovery_hw_model.txt",         "KX4"                  },
    {"/tmp/discovery_full_model.txt",       "DKX4_P"               },
    {"/tmp/discovery_fw_version.txt",       "1.12.1.32"            },
    {"/tmp/discovery_hw_channels.txt",      "8"                    },
    {"/tmp/discovery_oem_manufacter.txt",   "Oem & Co"             },
    {"/tmp/discovery_oem_model.txt",        "OX"                   },
    {"/tmp/discovery_oem_serial.txt",       "O-2"                  },
    {"/tmp/discovery_commercial_model.txt", "Concert"              },
    {"/tmp/discovery_dante.txt",            "+"                    },
    {"/tmp/discovery_extra.txt",            "4221=OFF,LUMAVERSA=ON"},
};
constexpr const char *all_settings_text =
    "@?DKX4\x1c"
    "1.12.1.32\x1cO-2\x1c+\x1cOem & Co\x1cOX\x1cH-1\x1c"
    "4221=OFF,LUMAVERSA=ON!";

std::string text_for(RemoteClient &client, Channel channel) {
    wire::Request request;
    request.mutable_discovery();
    const wire::Reply reply = client.ask(channel, request);
    EXPECT_EQ(reply.status(), wire::STATUS_OK);
    return reply.discovery();
}

struct PublishedCase {
    const char *why;
    Environment environment;
    const Files &files;
    const char *text;
};
const PublishedCase published[] = {
    {"nothing set",    {},           plain_files,        plain_text       },
    {"everything set", all_settings, all_settings_files, all_settings_text},
};

TEST(StaticDiscovery, StandsInFilesAndForClients) {
    for (const PublishedCase &row : published) {
        SCOPED_TRACE(row.why);
        Gateway gateway({.environment = row.environment});
        expect_files(row.files);
        EXPECT_EQ(file_count(), row.files.size());
        gateway.service().rewind();
        for (const auto &[path, text] : row.files) {
            const std::string log = "writing on " + path + ": '" + text + "'";
            gateway.expect_log({log});
        }
        RemoteClient panel("panel-1");
        panel.log_in();
        EXPECT_EQ(text_for(panel, Channel::authentication), row.text);
        EXPECT_EQ(text_for(panel, Channel::command), row.text);
    }
}

struct SlotCase {
    const char *id, *mark, *full_model;
};
constexpr SlotCase slots[] = {
    {"0", "?", "DKX8-3000_ND"},
    {"1", "-", "DKX8-3000_ND"},
    {"2", "D", "DKX8-3000"   },
    {"3", "+", "DKX8-3000_P" },
};

TEST(StaticDiscovery, NamesTheModelByTheSlot) {
    for (const SlotCase &row : slots) {
        SCOPED_TRACE(row.mark);
        Gateway gateway({.environment = {{"KESTO_SLOT_ID", row.id}}});
        expect_files({
            {"/tmp/discovery_dante.txt",      row.mark      },
            {"/tmp/discovery_full_model.txt", row.full_model}
        });
    }
}

TEST(StaticDiscovery, ASecondStartLeavesTheFilesAlone) {
    Gateway gateway;
    gateway.stop_service();
    Files files = plain_files;
    for (auto &[path, text] : files) {
        text += " as it was";
        std::ofstream(path) << text;
    }
    gateway.start_service();
    expect_files(files);
    gateway.service().rewind();
    for (const auto &[path, text] : files) {
        const std::string log = "file " + path + " already exist I not update it";
        gateway.expect_log({log});
    }
    RemoteClient panel("panel-1");
    EXPECT_EQ(text_for(panel, Channel::authentication), plain_text);

    gateway.stop_service();
    std::filesystem::remove("/tmp/discovery_serial.txt");
    gateway.start_service();
    EXPECT_EQ(content("/tmp/discovery_serial.txt"), "QM240817");
}

// A file that cannot be written costs neither the others nor the text.
TEST(StaticDiscovery, SkipsAFileThatCannotBeWritten) {
    Gateway gateway({.with_service = false});
    std::filesystem::create_symlink("/nonexistent/serial", "/tmp/discovery_serial.txt");
    gateway.start_service();
    gateway.service().rewind();
    gateway.expect_log(
        {"error writing on /tmp/discovery_serial.txt", "writing on /tmp/discovery_hw_model.txt: 'KX8-3000'"});
    expect_files({plain_files.begin() + 1, plain_files.end()});
    RemoteClient panel("panel-1");
    EXPECT_EQ(text_for(panel, Channel::authentication), plain_text);
}

struct FirstRequestCase {
    const char *why;
    Channel channel;
    OptionalText discovery;
    wire::Status status;
};
const FirstRequestCase first_requests[] = {
    {"any on the authentication socket",    Channel::authentication, std::nullopt,        wire::STATUS_OK     },
    {"a login with a text on the commands", Channel::command,        "of another device", wire::STATUS_REFUSED},
};

TEST(StaticDiscovery, AppearsAtTheFirstRequestAfterTheIdentity) {
    for (const FirstRequestCase &row : first_requests) {
        SCOPED_TRACE(row.why);
        Gateway gateway({.with_device = false});
        RemoteClient panel("panel-1");
        EXPECT_EQ(panel.log_in({.discovery = "of another device"}), (Ports{62001, 63001}));  // nothing to compare
        gateway.expect_log({"NOT POSSIBLE COMPUTE STATIC DISCOVERY"});
        EXPECT_EQ(text_for(panel, Channel::command), "");

        gateway.start_device();
        Discovery discovery;
        discovery.send(discovery_request("panel-1"));
        discovery.receive();
        EXPECT_EQ(file_count(), 0U);  // an identity alone writes none
        wire::Request login;
        login.mutable_login()->set_user_name("root");
        login.mutable_login()->set_password("vormi");
        if (row.discovery) login.mutable_login()->set_discovery(*row.discovery);
        EXPECT_EQ(panel.ask(row.channel, login).status(), row.status);
        expect_files(plain_files);
        EXPECT_EQ(text_for(panel, Channel::command), plain_text);
    }
}

}  // namespace
