/* One ramp from no session to as many as there are ports. At some numbers of sessions it stops and measures, so that
 * every row is taken under the number of clients that it names. */
#include "measured.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <thread>

#include "clients.h"
#include "device.h"
#include "process.h"

static constexpr int idle_ms = 5000;
static constexpr int discoveries = 300, logins = 100, echoed_writes = 600, multi_writes = 800;
static constexpr int reads = 3000, authorizations = 12000;
static constexpr int event_bursts = 18, burst_length = 10;
static constexpr int latency_reads = 400;
static constexpr double tick_us = 33000;
static constexpr int answer_pause_us = 1000;  // longer than what a release takes after its answer
static constexpr size_t echo_listeners = 9;

struct Bench {
    pid_t process;
    int effort;
    Figures figures;
    Socket auth;
    std::vector<Client> clients;
};

static void pause_us(double us) { std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(us))); }

static int times(const Bench &bench, int count) { return std::max(1, count / bench.effort); }

static void record_work(Bench &bench, const std::string &row, const Cost &cost, double count) {
    bench.figures[row + ".cpu"] = cost.cpu_us / count;
    bench.figures[row + ".wakes"] = cost.wakes / count;
}

static void record(Bench &bench, const std::string &row, const Cost &cost, double count) {
    record_work(bench, row, cost, count);
    bench.figures[row + ".time"] = cost.time_us / count;
}

static void idle(Bench &bench) {
    const std::string row = "idle." + std::to_string(bench.clients.size());
    const double duration_us = 1000.0 * times(bench, idle_ms);
    const Cost cost = cost_of(bench.process, [&] { pause_us(duration_us); });
    record_work(bench, row, cost, cost.time_us / 1e6);
}

/* Each answer is timed on its own, with a pause before the next request. */
struct Answers {
    std::vector<double> times_us;
    void time(const std::function<void()> &exchange) {
        const double before = now_us();
        exchange();
        times_us.push_back(now_us() - before);
        pause_us(answer_pause_us);
    }
};

static void discover(Bench &bench, const std::string &row, bool with_key, bool known) {
    const Discovery discovery;
    const int count = times(bench, discoveries);
    const auto id_of = [&](int i) { return "bench-" + row + std::to_string(known ? 0 : i); };
    if (known) discovery.ask(id_of(0), with_key);
    Answers answers;
    const Cost cost = cost_of(bench.process, [&] {
        for (int i = 0; i < count; ++i) answers.time([&] { discovery.ask(id_of(i), with_key); });
    });
    record_work(bench, "discovery." + row, cost, count);
    bench.figures["discovery." + row + ".time"] = median(answers.times_us);
    for (int i = 0; i < (known ? 1 : count); ++i) ask(bench.auth, logout_request(id_of(i)));
}

static void log_in_and_out(Bench &bench) {
    const std::string id = "bench-visitor";
    const int count = times(bench, logins);
    Answers logged_in, logged_out;
    const Cost cost = cost_of(bench.process, [&] {
        for (int i = 0; i < count; ++i) {
            logged_in.time([&] { ask(bench.auth, login_request(id)); });
            logged_out.time([&] { ask(bench.auth, logout_request(id)); });
        }
    });
    record_work(bench, "login", cost, count);
    bench.figures["login.time"] = median(logged_in.times_us);
    bench.figures["logout.time"] = median(logged_out.times_us);
}

/* Every client has a request under way, again and again. */
static void command(Bench &bench, const std::string &name, std::string (*request_of)(const std::string &), int total) {
    std::vector<std::string> requests;
    for (const Client &client : bench.clients) requests.push_back(request_of(client.id));
    const size_t count = bench.clients.size();
    const int rounds = std::max(1, times(bench, total) / static_cast<int>(count));
    const auto round = [&] {
        for (size_t i = 0; i < count; ++i) send(bench.clients[i].commands, requests[i]);
        for (size_t i = 0; i < count; ++i) receive_reply(bench.clients[i].commands);
    };
    round();  // connections come about at the first request
    const Cost cost = cost_of(bench.process, [&] {
        for (int i = 0; i < rounds; ++i) round();
    });
    record(bench, name + "." + std::to_string(count), cost, static_cast<double>(count) * rounds);
}

static void commands(Bench &bench) {
    command(bench, "read", read_request, reads);
    command(bench, "authorize", authorize_request, authorizations);
}

static void multi_write(Bench &bench) { command(bench, "multiwrite", multi_write_request, multi_writes); }

static void echo(Bench &bench) {
    const Client &writer = bench.clients.front();
    const std::span<const Client> others = std::span(bench.clients).subspan(1, echo_listeners);
    const std::string request = write_request(writer.id);
    const int count = times(bench, echoed_writes);
    device_settle(bench.clients);
    const Cost cost = cost_of(bench.process, [&] {
        for (int i = 0; i < count; ++i) {
            ask(writer.commands, request);
            clients_hear(others, 1);
        }
    });
    record(bench, "echo", cost, count);
}

/* The bursts begin at moments that are spread evenly over the tick, so that the wait for the next tick is the same on
 * average in every run. */
static void events(Bench &bench) {
    const std::string row = "event." + std::to_string(bench.clients.size());
    const int bursts = times(bench, event_bursts);
    double delay_us = 0;
    device_settle(bench.clients);
    const Cost cost = cost_of(bench.process, [&] {
        for (int i = 0; i < bursts; ++i) {
            pause_us(tick_us * i / bursts);
            for (int k = 1; k < burst_length; ++k) device_report("-6.0");
            const double last = now_us();
            device_report("-6.5");
            clients_hear(bench.clients, burst_length);
            delay_us += now_us() - last;
        }
    });
    const double deliveries = static_cast<double>(bench.clients.size()) * burst_length * bursts;
    record_work(bench, row, cost, deliveries);
    bench.figures[row + ".time"] = delay_us / bursts;
}

static void latency(Bench &bench) {
    const std::string row = "sessions." + std::to_string(bench.clients.size());
    const Client &client = bench.clients.front();
    const std::string request = read_request(client.id);
    std::vector<double> times_us;
    const int count = times(bench, latency_reads);
    const Cost cost = cost_of(bench.process, [&] {
        for (int i = 0; i < count; ++i) {
            const double before = now_us();
            ask(client.commands, request);
            times_us.push_back(now_us() - before);
        }
    });
    record_work(bench, row, cost, count);
    bench.figures[row + ".time"] = median(times_us);
    bench.figures[row + ".memory"] = resident_kib(bench.process);
    bench.figures[row + ".descriptors"] = descriptor_count(bench.process);
}

using Step = void (*)(Bench &);
struct Stage {
    size_t sessions;
    std::vector<Step> steps;
};

static const Stage whole_ramp[] = {
    {1,   {latency, log_in_and_out, commands, multi_write, events}},
    {10,  {latency, commands, echo, events}                       },
    {100, {latency, commands, events, idle}                       },
    {250, {latency}                                               },
    {500, {latency, events}                                       },
    {998, {latency}                                               },
};
static const Stage command_ramp[] = {
    {1,  {log_in_and_out, commands}},
    {10, {commands}                },
};
static const Stage event_ramp[] = {
    {1,   {events}},
    {10,  {events}},
    {100, {events}},
    {500, {events}}
};

static void climb(Bench &bench, std::span<const Stage> ramp) {
    for (const Stage &stage : ramp) {
        const size_t there = bench.clients.size();
        for (Client &client : clients_log_in(bench.auth, there, stage.sessions - there))
            bench.clients.push_back(std::move(client));
        for (const Step step : stage.steps) step(bench);
    }
}

static Figures climb_alone(pid_t process, int effort, std::span<const Stage> ramp) {
    Bench bench{process, effort, {}, connect_auth(), {}};
    climb(bench, ramp);
    return bench.figures;
}

Figures measure(pid_t process, int effort) {
    Bench bench{process, effort, {}, connect_auth(), {}};
    discover(bench, "key", true, false);
    discover(bench, "plain", false, false);
    discover(bench, "known", true, true);
    idle(bench);
    climb(bench, whole_ramp);
    return bench.figures;
}

Figures measure_commands(pid_t process, int effort) { return climb_alone(process, effort, command_ramp); }

Figures measure_events(pid_t process, int effort) { return climb_alone(process, effort, event_ramp); }
