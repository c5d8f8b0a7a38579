// The four methods that the platform calls: what each answers, and what the logged-in clients then hear.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/fixtures.h"

struct DbusMethods : testing::Test, GatewayFixture {};

// Each message as a line of text.
static Texts shown(const std::vector<wire::Message> &messages) {
    Texts texts;
    for (const wire::Message &message : messages) {
        const wire::Event &event = message.event();
        const wire::Alarm &alarm = event.alarm();
        const wire::Change &change = event.change();
        if (event.has_alarm())
            texts.push_back("alarm " + std::to_string(alarm.code()) + ' ' + std::to_string(alarm.active()) +
                            " channel " + std::to_string(alarm.channel()) + ' ' + std::to_string(alarm.value()));
        else if (event.has_change())
            texts.push_back(change.key() + '=' + change.value() + (change.has_type() ? " :" + change.type() : ""));
        else if (event.has_snapshot_loaded())
            texts.push_back("snapshot " + std::to_string(event.snapshot_loaded().slot()));
        else texts.push_back(event.has_speaker_preset_loaded() ? "speaker preset" : "something else");
    }
    return texts;
}

static constexpr const char *dispatch = "Dispatch", *general = "GeneralDispatch", *snapshot = "SnapshotLoadedDispatch";
static constexpr const char *speaker_preset = "SpeakerPresetLoadedDispatch";
static constexpr const char *bad_arguments = "org.freedesktop.DBus.Error.InvalidArgs";
static constexpr const char *unknown_method = "org.freedesktop.DBus.Error.UnknownMethod";
static constexpr struct {
    const char *method, *arguments, *heard, *answer;
    uint32_t changes;
} calls[] = {
    {dispatch,       "(-1, 3.5, 2)",             "",                                 "()",           0},
    {dispatch,       "(41, 3.5, 2)",             "",                                 "()",           0},
    {dispatch,       "(40, -1.0, 2)",            "",                                 "()",           0},
    {dispatch,       "(40, 3.5, 2)",             "alarm 40 1 channel 2 3.500000",    "()",           0},
    {dispatch,       "(40, -80.25, -1)",         "alarm 40 1 channel -1 -80.250000", "()",           0},
    {dispatch,       "(uint32 40, 3.5, 2)",      "",                                 bad_arguments,  0},
    {general,        "('/k', 'Hall', 'string')", "/k=Hall :string",                  "()",           1},
    {general,        "('', '', '')",             "= :",                              "()",           1},
    {general,        "('/k', 'Bühne', 't')",    "/k=Bühne :t",                     "()",           1},
    {general,        "('/k', '%s%n', 't')",      "/k=%s%n :t",                       "()",           1},
    {general,        "('/k', 1, 't')",           "",                                 bad_arguments,  0},
    {snapshot,       "(uint32 0,)",              "snapshot 0",                       "()",           1},
    {snapshot,       "(uint32 4294967295,)",     "snapshot 4294967295",              "()",           1},
    {snapshot,       "(1,)",                     "",                                 bad_arguments,  0},
    {speaker_preset, "()",                       "speaker preset",                   "()",           1},
    {speaker_preset, "(uint32 1,)",              "",                                 bad_arguments,  0},
    {"Redispatch",   "()",                       "",                                 unknown_method, 0},
};

TEST_F(DbusMethods, AnswerNothingAndTellEveryClientInTheOrderOfTheCalls) {
    RemoteClient second("panel-2");
    for (RemoteClient *client : {&panel, &second}) {
        client->log_in();
        client->subscribe(gateway);
    }
    EXPECT_EQ(RemoteClient("refused").log_in({.password = "wrong"}), Ports{});
    Texts heard;
    wire::Request question;
    question.mutable_change_count();
    uint32_t counted = 0;
    for (const auto &row : calls) {
        SCOPED_TRACE(std::string(row.method) + row.arguments);
        GVariant *arguments = g_variant_parse(nullptr, row.arguments, nullptr, nullptr, nullptr);
        const Answer answer = gateway.call(row.method, arguments);
        EXPECT_EQ(answer.reply + answer.error, row.answer);
        EXPECT_EQ(panel.ask(Channel::authentication, question).change_count(), counted += row.changes);
        if (*row.heard != '\0') heard.push_back(row.heard);
    }
    for (RemoteClient *client : {&panel, &second}) EXPECT_EQ(shown(client->events_so_far(gateway)), heard);
}
