/* session.h - logging in and out, and what a logged-in client asks.
 *
 * A session lives in the device under the client id. A second login under the id finds the same session, with the flags
 * of the first. A monitored session ends with its last command connection; any other stays until it logs out.
 * Each function that asks throws a Failure: `refused`, with the key and the reason as far as the device tells it, or
 * `not_reachable`. */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "failure.h"
#include "options.h"
#include "wire.h"

struct Account {
    Endpoint login;
    std::string client_id, user, password;
    int timeout_ms;
};
Account account_from_options(const Options &options);

struct LoginRequest {
    bool monitor = false;
    bool discard_my_feedback = false;
    bool hide_secure_info = false;
    bool no_lock = false;
    std::optional<std::string> discovery;  // the static discovery text to present
};

struct Session {
    Account account;
    int command_port, event_port;
    Socket commands;
    Socket events;  // only after session_listen
    uint64_t sequence = 0;
};

/* On the authentication socket, without a session. The two that ask return whatever the device replies. */
wire::Reply ask_login_socket(const Account &account, wire::Request request); /* fills in the client id */
wire::Reply ask_to_log_in(const Account &account, const LoginRequest &login);
wire::Session log_in(const Account &account, const LoginRequest &login);
void log_out(const Account &account);
std::string ask_static_discovery(const Account &account);

Session session_open(const Account &account, const LoginRequest &login);
void session_listen(Session &session); /* from now on, or a moment later, what the device publishes arrives */
Endpoint session_command_endpoint(const Session &session);
Endpoint session_event_endpoint(const Session &session);

/* The session of one command. session_leave ends it, unless it was there before or --keep asks to leave it open.
 * Without session_leave the device ends it when the connection closes; with --keep it does not. */
Session session_enter(const Options &options);
void session_leave(const Options &options, const Session &session);
void with_session(const Options &options, const std::function<void(Session &)> &work);

wire::Request read_request(const std::string &key, bool recursive);
wire::Request write_request(const Assignment &assignment, uint32_t type);
wire::Request multi_write_request(const std::vector<Assignment> &assignments);

/* Fills in client id and sequence; returns whatever the device replies, also a refusal, which the functions below
 * throw. */
wire::Reply session_ask(Session &session, wire::Request request);

wire::Value session_read(Session &session, const std::string &key, bool recursive);
wire::WriteResult session_write(Session &session, const Assignment &assignment, uint32_t type);
/* Why a write was refused, as session_write throws it; asks the device about the user's rights. */
Failure session_write_refusal(Session &session, const std::string &key, uint32_t type, int result);
wire::MultiWriteResult session_write_all(Session &session, const std::vector<Assignment> &assignments);
/* Whether the user's rights allow the operation, operation_read or operation_write. */
bool session_may(Session &session, uint32_t operation, const std::string &key, bool recursive);
std::string session_static_discovery(Session &session);
uint32_t session_change_count(Session &session);
