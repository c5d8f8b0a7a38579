/* loop.h - what browsers and clients live in: one descriptor to poll, one call to go on, one time-out to respect.
 *
 *     kesto::Loop loop;
 *     kesto::Client client(loop, ...);
 *     while (running) loop.wait(200);
 *
 * or, in an event loop of the caller's own: watch descriptor() for reading; when it is readable or timeout_ms() have
 * passed, call dispatch(). Ask timeout_ms() anew after each dispatch() and after each call of an object in the loop.
 *
 * A loop and everything in it belong to one thread at a time. There is no thread but ZeroMQ's two for each loop, and
 * no state outside the loop, so a program may have several. Callbacks are called from dispatch() and wait() alone,
 * never from within another call. They may do everything: destroy the object that called them, too, but not the loop.
 * What a callback throws comes out of dispatch(), which can be called again.
 *
 * With CMake: find_package(kesto-client), kesto::client; with pkg-config: kesto-client.
 *
 * A connected client takes 4 descriptors: a program with hundreds of them raises its RLIMIT_NOFILE. When descriptors
 * run out clients report that they are not reachable, and try again. */
#pragma once

#include <memory>

#include "api.h"

namespace kesto {

class KESTO_CLIENT_HIDDEN LoopCore;

class KESTO_CLIENT_API Loop {
  public:
    /* Throws std::system_error when the process has no descriptors or threads left. */
    Loop();
    /* Objects in it that are still there go silent. */
    ~Loop();
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    int descriptor() const; /* stays the loop's: poll it for reading, and do nothing else with it */
    int timeout_ms() const; /* until dispatch() has to be called at the latest; 0: now; -1: no limit */
    void dispatch();        /* does what is to be done, without waiting; within a callback nothing */

    /* Waits for something to do, no longer than `limit_ms` (-1: no limit), and does it. False when a signal handler ran
     * meanwhile. One that ran just before is not noticed: give a limit where a signal is to end the program. */
    bool wait(int limit_ms = -1);

    const std::shared_ptr<LoopCore> &core() const { return core_; } /* for the objects in the loop */

  private:
    std::shared_ptr<LoopCore> core_;
};

}  // namespace kesto
