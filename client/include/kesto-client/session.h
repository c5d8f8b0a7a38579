/* session.h - one login's session, blocking and without recovery; for checks, tests and programs that ask one thing and
 * end. What is to run for longer takes kesto::Client.
 *
 * A session lives in the device under the client id. A second login under the id finds the same session, with the flags
 * of the first. A monitored session ends with its last command connection; any other stays until it logs out. */
#pragma once

#include <memory>

#include "exchange.h"

namespace kesto {

struct Account {
    Endpoint login;
    std::string client_id, user, password;
    Patience patience;
};

/* On the login socket, without a session. */
KESTO_CLIENT_API Answer ask_login_socket(const Loop &loop, const Account &account, Operation operation); /* raw */
KESTO_CLIENT_API Answer log_in(const Loop &loop, const Account &account, const LoginFlags &flags,
                               const std::optional<std::string> &static_discovery = {}); /* done: has Ports */
KESTO_CLIENT_API Answer log_out(const Loop &loop, const Account &account);               /* done: no session is left */
KESTO_CLIENT_API Answer ask_static_discovery(const Loop &loop, const Account &account);  /* done: StaticDiscovery */

class KESTO_CLIENT_API Session {
  public:
    /* Logs in; done: connected() is true. `loop` must outlive the session, and only lends its ZeroMQ context. */
    Session(const Loop &loop, Account account);
    ~Session(); /* closes the connections; does not log out */
    Session(Session &&) noexcept;
    Session &operator=(Session &&) noexcept;

    Answer open(const LoginFlags &flags, const std::optional<std::string> &static_discovery = {});
    const Account &account() const;
    Ports ports() const; /* 0 before open */

    /* Asks, and after a refusal asks whether it was the user's rights. After Outcome::unknown, nonsense or interrupted
     * the session is of no further use. */
    Answer ask(const Operation &operation);

    /* Outcome::done whatever the reply's status. */
    Answer ask_raw(Operation operation);
    void set_sequence(std::uint64_t sequence); /* of the next request */

    /* Why this reply to a write or read was a refusal; asks the device about the user's rights. */
    Answer explain_refusal(const Operation &operation, const Reply &reply);

    /* From now on, or a moment later, what the device publishes arrives. */
    void listen();
    void stop_listening();
    void hang_up(); /* closes the command connection */

    /* The next thing that was published; none when nothing comes within `limit_ms`, and when `patience.stop` says so.
     */
    std::optional<Published> next_published(int limit_ms);

    /* To poll for reading, but only after next_published(0) has returned none; -1 when not listening. */
    int event_descriptor() const;

  private:
    struct KESTO_CLIENT_HIDDEN State;
    std::unique_ptr<State> state_;
};

}  // namespace kesto
