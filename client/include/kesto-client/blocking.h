/* blocking.h - a client for programs without an event loop.
 *
 *     kesto::BlockingClient amplifier({.login = {"192.168.1.20"}, .client_id = "panel-1", .user = "quillmont",
 *                                      .password = "tandrivel"});
 *     const kesto::Answer answer = amplifier.ask(kesto::Read{"/Device/Config/PROJECT_INFO"});
 *     if (answer) puts(answer.get<kesto::Value>()->text.c_str());
 *
 * One thread at a time. It recovers as kesto::Client does, but only during its calls: a program that is elsewhere for
 * long loses events, and is told so. */
#pragma once

#include "client.h"

namespace kesto {

class KESTO_CLIENT_API BlockingClient {
  public:
    /* Throws std::system_error as Loop does. Does not wait for the device. */
    explicit BlockingClient(ClientOptions options, ClientCallbacks callbacks = {});
    ~BlockingClient(); /* logs out, for at most 5 s */
    BlockingClient(const BlockingClient &) = delete;
    BlockingClient &operator=(const BlockingClient &) = delete;

    /* Waits until it is connected, for the options' answer_limit_ms at most, then asks and waits for the answer. Not
     * connected in time, or an invalid option: Outcome::not_sent with the reason. */
    Answer ask(Operation operation);

    Ports ports() const; /* of the session; 0 while not connected */

    /* Calls the callbacks for what comes within `limit_ms`. */
    void wait(int limit_ms);

  private:
    struct KESTO_CLIENT_HIDDEN State;
    std::unique_ptr<State> state_;
};

}  // namespace kesto
