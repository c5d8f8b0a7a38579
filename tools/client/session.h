/* session.h - what the commands ask of a device. Each function throws a Failure when it is not done: `refused`, with
 * the key and the reason as far as the device tells it, or `not_reachable`. */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <kesto-client/session.h>

#include "failure.h"
#include "options.h"

using kesto::Account, kesto::LoginFlags, kesto::Ports, kesto::Session;

const kesto::Loop &the_loop(); /* the program's one */

kesto::Patience patience_of(const Options &options);
Account account_from_options(const Options &options);

/* On the login socket, without a session. */
Ports log_in(const Account &account, const LoginFlags &flags, const std::optional<std::string> &static_discovery = {});
void log_out(const Account &account);
std::string ask_static_discovery(const Account &account);

Session session_open(const Account &account, const LoginFlags &flags);

/* The session of one command. session_leave ends it, unless it was there before or --keep asks to leave it open.
 * Without session_leave the device ends it when the connection closes; with --keep it does not. */
Session session_enter(const Options &options);
void session_leave(const Options &options, const Session &session);
void with_session(const Options &options, const std::function<void(Session &)> &work);

kesto::Value session_read(Session &session, const std::string &key, bool recursive);
kesto::WriteResult session_write(Session &session, const Assignment &assignment, uint32_t type);
kesto::MultiWriteResult session_write_all(Session &session, const std::vector<Assignment> &assignments);
/* Whether the user's rights allow the operation, kesto::operation_read or operation_write. */
bool session_may(Session &session, uint32_t operation, const std::string &key, bool recursive);
std::string session_static_discovery(Session &session);
uint32_t session_change_count(Session &session);
