#include "harness/panel.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

static std::atomic<int64_t> skipped_ms = 0;

// In the place of the C library's, for the libraries, too.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    const int64_t ns = time->tv_nsec + (clock == CLOCK_MONOTONIC ? skipped_ms.load() : 0) * 1'000'000;
    time->tv_sec += ns / 1'000'000'000;
    time->tv_nsec = ns % 1'000'000'000;
    return static_cast<int>(result);
}

void skip(int time_ms) { skipped_ms += time_ms; }

static constexpr int settled_ms = 600;  // after this time the library compares the change counter
const Texts shown_keys = {name_key, secret_key, serial_key};
static constexpr BusObject data_service = {"com.quillmont.kesto.Data", "/com/quillmont/kesto/Data",
                                           "com.quillmont.kesto.Data.Service"};

kesto::ClientOptions panel_options(int port) {
    kesto::ClientOptions options;
    options.login = {kesto::loopback_address, port};
    options.client_id = "panel-1";
    options.user = "quillmont";
    options.password = "tandrivel";
    options.answer_limit_ms = answer_limit_ms;
    options.longest_pause_ms = 1000;
    return options;
}

void serve(kesto::Loop &loop, const std::string &what, const std::function<bool()> &is_so, Where where) {
    const auto real_now = [] { return Clock::now() - std::chrono::milliseconds(skipped_ms); };
    for (const auto end = real_now() + event_timeout(); !is_so(); loop.wait(100))
        if (real_now() > end) abandon("in vain: " + what, where);
}

void pass(kesto::Loop &loop, int time_ms) {
    for (const int step_ms : {time_ms, 0}) {
        for (int i = 0; i < 4; i++) loop.wait(0);
        skip(step_ms);
    }
}

Panel::Panel(kesto::ClientOptions options) {
    kesto::ClientCallbacks callbacks;
    callbacks.notice = [this](kesto::Notice notice, const std::string &sentence) { take_notice(notice, sentence); };
    callbacks.published = [this](const kesto::Published &published) { take_published(published); };
    callbacks.value = [this](const kesto::Value &value) { shown[value.key] = value.text; };
    client.emplace(loop, std::move(options), std::move(callbacks));
}

void Panel::take_notice(kesto::Notice notice, const std::string &sentence) {
    seen.push_back(kesto::notice_name(notice) + (sentence.empty() ? "" : ": " + sentence));
    if (judge) judge(notice);
    if (is_connected(notice)) read_all();
    else if (notice != kesto::Notice::invalid) skip(pause_ms);
}

void Panel::read_all() {
    for (const std::string &key : shown_keys)
        ask(kesto::Read{key}, [this, key](const kesto::Answer &answer) {
            if (answer) shown[key] = answer.get<kesto::Value>()->text;
            else shown.erase(key);
        });
}

void Panel::apply(const kesto::Published &published) {
    if (const auto *change = std::get_if<kesto::Change>(&published)) shown[change->key] = change->value;
    const auto *reply = std::get_if<kesto::Reply>(&published);
    if (reply == nullptr || reply->status != kesto::Status::ok) return;
    if (const auto *write = std::get_if<kesto::WriteResult>(&reply->result)) shown[write->key] = write->value;
    const auto *several = std::get_if<kesto::MultiWriteResult>(&reply->result);
    for (size_t i = 0; several != nullptr && i < several->results.size(); i++)
        if (several->results[i] == kesto::pair_was_written) shown[several->pairs.at(i).key] = several->pairs[i].value;
}

void Panel::take_published(const kesto::Published &published) {
    heard++;
    apply(published);
    if (const auto *alarm = std::get_if<kesto::Alarm>(&published)) last_channel = alarm->channel;
}

void Panel::ask(kesto::Operation operation, kesto::Answered judge_answer) {
    asked++;
    client->ask(std::move(operation), [this, judge_answer = std::move(judge_answer)](const kesto::Answer &answer) {
        answered++;
        apply(answer.reply);
        judge_answer(answer);
    });
}

void Panel::ask(kesto::Operation operation) {
    ask(std::move(operation),
        [this](const kesto::Answer &answer) { seen.push_back(kesto::outcome_name(answer.outcome)); });
}

void Panel::expect(const Texts &patterns, Where where) {
    serve(
        loop, patterns.back() + ", but " + testing::PrintToString(seen), [&] { return seen.size() >= patterns.size(); },
        where);
    bool fits = seen.size() == patterns.size();
    for (size_t i = 0; fits && i < seen.size(); i++)
        fits = g_pattern_match_simple(patterns[i].c_str(), seen[i].c_str()) != FALSE;
    if (!fits) ADD_FAILURE_AT(where.file, where.line) << "saw " << testing::PrintToString(seen);
    seen.clear();
}

void Panel::serve_until_answered(Where where) {
    serve(
        loop, "answers", [this] { return answered == asked; }, where);
}

std::string device_value(Gateway &gateway, const std::string &key) {
    const std::string reply =
        gateway.bus().call(data_service, "Read", g_variant_new("(us)", kesto::read_this_key_alone, key.c_str())).reply;
    return reply.substr(0, 3) == "(<'" ? reply.substr(3, reply.size() - 7) : reply;
}

void settle(Panel &panel, Gateway &gateway, Where where) {
    static int32_t number = 2'000'000;  // channels that no device has
    serve(
        panel.loop, "connected", [&] { return panel.client->connected(); }, where);
    const int32_t first = number + 1;
    serve(
        panel.loop, "the fence",
        [&] {
            if (panel.last_channel >= first) return true;
            gateway.call("Dispatch", g_variant_new("(idi)", 40, 0.0, ++number),
                         where);  // the last may have come too early
            return panel.loop.wait(40) && panel.last_channel >= first;
        },
        where);
    for (int i = 0; i < 3; i++) {
        pass(panel.loop, settled_ms);
        panel.ask(kesto::ChangeCount{}, [](const kesto::Answer &) {});
        panel.serve_until_answered(where);
    }
    for (const std::string &key : shown_keys)
        EXPECT_EQ(panel.shown[key], device_value(gateway, key)) << key << ", line " << where.line;
}

void kill_service(Gateway &gateway) {
    gateway.service().send_signal(SIGKILL);
    gateway.service().wait_exit();
}
