/* client.h - the connection to one device, which recovers by itself.
 *
 * It keeps to the endpoint that it was given: when Browser tells that the device's login_endpoint or static_text_of has
 * changed, make another one. It logs in, keeps the session alive, and after whatever goes wrong (no answer in time, a
 * closed port, a device that was restarted) logs out and in again: first at once, then with growing pauses. It notices
 * lost events, and a key that another client and the device changed at nearly the same moment, whose events can come in
 * the wrong order, it reads again. */
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "answer.h"
#include "device.h"
#include "loop.h"

namespace kesto {

struct ClientOptions {
    Endpoint login;              // login_endpoint of a discovered device, or an address
    std::string client_id = {};  // unique: for instance program, host and a number; whoever uses the same id shares the
                                 // session and can end it. Without "!" where it is to be used for discovery, too
    std::string user = {}, password = {};

    /* `monitor` is always set, so that a crash leaves no session behind. */
    LoginFlags flags = {};

    /* static_text_of the device that is meant; the login is refused when another one answers. */
    std::optional<std::string> static_discovery = {};

    /* Then the answer counts as not to come. A device whose data service is slow serves nobody meanwhile, for up to
     * 65 s. That it is gone, or its cable, is noticed within 15 s whatever this says. */
    int answer_limit_ms = 70000;
    int sign_of_life_ms = 5000;    // the change counter is asked for when nothing was answered for so long
    int longest_pause_ms = 30000;  // between two attempts; the first pause is 1 s, each further one twice as long
};

enum class Notice {
    connected,      // requests are served: read what you show
    lost,           // the sentence says why; the client tries to get the connection back
    recovered,      // connected again: read again what you show
    read_again,     // events were lost, much has changed at once, or the device stood still: read again what you show
    not_reachable,  // an attempt failed, nobody answered; said again only with another reason
    refused,        // an attempt failed, the device refused the login; likewise; further attempts follow
    invalid,        // an option is wrong: there are no attempts
};

/* "read_again", for logs and machines. */
KESTO_CLIENT_API std::string notice_name(Notice notice);

/* Notice and sentence as one line for people: "not reachable: ...". */
KESTO_CLIENT_API std::string notice_text(Notice notice, const std::string &sentence);

struct ClientCallbacks {
    /* `sentence` is for people, on one line; empty for connected and recovered. */
    std::function<void(Notice notice, const std::string &sentence)> notice = {};

    /* All that the device publishes, in its order. Applying a value twice must be harmless. What a loaded snapshot or
     * speaker preset calls for comes by itself, as Notice::read_again. */
    std::function<void(const Published &published)> published = {};

    /* The client has read a key again: this value holds, not those that were published for the key before. */
    std::function<void(const Value &value)> value = {};
};

class KESTO_CLIENT_API Client {
  public:
    /* Begins at once. `loop` must outlive the client's use, not the client itself. Throws nothing of its own. */
    Client(Loop &loop, ClientOptions options, ClientCallbacks callbacks);

    /* Closes the connection, and with it the device ends the session. Requests that are not answered yet are not told
     * any more. */
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool connected() const;
    Ports ports() const; /* of the session; 0 while not connected */

    /* Asks in the order of the calls, one request at a time; `answered` is called once for each, and at once for what
     * cannot be sent at all. When the client is not connected, or loses its connection before the request's turn, that
     * is with Outcome::not_sent; requests are not kept for later. A login is answered Outcome::invalid. A read without
     * a value is Outcome::refused or Outcome::not_allowed, for which the client asks the device after a refusal. */
    void ask(Operation operation, Answered answered);

    /* Logs out after the requests so far; then `closed` is called, within 5 s even when the device does not answer, and
     * there are no further callbacks. No further requests are taken. A client that has not been closed logs out by
     * being destroyed. */
    void close(std::function<void()> closed);

  private:
    class KESTO_CLIENT_HIDDEN Core;
    std::shared_ptr<Core> core_;
};

}  // namespace kesto
