// What one client's change tells the others, and what it does not.
#include <string>

#include <gtest/gtest.h>

#include "harness/fixtures.h"

static constexpr const char *listed_key = "/Device/Config/EASY_SWAP_ID";  // not quillmont's to write

static wire::Reply ask_for_right(RemoteClient &panel) { return panel.authorize(4, name_key, false); }
static wire::Reply write_listed(RemoteClient &panel) { return panel.write(listed_key, "A"); }
static wire::Reply write_no_value(RemoteClient &panel) { return panel.write(name_key, std::nullopt); }
static wire::Reply multi_write_listed(RemoteClient &panel) { return panel.multi_write(Pairs(1, {listed_key, "A"})); }
static wire::Reply multi_write_nothing(RemoteClient &panel) { return panel.multi_write({}); }

static Texts echoes_heard_by(RemoteClient &client, Gateway &gateway) {
    Texts echoes;
    for (const wire::Message &message : client.events_so_far(gateway))
        echoes.push_back(message.reply().SerializeAsString());
    return echoes;
}

TEST(Echo, IsTheVeryAnswerOfTheWriter) {
    for (const bool discard : {true, false}) {
        SCOPED_TRACE(discard ? "discarding its feedback" : "wanting its feedback");
        LoggedInFixture fixture({.discard_my_feedback = discard});
        Gateway &gateway = fixture.gateway;
        RemoteClient second("panel-2"), third("panel-3");
        second.log_in({.discard_my_feedback = true});
        third.log_in(as_quillmont);
        for (RemoteClient *client : {&fixture.panel, &second, &third}) client->subscribe(gateway);
        for (const Act act : {write_name, lock_name, multi_write_name}) {
            const std::string answer = act(fixture.panel).SerializeAsString();
            EXPECT_EQ(echoes_heard_by(second, gateway), Texts{answer});
            EXPECT_EQ(echoes_heard_by(third, gateway), Texts{answer});
            EXPECT_EQ(echoes_heard_by(fixture.panel, gateway), Texts(discard ? 0 : 1, answer));
            gateway.expect_log({"set broadcast to other client", "[panel-1] Broadcasting to all clients."});
            gateway.service().expect_no_log_before("broadcast to * client",
                                                   discard ? "broadcast to 2 client" : "broadcast to 3 client");
        }
        gateway.control("LoadSpeakerPreset", "()");  // an event has no writer to leave out
        EXPECT_TRUE(fixture.panel.next_event().event().has_speaker_preset_loaded());
    }
}

static constexpr struct {
    const char *why, *fault;
    Act act;
    bool echoed;
} acts[] = {
    {"a write",                   "write=none",        write_name,          true },
    {"a read",                    "read=none",         read_name,           false},
    {"a question",                "read=none",         ask_for_right,       false},
    {"a refused key",             "write=none",        write_listed,        false},
    {"no value",                  "write=none",        write_no_value,      false},
    {"a refused key of many",     "write=none",        multi_write_listed,  false},
    {"nothing to write",          "write=none",        multi_write_nothing, false},
    {"a failed write",            "write=error",       write_name,          false},
    {"a failed lock",             "write=error",       lock_name,           false},
    {"a failed multi-write",      "multi-write=error", multi_write_name,    false},
    {"a write with a bad result", "write=refuse",      write_name,          true },
    {"a lock",                    "write=none",        lock_name,           true },
    {"a multi-write",             "multi-write=none",  multi_write_name,    true },
};

TEST(Echo, FollowsOnlyWhatTheDataServiceWasTold) {
    LoggedInFixture fixture(as_quillmont);
    RemoteClient second("panel-2");
    second.log_in();
    second.subscribe(fixture.gateway);
    for (uint32_t changes = 0; const auto &row : acts) {
        SCOPED_TRACE(row.why);
        fixture.gateway.set_fault(row.fault);
        const wire::Reply answer = row.act(fixture.panel);
        EXPECT_EQ(echoes_heard_by(second, fixture.gateway), Texts(row.echoed, answer.SerializeAsString()));
        EXPECT_EQ(answer.change_count(), changes += row.echoed);
    }
}
