#include "counted.h"

#include <cstdio>
#include <functional>
#include <stdexcept>

#include "clients.h"
#include "device.h"

static constexpr int warm_up = 30;  // until caches, pools and buffers have grown
static constexpr int requests = 200, bursts = 6;
static constexpr int burst_length = 20;  // so that what each tick of the service costs hardly shows
static constexpr size_t few_clients = 1, more_clients = 21;

static void tell_and_wait(const char *what, const char *name, int count) {
    printf("%s %s %d\n", what, name, count);
    fflush(stdout);
    for (int c = getchar(); c != '\n'; c = getchar()) {
        if (c == EOF) throw std::runtime_error("the observer has gone");
    }
}

struct Work {
    const char *name;
    int warm_up, repetitions, pieces_each;
};

static void work(const Work &what, const std::function<void()> &repeated) {
    for (int i = 0; i < what.warm_up; ++i) repeated();
    tell_and_wait("begin", what.name, what.repetitions * what.pieces_each);
    for (int i = 0; i < what.repetitions; ++i) repeated();
    tell_and_wait("end", what.name, what.repetitions * what.pieces_each);
}

static void request_work(const char *name, const std::function<void()> &request) {
    work({name, warm_up, requests, 1}, request);
}

static void event_work(const char *name, const std::vector<Client> &clients) {
    device_settle(clients);
    work({name, 1, bursts, burst_length}, [&] {
        for (int i = 0; i < burst_length; ++i) device_report("-6.5");
        clients_hear(clients, burst_length);
    });
}

void work_in_steps() {
    const Discovery discovery;
    const Socket auth = connect_auth();
    std::vector<Client> clients = clients_log_in(auth, 0, few_clients);
    const Client &client = clients.front();
    const auto command_work = [&](const char *name, const std::string &request) {
        request_work(name, [&] { ask(client.commands, request); });
    };
    command_work("read", read_request(client.id));
    command_work("write", write_request(client.id));
    command_work("multi-write", multi_write_request(client.id));
    command_work("authorize", authorize_request(client.id));
    request_work("discovery", [&] { discovery.ask("bench-known", true); });
    request_work("discovery-plain", [&] { discovery.ask("bench-known", false); });
    request_work("login", [&] {
        ask(auth, login_request("bench-visitor"));
        ask(auth, logout_request("bench-visitor"));
    });
    event_work("event-1", clients);
    for (Client &further : clients_log_in(auth, few_clients, more_clients - few_clients))
        clients.push_back(std::move(further));
    event_work("event-21", clients);
}
