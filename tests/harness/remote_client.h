/* remote_client.h - a remote client as the wire contract has it: a request socket to the authentication port and, once
 * logged in, one to its command port and a subscription to its event port. A reply that does not come ends the test. */
#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "access.pb.h"
#include "harness/gateway.h"
#include "harness/texts.h"

namespace wire = kesto::access::v1;

inline constexpr int authentication_port = 60000;

struct Ports {
    int command = 0, event = 0;  // 0: no session
    bool operator==(const Ports &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Ports &ports);

struct LoginOptions {
    OptionalText user_name = "root", password = "vormi";  // both absent: a log-out
    bool monitor = false, discard_my_feedback = false, hide_secure_info = false, no_lock = false;
    OptionalText discovery = std::nullopt;
    bool connect = true;  // to the ports of the answer
};

/* The user who is kept from some keys. */
inline const LoginOptions as_quillmont = {.user_name = "quillmont", .password = "tandrivel"};

wire::Request login_request(const LoginOptions &options = {});

enum class Channel { authentication, command };

class RemoteClient {
  public:
    explicit RemoteClient(std::string id, std::string address = "127.0.0.1");

    /* The ports of the answer; none when it was refused. */
    Ports log_in(const LoginOptions &options = {}, Where where = Where::current());
    void connect_to(Ports ports);  // nothing when it is connected to these
    wire::Reply log_out(Channel channel = Channel::authentication, Where where = Where::current());

    /* On the command socket. `single` reads that key alone. */
    static constexpr uint32_t single = 0x2000;
    wire::Reply read(const std::string &key, uint32_t flags = single, Where where = Where::current());
    wire::Reply write(const std::string &key, const OptionalText &value, uint32_t type = 0,
                      Where where = Where::current());
    wire::Reply multi_write(const Pairs &pairs, Where where = Where::current());
    wire::Reply authorize(uint32_t operation, const std::string &key, bool recursive, Where where = Where::current());

    std::string discovery_text(Channel channel, Where where = Where::current());

    /* Any request. Fills in the id, unless there is one, and a sequence number, and checks that both are echoed. */
    wire::Reply ask(Channel channel, wire::Request request, Where where = Where::current());

    /* Bytes as they are, one frame each; the one frame of the answer. */
    std::string exchange(Channel channel, const Texts &frames, Where where = Where::current());
    void send(Channel channel, const Texts &frames, Where where = Where::current());

    /* Closes both connections, as a client that goes without a word. */
    void hang_up();

    /* Waits until the event socket hears the service: an event that was published before may never come. Uses alarms of
     * channels that no device has; the functions below never show one. */
    void subscribe(Gateway &gateway, Where where = Where::current());
    wire::Message next_event(Where where = Where::current());  // must come; an event, or another client's reply

    /* All events that were published until now. */
    std::vector<wire::Message> events_so_far(Gateway &gateway, Where where = Where::current());

  private:
    using Socket = std::shared_ptr<void>;  // of ZeroMQ

    Socket connect(int type, int port) const;
    void *socket_of(Channel channel) const { return (channel == Channel::command ? commands_ : authentication_).get(); }
    std::optional<wire::Message> hear(std::chrono::milliseconds at_most);
    wire::Message must_hear(const Where &where);

    std::string id_, address_;
    uint64_t sequence_ = 0;
    Ports ports_;
    Socket authentication_, commands_, events_;
};
