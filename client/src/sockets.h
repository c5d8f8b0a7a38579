/* sockets.h - the two kinds of ZeroMQ sockets that a client has. Neither ever waits. */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <zmq.h>

#include <kesto-client/exchange.h>

#include "owned.h"

namespace kesto {

using Frames = std::vector<std::string>;
using Socket = std::unique_ptr<void, ByPointer<zmq_close>>;

enum class AfterLoss {
    reconnect,  // to the login port, which is everybody's
    stay_away,  // from a port that may be another client's by now
};

/* A REQ socket, which alternates strictly: one that did not get its answer is never used again. */
class Requester {
  public:
    Requester(void *context, Endpoint endpoint, AfterLoss after_loss);

    /* Sends once the connection stands. `limit_ms` goes for all of it, until the answer. Not while another request is
     * under way. */
    void ask(Frames frames, int64_t now, int limit_ms);
    void ask(const Request &request, int64_t now, int limit_ms);

    struct Raw {
        Answer answer;  // without reply
        Frames frames;
    };
    /* Both do what can be done now. How the request ended; none while it is under way, and when there is none. Only
     * after an Outcome::done or Outcome::invalid the requester can be asked again. */
    std::optional<Raw> go_on_raw(int64_t now);
    std::optional<Answer> go_on(int64_t now);

    bool busy() const { return stage_ != Stage::idle; }
    bool awaits_answer() const { return stage_ == Stage::asked; }
    bool lost() const { return lost_; } /* the connection stood and is gone */
    int64_t due() const;                /* when go_on is to be called at the latest, while busy */
    int descriptor() const;             /* -1: the socket could not be opened, and go_on says so */
    const Endpoint &endpoint() const { return endpoint_; }

  private:
    enum class Stage { idle, connecting, asked, refused };  // `refused`: there is a problem to tell

    void look();
    void receive();
    Raw end(Outcome outcome, std::string sentence);
    Raw end_of_limit();
    Answer answer_of(Raw raw) const;

    Endpoint endpoint_;
    Socket socket_;
    int error_ = 0;  // why there is no socket
    Stage stage_ = Stage::idle;
    bool connected_ = false, lost_ = false, answered_ = false;
    Frames frames_;  // to be sent, then those of the answer
    Raw problem_;
    std::optional<std::uint64_t> sequence_;
    int64_t connect_until_ = 0, answer_until_ = 0;
    int limit_ms_ = 0;
};

/* A SUB socket, subscribed to everything. */
class Listener {
  public:
    Listener(void *context, const Endpoint &endpoint);

    int descriptor() const;               /* -1: the socket could not be opened */
    std::optional<std::string> receive(); /* the next frame; none: nothing is there */

  private:
    Socket socket_;
};

}  // namespace kesto
