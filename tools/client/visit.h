/* visit.h - the deeds of a client's visit to a device that the tour and the check have in common.
 *
 * They may meet a real amplifier: the only value that they change is the project information, a text for people.
 * Everything throws a Failure when the device does not play its part; waits are in milliseconds. */
#ifndef CLIENT_VISIT_H
#define CLIENT_VISIT_H

#include <functional>
#include <optional>
#include <string>

#include "failure.h"
#include "session.h"

constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial", *project_key = "/Device/Config/PROJECT_INFO",
                     *hardware_keys = "/Device/Config/Hardware";
constexpr uint32_t plain_write_type = 1;

Failure device_failure(const std::string &sentence); /* the device answers, but not as it should */

Account account_named(const Account &account, const char *suffix); /* the same user under a further client id */
LoginWishes monitored();                                           /* without the echo of own changes */
std::string ports_text(const Session &session);

void write_project_info(Session &session, const std::string &text);
void expect_project_info(Session &session, const std::string &text);

/* The next published message that `fits`; none when it does not come in time. */
std::optional<wire::Message> wait_for_published(const Session &session, int wait_ms,
                                                const std::function<bool(const wire::Message &)> &fits);

/* Whether it is the echo of this client's writing this text. */
bool is_echo(const wire::Message &message, const Session &writer, const std::string &text);

/* Writes the text as project information until the listener, which listens, hears of it. */
void write_until_heard(Session &writer, const Session &listener, const std::string &text);

void expect_closed(const Session &session); /* once it has been logged out */

/* Logs in under the account's id, which has no session, hangs up, and waits until the device has noticed. Returns what
 * was seen. */
std::string vanish(const Account &account);

#endif
