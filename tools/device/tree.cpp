/* The tree is spelled out as two tables, one for the keys that exist once and one for those of every channel. */
#include "tree.h"

static constexpr char channel_mark = '#';  // in a channel's value: its number as people count, from 1

struct KeyValue {
    const char *key, *value;
};

static constexpr KeyValue device_keys[] = {
    {"/Device/Config/Hardware/Model/Family",             "KX"                 },
    {"/Device/Config/Hardware/Model/Mac",                "02:51:4d:10:27:a4"  },
    {"/Device/Config/Hardware/Model/Manufacturer",       "Quillmont"          },
    {"/Device/Config/Hardware/Model/Model",              "KX8-3000"           },
    {"/Device/Config/Hardware/Model/Serial",             "QM240817"           },
    {"/Device/Config/Hardware/Channels",                 "8"                  },
    {"/Device/Config/Hardware/Revision",                 "C"                  },
    {"/Device/Config/Networking/Ethernet/Ip",            "192.168.12.40"      },
    {"/Device/Config/Networking/Ethernet/Netmask",       "255.255.255.0"      },
    {"/Device/Config/Networking/Ethernet/Gateway",       "192.168.12.1"       },
    {"/Device/Config/Networking/Ethernet/Dns",           "192.168.12.1"       },
    {"/Device/Config/Networking/Ethernet/Dhcp/Enable",   "1"                  },
    {"/Device/Config/Networking/Wifi/Enable",            "0"                  },
    {"/Device/Config/Networking/Wifi/Ssid",              "stage-left"         },
    {"/Device/Config/Networking/Wifi/Passphrase",        "correct horse"      },
    {"/Device/Config/Networking/Snmp/Enable",            "0"                  },
    {"/Device/Config/Networking/Snmp/Secret",            "community"          },
    {"/Device/Config/Software/Firmware/Version",         "1.12.1.32"          },
    {"/Device/Config/Software/Firmware/Date",            "2024-03-18"         },
    {"/Device/Config/Security/Administrator/Password",   "changeme"           },
    {"/Device/Config/Security/FrontPanel/Pin",           "0000"               },
    {"/Device/Config/Security/FrontPanel/Lock",          "0"                  },
    {"/Device/Config/Panel/Brightness",                  "80"                 },
    {"/Device/Config/Panel/Language",                    "en"                 },
    {"/Device/Config/Power/AutoStandby/Enable",          "0"                  },
    {"/Device/Config/Power/AutoStandby/Delay",           "1200"               },
    {"/Device/Config/Power/Standby",                     "0"                  },
    {"/Device/Config/Name",                              "Rack 3, amplifier 2"},
    {"/Device/Config/EASY_SWAP_ID",                      "17"                 },
    {"/Device/Config/PROJECT_INFO",                      "Harbour hall"       },
    {"/Device/Audio/Presets/Live/Name",                  "Front of house"     },
    {"/Device/Audio/Presets/Live/Modified",              "0"                  },
    {"/Device/Audio/Presets/Live/InputProcess/Source",   "Analog"             },
    {"/Device/Audio/Presets/Live/InputProcess/Fallback", "Digital"            },
    {"/Device/Audio/Presets/Snapshots/Current",          "0"                  },
    {"/Device/Audio/Presets/Snapshots/Slot-0/Name",      "Rehearsal"          },
    {"/Device/Audio/Presets/Snapshots/Slot-1/Name",      "Show"               },
    {"/Device/Status/Power/MainsVoltage",                "230.1"              },
    {"/Device/Status/Power/MainsCurrent",                "1.8"                },
    {"/Device/Status/Temperature/HeatSink",              "41.5"               },
    {"/Device/Status/Temperature/PowerSupply",           "44.0"               },
    {"/Device/Status/Fans/Speed",                        "35"                 },
    {"/Device/Status/Clock/Locked",                      "1"                  },
    {"/Device/Status/Uptime",                            "0"                  },
};

static constexpr const char *live_input = "/Device/Audio/Presets/Live/PreOutputProcess/Channels/Channel-";
static constexpr const char *live_output = "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-";
static constexpr const char *status = "/Device/Status/Channels/Channel-";

struct ChannelKey {
    const char *before, *after, *value;  // the channel's number, from 0, stands between the first two
};

static constexpr ChannelKey channel_keys[] = {
    {live_input,  "/Gain",              "0.0"                                             },
    {live_input,  "/Mute",              "0"                                               },
    {live_input,  "/Delay",             "0.000"                                           },
    {live_input,  "/Polarity",          "0"                                               },
    {live_input,  "/Routing",           "Input #"                                         },
    {live_input,  "/IIR",               "[]"                                              },
    {live_output, "/Name",              "Output #"                                        },
    {live_output, "/Gain",              "0.0"                                             },
    {live_output, "/Mute",              "0"                                               },
    {live_output, "/Delay",             "0.000"                                           },
    {live_output, "/Polarity",          "0"                                               },
    {live_output, "/Speaker",           "none"                                            },
    {live_output, "/Impedance",         "8"                                               },
    {live_output, "/Crossover",         "{\"low\":20,\"high\":20000,\"slope\":24}"        },
    {live_output, "/IIR",               "[{\"type\":\"peak\",\"f\":1000,\"g\":0,\"q\":1}]"},
    {live_output, "/FIR",               "[]"                                              },
    {live_output, "/TruePowerLimiter",  "{\"on\":0,\"power\":1500,\"attack\":500}"        },
    {live_output, "/CurrentLimiterRMS", "{\"on\":0,\"current\":20,\"attack\":100}"        },
    {live_output, "/DynamicEq",         "[]"                                              },
    {live_output, "/ClipLimiter",       "{\"on\":1}"                                      },
    {live_output, "/PeakLimiter",       "{\"on\":0,\"voltage\":155,\"hold\":10}"          },
    {live_output, "/VoltageLimiterRMS", "{\"on\":0,\"voltage\":110,\"attack\":100}"       },
    {live_output, "/Feedloop",          "0"                                               },
    {status,      "/OutputLevel",       "-60.0"                                           },
    {status,      "/InputLevel",        "-60.0"                                           },
    {status,      "/Load",              "0.0"                                             },
    {status,      "/Clip",              "0"                                               },
    {status,      "/Protect",           "0"                                               },
};

static std::string value_for(const ChannelKey &row, int channel) {
    std::string value = row.value;
    const size_t mark = value.find(channel_mark);
    if (mark != std::string::npos) value.replace(mark, 1, std::to_string(channel + 1));
    return value;
}

static void add_entry(GVariantBuilder *entries, const Tree::value_type &entry) {
    g_variant_builder_add(entries, "{ss}", entry.first.c_str(), entry.second.c_str());
}

Tree tree_of_device() {
    Tree tree;
    for (const KeyValue &row : device_keys) tree.emplace(row.key, row.value);
    for (const ChannelKey &row : channel_keys)
        for (int channel = 0; channel < channel_count; channel++)
            tree.emplace(row.before + std::to_string(channel) + row.after, value_for(row, channel));
    return tree;
}

GVariant *tree_read_below(const Tree &tree, const std::string &key) {
    if (key.empty()) return nullptr;
    const bool slash_at_end = key.back() == '/';
    const std::string itself = slash_at_end ? key.substr(0, key.size() - 1) : key;
    const std::string below = itself + '/';

    g_auto(GVariantBuilder) entries = G_VARIANT_BUILDER_INIT(G_VARIANT_TYPE("a{ss}"));
    bool found = false;
    // The key itself is looked up apart: in the order of texts "/A-C" stands between "/A" and "/A/B".
    const auto exact = tree.find(itself);
    if (exact != tree.end()) {
        add_entry(&entries, *exact);
        found = true;
    }
    for (auto at = tree.lower_bound(below); at != tree.end() && at->first.starts_with(below); ++at) {
        add_entry(&entries, *at);
        found = true;
    }
    return found ? g_variant_builder_end(&entries) : nullptr;
}
