// A random walk over the faults that a program with libkesto-client can meet, beside a model of what it may be told.
// Whenever the walk has settled, what the program shows is what the device holds.
//
// Every run takes the same steps, unless KESTO_CLIENT_SEED gives another seed; "random" draws one. KESTO_CLIENT_STEPS
// sets the length.
#include <iostream>

#include <gtest/gtest.h>

#include "harness/panel.h"
#include "harness/random_steps.h"

static constexpr unsigned usual_seed = 20261125;
static constexpr size_t default_steps = 1000, last_steps_bytes = 400;

// Why the panel may be told of something. A cause lasts until the walk has settled.
enum Cause : unsigned { loss = 1, gap = 2, reload = 4, rivalry = 8, fault = 16 };
static constexpr const char *faults[] = {"read=error",   "write=error", "multi-write=error", "read=late:5",
                                         "write=late:5", "read=none",   "write=refuse",      "multi-write=none"};

struct Walk {
    std::mt19937 random;
    Gateway gateway{{.with_service = false}};
    std::optional<RemoteClient> other = {}, rival = {};  // the rival has the panel's id
    std::optional<Panel> panel = {};
    unsigned causes = 0, number = 0;
    bool running = false, up = false, was_up = false;  // the service; what the panel was told last, and ever
    std::string trail = {};

    size_t below(size_t end) { return random() % end; }
    std::string key() { return shown_keys[below(shown_keys.size())]; }
    std::string value() { return "v" + std::to_string(++number); }
    bool has(unsigned any_of) const { return (causes & any_of) != 0; }

    bool may_be_told(kesto::Notice notice) const {
        switch (notice) {
            case kesto::Notice::connected: return !was_up;
            case kesto::Notice::recovered: return was_up && !up;
            case kesto::Notice::lost: return up && has(loss);
            case kesto::Notice::read_again: return up && has(gap | reload | fault);
            case kesto::Notice::not_reachable: return !up && has(loss);
            case kesto::Notice::refused: return !up && has(rivalry);
            default: return false;
        }
    }
    void take_notice(kesto::Notice notice) {
        EXPECT_TRUE(may_be_told(notice)) << panel->seen.back() << ", causes " << causes;
        trail += "  " + panel->seen.back() + '\n';
        if (!up && panel->client->connected())
            causes |= gap;  // what is published before the subscription stands is missed
        up = is_connected(notice);
        was_up = was_up || up;
    }
    void ask(kesto::Operation operation, bool allowed = true) {
        const bool connected = panel->client->connected();
        panel->ask(std::move(operation), [this, allowed, connected](const kesto::Answer &answer) {
            const auto is = [&answer](kesto::Outcome outcome) { return answer.outcome == outcome; };
            bool right = answer ? allowed : has(loss) && is(kesto::Outcome::unknown);
            if (is(kesto::Outcome::not_sent)) right = has(loss) || !connected;
            if (is(kesto::Outcome::not_allowed)) right = !allowed;
            if (is(kesto::Outcome::refused)) right = has(fault) || (has(loss) && !allowed);
            EXPECT_TRUE(right) << answer.sentence;
        });
    }
    void write() {
        const std::string one = key();
        ask(kesto::Write{one, value()}, one != serial_key);
    }
    void multi_write() {
        const std::string one = key(), two = key();
        ask(
            kesto::MultiWrite{
                {{one, value()}, {two, value()}}
        },
            one != serial_key && two != serial_key);
    }
    void device_does(const char *method, const std::string &arguments) {
        gateway.control(method, arguments.c_str());
        if (running) gateway.expect_log({"DBUS: *"});
    }
    void begin_service() {
        gateway.start_service();
        running = true;
        other.emplace("other").log_in();
        for (const int time_ms : {connect_limit_ms, pause_ms})  // or the attempt under way would take its time
            if (panel && !up) pass(panel->loop, time_ms);
    }
    void end_service() {
        if (!running) return;
        causes |= loss;
        kill_service(gateway);
        running = false;
        rival.reset();
    }
    void restart() {
        end_service();
        begin_service();
    }
    void log_out() {
        causes |= loss;
        if (running) RemoteClient("panel-1").log_out();
    }
    void begin_rival() {
        if (!running || rival) return;
        causes |= rivalry | loss;
        rival.emplace("panel-1").log_out();
        rival->log_in({.connect = false});
    }
    void begin_panel() {
        if (panel) causes |= loss;  // the new one may meet the session of the one before
        panel.emplace().judge = [this](kesto::Notice notice) { take_notice(notice); };
        up = was_up = false;
    }
    void settle() {
        if (!running) begin_service();
        if (rival) log_out();
        rival.reset();
        for (const char *method : {"read", "write", "multi-write"}) gateway.set_fault(method + std::string("=none"));
        serve(panel->loop, "connected", [this] { return panel->client->connected(); });
        panel->serve_until_answered();
        if (panel->shown.size() < shown_keys.size()) panel->read_all();  // a fault has refused it
        ::settle(*panel, gateway);
        causes = 0;
        panel->seen.clear();
    }
};

struct Step {
    const char *name;
    double weight;
    void (*take)(Walk &walk);
};
static constexpr Step steps[] = {
    {"write",          20,  [](Walk &w) { w.write(); }                                                               },
    {"multi-write",    8,   [](Walk &w) { w.multi_write(); }                                                         },
    {"read",           5,   [](Walk &w) { w.ask(kesto::Read{w.key()}); }                                             },
    {"other writes",   12,
     [](Walk &w) {
         if (w.running) w.other->write(w.key(), w.value());
     }                                                                                                               },
    {"device changes", 12,  [](Walk &w) { w.device_does("Change", "('" + w.key() + "', '" + w.value() + "', 's')"); }},
    {"snapshot",       1,
     [](Walk &w) {
         w.causes |= reload;
         w.device_does("LoadSnapshot", "(uint32 7,)");
     }                                                                                                               },
    {"look",           20,  [](Walk &w) { w.panel->loop.wait(0); }                                                   },
    {"answers",        5,   [](Walk &w) { w.panel->serve_until_answered(); }                                         },
    {"restart",        1,   [](Walk &w) { w.restart(); }                                                             },
    {"end of service", 0.5, [](Walk &w) { w.end_service(); }                                                         },
    {"log-out",        2,   [](Walk &w) { w.log_out(); }                                                             },
    {"rival",          1,   [](Walk &w) { w.begin_rival(); }                                                         },
    {"fault",          3,
     [](Walk &w) {
         w.causes |= fault;
         w.gateway.set_fault(faults[w.below(std::size(faults))]);
     }                                                                                                               },
    {"new panel",      1,   [](Walk &w) { w.begin_panel(); }                                                         },
    {"settle",         4,   [](Walk &w) { w.settle(); }                                                              },
};

TEST(Walk, EndsWithWhatTheDeviceHolds) {
    const unsigned seed = seed_from("KESTO_CLIENT_SEED", usual_seed);
    std::cout << "KESTO_CLIENT_SEED=" << seed << std::endl;
    std::vector<double> weights;
    for (const Step &step : steps) weights.push_back(step.weight);
    std::discrete_distribution<size_t> choice(weights.begin(), weights.end());
    Walk walk{std::mt19937(seed)};
    size_t taken = 0;
    try {
        walk.begin_service();
        walk.begin_panel();
        for (size_t count = number_from("KESTO_CLIENT_STEPS", default_steps); taken < count && !HasFailure(); taken++) {
            const Step &step = steps[choice(walk.random)];
            walk.trail += std::string(step.name) + '\n';
            step.take(walk);
        }
        walk.settle();
    } catch (const Abandoned &) {
        ADD_FAILURE() << "abandoned";
    }
    const size_t shown_from = walk.trail.size() - std::min(walk.trail.size(), last_steps_bytes);
    if (HasFailure())
        std::cout << "KESTO_CLIENT_SEED=" << seed << ", step " << taken << ":\n" << walk.trail.substr(shown_from);
}
