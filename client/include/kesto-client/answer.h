/* answer.h - how a request ended. Nothing here throws. */
#pragma once

#include <functional>

#include "messages.h"

namespace kesto {

enum class Outcome {
    done,         // carried out; of a raw exchange: a reply came, whatever it says
    partly,       // a multi-write of which not every pair was written, see its results
    not_allowed,  // the user's rights do not cover it: nothing was done
    refused,      // by the device: no such key, a value that it does not take, a data service that is not there; one
                  // that did not answer in its time may still have carried a write out
    unsupported,  // the device does not know this request
    invalid,      // the argument is none, or the device could make nothing of the request: nothing was done
    not_sent,     // nobody to send it to: nothing was done
    unknown,      // sent, but no answer came: it may have been carried out or not
    nonsense,     // what came back is no answer to it: it may have been carried out or not
    interrupted,  // of a blocking call: its caller asked it to stop; else as `unknown`
};

/* "not_allowed", for logs and machines. */
KESTO_CLIENT_API std::string outcome_name(Outcome outcome);

struct Answer {
    Outcome outcome = Outcome::done;
    std::string sentence;  // why, for people, on one line; empty when done
    Reply reply;           // what the device answered; empty when nothing came

    explicit operator bool() const { return outcome == Outcome::done; }

    /* The result of the reply, or NULL when it has none of this kind: answer.get<Value>(). */
    template <typename Result>
    const Result *get() const {
        return std::get_if<Result>(&reply.result);
    }
};

using Answered = std::function<void(const Answer &answer)>;

}  // namespace kesto
