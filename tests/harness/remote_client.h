/* remote_client.h - a remote client as the wire contract describes it: a request socket to the authentication port and,
 * once logged in, one to its command port and a subscription to its event port. A missing reply ends the test. */
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
    OptionalText user_name = "root", password = "vormi";                              // both absent: a log-out
    int32_t monitor = 0, discard_my_feedback = 0, hide_secure_info = 0, no_lock = 0;  // anything but 0 is a yes
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

    /* The ports of the answer; Ports{} when the login was refused. */
    Ports log_in(const LoginOptions &options = {}, Where where = Where::current());
    void connect_to(Ports ports);  // does nothing when it is connected to them
    wire::Reply log_out(Channel channel = Channel::authentication, Where where = Where::current());

    /* On the command socket. The flag `single` reads the key alone, without those below it. */
    static constexpr uint32_t single = 0x2000;
    wire::Reply read(const std::string &key, uint32_t flags = single, Where where = Where::current());
    wire::Reply write(const std::string &key, const OptionalText &value, uint32_t type = 0,
                      Where where = Where::current());
    wire::Reply multi_write(const Pairs &pairs, Where where = Where::current());
    wire::Reply authorize(uint32_t operation, const std::string &key, uint32_t recursive,
                          Where where = Where::current());

    std::string discovery_text(Channel channel, Where where = Where::current());

    /* Any request. Sets a sequence number, and the id unless the request has one; checks that both are echoed. */
    wire::Reply ask(Channel channel, wire::Request request, Where where = Where::current());

    /* Any bytes, one frame each. exchange gives the one frame of the answer. */
    std::string exchange(Channel channel, const Texts &frames, Where where = Where::current());
    void send(Channel channel, const Texts &frames, Where where = Where::current());

    /* Closes both connections, as a client that vanishes without logging out. */
    void hang_up();

    /* Waits until events reach the client; one that was published earlier may have been lost. For this it publishes
     * alarms of channels that no device has. The functions below leave these out. */
    void subscribe(Gateway &gateway, Where where = Where::current());
    wire::Message next_event(Where where = Where::current());  // an event, or another client's reply; must come

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
