// The four methods that the platform calls: what each answers, and what a logged-in client then hears.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/gateway.h"
#include "harness/remote_client.h"

namespace {

constexpr const char *invalid_arguments = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char *unknown_method = "org.freedesktop.DBus.Error.UnknownMethod";

GVariant *arguments_of(const char *text) { return g_variant_parse(nullptr, text, nullptr, nullptr, nullptr); }

// What a client's user would say of a message.
std::string shown(const wire::Message &message) {
    const wire::Event &event = message.event();
    if (event.has_alarm())
        return "alarm " + std::to_string(event.alarm().code()) + ' ' + std::to_string(event.alarm().active()) +
               " channel " + std::to_string(event.alarm().channel()) + ' ' + std::to_string(event.alarm().value());
    if (event.has_change())
        return "change " + event.change().key() + '=' + event.change().value() + ' ' +
               (event.change().has_type() ? '"' + event.change().type() + '"' : "untyped");
    if (event.has_snapshot_loaded()) return "snapshot " + std::to_string(event.snapshot_loaded().slot());
    return event.has_speaker_preset_loaded() ? "speaker preset" : "something else";
}

std::vector<std::string> shown(const std::vector<wire::Message> &messages) {
    std::vector<std::string> texts;
    for (const wire::Message &message : messages) texts.push_back(shown(message));
    return texts;
}

// A gateway with one client that hears its events.
struct Audience {
    Gateway gateway;
    RemoteClient panel{"panel-1"};

    Audience() {
        panel.log_in();
        panel.subscribe(gateway);
    }
    uint32_t change_count() {
        wire::Request request;
        request.mutable_change_count();
        return panel.ask(Channel::authentication, request).change_count();
    }
};

struct BroadcastCase {
    const char *why, *method, *arguments;
    std::vector<std::string> heard;
    uint32_t changes;
};

// One after the other on one gateway, whose change counter therefore only ever grows.
constexpr const char *general = "GeneralDispatch", *snapshot = "SnapshotLoadedDispatch";
constexpr const char *speaker_preset = "SpeakerPresetLoadedDispatch";
const BroadcastCase broadcasts[] = {
    {"an alarm value",         "Dispatch",     "(40, 3.5, 2)",                 {"alarm 40 1 channel 2 3.500000"},    0},
    {"an alarm of no channel", "Dispatch",     "(40, -80.25, -1)",             {"alarm 40 1 channel -1 -80.250000"}, 0},
    {"no code",                "Dispatch",     "(-1, 3.5, 2)",                 {},                                   0},
    {"no value",               "Dispatch",     "(40, -1.0, 2)",                {},                                   0},
    {"another code",           "Dispatch",     "(41, 3.5, 2)",                 {},                                   0},
    {"a change",               general,        "('/k', 'Hall', 'string')",     {"change /k=Hall \"string\""},        1},
    {"an empty type",          general,        "('/k', '7', '')",              {"change /k=7 \"\""},                 1},
    {"no text at all",         general,        "('', '', '')",                 {"change = \"\""},                    1},
    {"beyond ASCII",           general,        "('/k', 'Bühne 舞台', 't')", {"change /k=Bühne 舞台 \"t\""},    1},
    {"printf letters",         general,        "('/k', '%s%n', 't')",          {"change /k=%s%n \"t\""},             1},
    {"the first snapshot",     snapshot,       "(uint32 0,)",                  {"snapshot 0"},                       1},
    {"the largest slot",       snapshot,       "(uint32 4294967295,)",         {"snapshot 4294967295"},              1},
    {"a speaker preset",       speaker_preset, "()",                           {"speaker preset"},                   1},
};

TEST(DbusMethods, AnswerNothingAndTellTheClients) {
    Audience audience;
    uint32_t counted = 0;
    for (const BroadcastCase &row : broadcasts) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(audience.gateway.call(row.method, arguments_of(row.arguments)), empty_reply);
        EXPECT_EQ(shown(audience.panel.events_so_far(audience.gateway)), row.heard);
        EXPECT_EQ(audience.change_count(), counted += row.changes);
    }
}

TEST(DbusMethods, ReachTheClientsInTheOrderOfTheCalls) {
    Audience audience;
    Gateway &gateway = audience.gateway;
    gateway.call("GeneralDispatch", arguments_of("('/Device/Config/Name', 'A', 'string')"));
    gateway.call("Dispatch", arguments_of("(40, 90.0, 0)"));
    gateway.call("SnapshotLoadedDispatch", arguments_of("(uint32 3,)"));
    gateway.call("SpeakerPresetLoadedDispatch", arguments_of("()"));
    gateway.call("GeneralDispatch", arguments_of("('/Device/Config/Name', 'B', 'string')"));

    EXPECT_EQ(shown(audience.panel.events_so_far(gateway)),
              (std::vector<std::string>{"change /Device/Config/Name=A \"string\"", "alarm 40 1 channel 0 90.000000",
                                        "snapshot 3", "speaker preset", "change /Device/Config/Name=B \"string\""}));
}

TEST(DbusMethods, ReachEveryClientWithASession) {
    Audience audience;
    RemoteClient second("panel-2"), refused("panel-3");
    second.log_in();
    second.subscribe(audience.gateway);
    EXPECT_EQ(refused.log_in({.password = "wrong"}), (Ports{}));

    audience.gateway.call("SnapshotLoadedDispatch", arguments_of("(uint32 1,)"));
    EXPECT_EQ(shown(audience.panel.next_event()), "snapshot 1");
    EXPECT_EQ(shown(second.next_event()), "snapshot 1");
    audience.gateway.expect_log({"dbus_mtod_snapshot_loaded_dispatch", "[ACCESS-MTD] slotid=1",
                                 "DBUS: broadcasting command: 0", "DBUS: broadcasting command: loaded snapshot 1",
                                 "DISPACH CHANGE TO ALL CLIENTS", "broadcast to 2 client"});
}

TEST(DbusMethods, AreTracedAlsoWhenNothingIsQueued) {
    Gateway gateway;
    gateway.call("Dispatch", arguments_of("(-1, 2.0, 5)"));
    gateway.call("Dispatch", arguments_of("(7, 2.0, 5)"));
    gateway.call("GeneralDispatch", arguments_of("('/a', 'b', 'c')"));
    gateway.call("SpeakerPresetLoadedDispatch");
    gateway.expect_log({"dbus_mtod_dispatch", "[ACCESS] code=-1,value=2.000000,ch=5"});
    gateway.service().expect_no_log_before("DBUS: DISCARD code=-1", "DBUS: DISCARD code=7");
    gateway.expect_log({"DBUS: broadcasting key=/a, value=b, type=c",
                        "DBUS: broadcasting command: speaker preset loaded", "broadcast to 0 client"});
    gateway.service().rewind();
    gateway.expect_log({"dbus_mtod_general_dispatch", "[ACCESS-MTD] key=/a, value=b, type=c",
                        "dbus_mtod_speakerpreset_loaded_dispatch"});
}

struct WrongCallCase {
    const char *why, *method, *arguments, *error;
};
constexpr WrongCallCase wrong_calls[] = {
    {"an unsigned code",     "Dispatch",               "(uint32 40, 3.5, 2)", invalid_arguments},
    {"too few arguments",    "Dispatch",               "(40, 3.5)",           invalid_arguments},
    {"a number as value",    "GeneralDispatch",        "('/k', 1, 't')",      invalid_arguments},
    {"a boxed text",         "GeneralDispatch",        "(<'/k'>, 'v', 't')",  invalid_arguments},
    {"a signed slot",        "SnapshotLoadedDispatch", "(1,)",                invalid_arguments},
    {"an argument too many", speaker_preset,           "(uint32 1,)",         invalid_arguments},
    {"no method of ours",    "Redispatch",             "()",                  unknown_method   },
    {"another letter case",  "dispatch",               "(40, 3.5, 2)",        unknown_method   },
};

TEST(DbusMethods, RefuseWhatIsNotTheirs) {
    Audience audience;
    for (const WrongCallCase &row : wrong_calls) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(audience.gateway.call(row.method, arguments_of(row.arguments)).error, row.error);
    }
    EXPECT_EQ(shown(audience.panel.events_so_far(audience.gateway)), (std::vector<std::string>{}));
    EXPECT_EQ(audience.change_count(), 0U);
}

}  // namespace
