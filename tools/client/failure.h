/* failure.h - how every command of the client fails: by throwing a Failure, which main reports and turns into the exit
 * status. */
#pragma once

#include <string>
#include <utility>

#include <kesto-client/answer.h>

enum class ExitStatus {
    fine = 0,
    refused = 1,
    not_reachable = 2,
    usage = 64,
    interrupted = 130,  // Ctrl-C during a command that does not wait for it: 128 + SIGINT
};

struct Failure {
    ExitStatus status;
    std::string sentence;  // one line, without line break and without the program's name
};

inline Failure not_reachable(const std::string &why) { return {ExitStatus::not_reachable, "not reachable: " + why}; }

inline Failure refused(const std::string &why) { return {ExitStatus::refused, "refused: " + why}; }

inline Failure interrupted() { return {ExitStatus::interrupted, "interrupted"}; }

Failure failure_of(const kesto::Answer &answer);

/* The reply of an answer; throws when the request was not done. A multi-write that was done in part has its reasons in
 * its results. */
kesto::Reply reply_of(kesto::Answer answer);

/* The result of such a reply; throws when it is of another kind. */
template <typename Result>
Result result_of(kesto::Answer answer) {
    kesto::Reply reply = reply_of(std::move(answer));
    Result *result = std::get_if<Result>(&reply.result);
    if (result == nullptr) throw refused("the reply is about something else");
    return std::move(*result);
}
