/* baseline.h - the program that the service is compared with: the same work on the same libraries, written straight
 * down. It decides nothing, checks nothing and logs nothing, so it is the least that the work can cost, and it is of no
 * other use: whoever can reach it can do anything. Everything but the D-Bus methods runs on the network thread. */
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include <czmq.h>
#include <gio/gio.h>

#include "access.pb.h"

namespace wire = kesto::access::v1;

struct Session {
    std::string id;
    zsock_t *commands, *events;
    int command_port, event_port;
    bool hears_itself;
};

struct Baseline {
    GDBusConnection *bus;
    GAsyncQueue *queue;                 /* of std::string *, each a serialized event */
    std::atomic<uint32_t> change_count; /* the D-Bus methods add to it, too */
    zloop_t *loop;
    zsock_t *auth;
    int next_command_port, next_event_port;
    std::unordered_map<std::string, std::unique_ptr<Session>> sessions;
    std::string model, serial, easy_swap_id;
};

struct SocketTimes {
    int linger_ms, send_ms;
};

/* Serves for ever. `baseline` is the Baseline. */
void *network_run(void *baseline);

/* sessions.cpp: a bound REP socket. */
zsock_t *open_request_socket(SocketTimes times, int port);

/* Opens a session, or finds the id's; closes it, or does nothing when there is none. */
Session &session_open(Baseline &baseline, const std::string &id, const wire::Login &login);
void session_close(Baseline &baseline, const std::string &id);

/* commands.cpp: the handler of one session's command socket. `session` is the Session. */
int on_command(zloop_t *, zmq_pollitem_t *item, void *session);

/* Receives one request into `message`, whose room it takes over. False when there was none. */
bool receive_request(void *socket, wire::Message &message);
void send_bytes(void *socket, const std::string &bytes);
void send_to_all(Baseline &baseline, const std::string &bytes, const Session *source);

/* discovery.cpp: the handler of the UDP socket. */
int on_discovery(zloop_t *, zmq_pollitem_t *item, void *baseline);

/* bus.cpp: the calls, which block; the values are new references, or nothing when the call failed. */
GVariant *bus_read(const Baseline &baseline, uint32_t flags, const std::string &key);
int bus_write(const Baseline &baseline, const wire::Write &write);
GVariant *bus_multi_write(const Baseline &baseline, const wire::MultiWrite &write);
void bus_tell_audio(const Baseline &baseline, const char *method, const std::string &id);
std::string bus_read_text(const Baseline &baseline, const char *key);
void bus_export_methods(Baseline &baseline);

/* The one instance; handlers that get a session reach it here. */
extern Baseline the_baseline;
