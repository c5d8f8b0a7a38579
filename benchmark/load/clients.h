/* clients.h - remote clients, all in this one process on plain ZeroMQ sockets. One thread. Everything that waits is
 * bounded; what does not come in time, or is not the answer that was asked for, is thrown as a std::runtime_error. */
#pragma once

#include <memory>
#include <string>
#include <vector>
#include <zmq.h>

#include "access.pb.h"

namespace wire = kesto::access::v1;

struct SocketClose {
    void operator()(void *socket) const { zmq_close(socket); }
};
using Socket = std::unique_ptr<void, SocketClose>;

struct Client {
    std::string id;
    Socket commands, events;  // connected, once it is logged in
};

/* Requests, serialized and ready to be sent over and over. */
std::string login_request(const std::string &id);
std::string logout_request(const std::string &id);
std::string authorize_request(const std::string &id);
std::string read_request(const std::string &id);         // of one key
std::string write_request(const std::string &id);        // of one key
std::string multi_write_request(const std::string &id);  // of eight keys

Socket connect_auth();
/* Sends the request and waits for its answer, which must be STATUS_OK. */
wire::Reply ask(const Socket &socket, const std::string &request);
void send(const Socket &socket, const std::string &bytes);
wire::Reply receive_reply(const Socket &socket);

/* Logs in and connects both sockets. What is published at once may be missed: see device_settle. */
Client client_log_in(const Socket &auth, const std::string &id);
std::vector<Client> clients_log_in(const Socket &auth, size_t first, size_t count);

/* The next message on the event socket: an event, or an echo. Nothing after `timeout_ms`. */
std::unique_ptr<wire::Message> receive_published(const Client &client, int timeout_ms);

/* One discovery request over UDP, answered. */
class Discovery {
  public:
    Discovery();
    ~Discovery();
    Discovery(const Discovery &) = delete;
    Discovery &operator=(const Discovery &) = delete;
    void ask(const std::string &id, bool with_key) const;

  private:
    int descriptor_;
};
