// What one client's change tells the others, and what it does not.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/room.h"

namespace {

using Act = wire::Reply (*)(RemoteClient &);

// Three clients that hear their events; "panel-1" is the one who acts.
struct Audience : Room {
    RemoteClient second{"panel-2"}, third{"panel-3"};

    explicit Audience(bool discard_my_feedback) : Room({.discard_my_feedback = discard_my_feedback}) {
        second.log_in();
        third.log_in({.user_name = "quillmont", .password = "tandrivel"});
        for (RemoteClient *client : {&panel, &second, &third}) client->subscribe(gateway);
    }
    void expect_silence() {
        for (RemoteClient *client : {&panel, &second, &third}) EXPECT_TRUE(client->events_so_far(gateway).empty());
    }
};

// How many clients the next echo of a change of "panel-1" reached, by the log.
void expect_echoed_to(Gateway &gateway, int count, Where where = Where::current()) {
    gateway.expect_log({"set broadcast to other client", "[panel-1] Broadcasting to all clients."}, where);
    const std::string delivered = "broadcast to " + std::to_string(count) + " client";
    gateway.service().expect_no_log_before("broadcast to * client", delivered, where);
}

constexpr const char *listed_key = "/Device/Config/EASY_SWAP_ID";  // not the restricted user's to write

wire::Reply read_key(RemoteClient &panel) { return panel.read(name_key); }
wire::Reply read_branch(RemoteClient &panel) { return panel.read("/Device/Config", 0); }
wire::Reply ask_for_right(RemoteClient &panel) { return panel.authorize(4, name_key, false); }
wire::Reply write_key(RemoteClient &panel) { return panel.write(name_key, "A"); }
wire::Reply lock_key(RemoteClient &panel) { return panel.write(name_key, "1", 0x1000); }
wire::Reply write_listed(RemoteClient &panel) { return panel.write(listed_key, "A"); }
wire::Reply write_no_value(RemoteClient &panel) { return panel.write(name_key, std::nullopt); }
wire::Reply multi_write(RemoteClient &panel) {
    return panel.multi_write({
        {name_key, "A"}
    });
}
wire::Reply multi_write_listed(RemoteClient &panel) {
    return panel.multi_write({
        {name_key,   "A"},
        {listed_key, "B"}
    });
}
wire::Reply multi_write_nothing(RemoteClient &panel) { return panel.multi_write({}); }

TEST(Echo, IsTheVeryAnswerOfTheWriter) {
    for (const bool discard : {true, false}) {
        Audience audience(discard);
        for (const Act act : {write_key, lock_key, multi_write}) {
            const std::string answer = act(audience.panel).SerializeAsString();
            EXPECT_EQ(audience.second.next_event().reply().SerializeAsString(), answer);
            EXPECT_EQ(audience.third.next_event().reply().SerializeAsString(), answer);
            if (!discard) {
                EXPECT_EQ(audience.panel.next_event().reply().SerializeAsString(), answer);
            }
            expect_echoed_to(audience.gateway, discard ? 2 : 3);
            audience.expect_silence();
        }
    }
}

struct ActCase {
    const char *why, *fault;
    Act act;
    bool echoed;
};
constexpr ActCase acts[] = {
    {"a read",                    "read=none",         read_key,            false},
    {"a read of a branch",        "read=none",         read_branch,         false},
    {"a question",                "read=none",         ask_for_right,       false},
    {"a refused key",             "write=none",        write_listed,        false},
    {"no value",                  "write=none",        write_no_value,      false},
    {"one refused key of two",    "write=none",        multi_write_listed,  false},
    {"nothing to write",          "write=none",        multi_write_nothing, false},
    {"a failed write",            "write=error",       write_key,           false},
    {"a failed lock",             "write=error",       lock_key,            false},
    {"a failed multi-write",      "multi-write=error", multi_write,         false},
    {"a write with a bad result", "write=refuse",      write_key,           true },
    {"a write",                   "write=none",        write_key,           true },
    {"a lock",                    "write=none",        lock_key,            true },
    {"a multi-write",             "multi-write=none",  multi_write,         true },
};

TEST(Echo, FollowsOnlyWhatTheDataServiceWasTold) {
    Gateway gateway;
    RemoteClient panel("panel-1"), second("panel-2");
    panel.log_in({.user_name = "quillmont", .password = "tandrivel"});
    second.log_in();
    second.subscribe(gateway);
    for (uint32_t changes = 0; const ActCase &row : acts) {
        SCOPED_TRACE(row.why);
        gateway.control("Fault", ("('" + std::string(row.fault) + "',)").c_str());
        const wire::Reply answer = row.act(panel);
        const std::vector<wire::Message> heard = second.events_so_far(gateway);
        std::vector<std::string> echoes;
        for (const wire::Message &message : heard) echoes.push_back(message.reply().SerializeAsString());
        EXPECT_EQ(echoes, std::vector(row.echoed, answer.SerializeAsString()));
        EXPECT_EQ(answer.change_count(), changes += row.echoed);
    }
}

TEST(Echo, ComesInTheOrderOfTheChanges) {
    constexpr int rounds = 50;
    Audience audience(false);
    for (int round = 0; round < rounds; round++) {
        audience.panel.write(name_key, "panel-1 " + std::to_string(round));
        audience.second.write(name_key, "panel-2 " + std::to_string(round));
    }
    const std::vector<wire::Message> heard = audience.third.events_so_far(audience.gateway);
    ASSERT_EQ(heard.size(), 2U * rounds);
    for (size_t i = 0; i < heard.size(); i++) {
        const std::string writer = i % 2 == 0 ? "panel-1" : "panel-2";
        EXPECT_EQ(heard[i].reply().client_id(), writer);
        EXPECT_EQ(heard[i].reply().write().value(), writer + ' ' + std::to_string(i / 2));
        EXPECT_EQ(heard[i].reply().change_count(), i + 1);
    }
}

TEST(Echo, PassesAClientThatHasLoggedOut) {
    Audience audience(true);
    audience.second.log_out();
    audience.panel.write(name_key, "A");
    expect_echoed_to(audience.gateway, 1);
    EXPECT_EQ(audience.third.next_event().reply().write().value(), "A");

    audience.third.log_out(Channel::command);
    audience.panel.write(name_key, "B");
    expect_echoed_to(audience.gateway, 0);

    audience.second.log_in();
    audience.second.subscribe(audience.gateway);
    audience.panel.write(name_key, "C");
    expect_echoed_to(audience.gateway, 1);
    EXPECT_EQ(audience.second.next_event().reply().write().value(), "C");
}

// The platform's events have no writer, so that nobody is passed over.
TEST(Events, ReachTheWriterThatWantsNoFeedback) {
    Audience audience(true);
    Gateway &gateway = audience.gateway;
    audience.panel.write(name_key, "A");
    gateway.control("Alarm", "(39, 95.0, 3)");
    gateway.control("Alarm", "(40, 91.5, 3)");
    gateway.control("Change", "('/Device/Config/Name', 'B', 'string')");
    gateway.control("LoadSnapshot", "(uint32 2,)");
    gateway.control("LoadSpeakerPreset", "()");
    for (RemoteClient *client : {&audience.second, &audience.third})
        EXPECT_EQ(client->next_event().reply().write().value(), "A");
    for (RemoteClient *client : {&audience.panel, &audience.second, &audience.third}) {
        const wire::Event alarm = client->next_event().event();
        EXPECT_EQ(alarm.alarm().code(), 40);
        EXPECT_EQ(alarm.alarm().active(), 1U);
        EXPECT_EQ(alarm.alarm().channel(), 3);
        EXPECT_EQ(alarm.alarm().value(), 91.5F);
        const wire::Event change = client->next_event().event();
        EXPECT_EQ(change.change().key(), name_key);
        EXPECT_EQ(change.change().value(), "B");
        EXPECT_EQ(change.change().type(), "string");
        EXPECT_EQ(client->next_event().event().snapshot_loaded().slot(), 2U);
        EXPECT_TRUE(client->next_event().event().has_speaker_preset_loaded());
    }
    audience.expect_silence();
    gateway.expect_log({"DBUS: DISCARD code=39", "DBUS: broadcasting code=40,value=91.500000,channel=3"});
}

}  // namespace
