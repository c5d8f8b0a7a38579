/* visit.h - a client's whole visit to a device, step by step: the tour shows it, the check holds the device against the
 * contract with it.
 *
 * The device may be a real amplifier. The only value that a visit changes is the project information, a text for
 * people; audio parameters are written with the values that they have. */
#pragma once

#include <functional>
#include <optional>
#include <string>

#include <kesto-client/key_pair.h>

#include "failure.h"
#include "session.h"

/* Thrown by a step that cannot be taken: for this user, or because an earlier one gave nothing to work with. */
struct NotChecked {
    std::string why;
};

/* A client id of the visit's own. The destructor logs it out, whatever happened under it. */
struct PassingId {
    Account account;

    explicit PassingId(Account own);
    ~PassingId();
    PassingId(const PassingId &) = delete;
    PassingId &operator=(const PassingId &) = delete;
};

/* What the steps are given, and what they have found so far. */
struct Visit {
    const Options &options;
    PassingId own;
    std::string address;  // where discovery asks
    std::string text;     // to be written as project information
    kesto::KeyPair pair = {};
    std::optional<kesto::Device> device = {};
    std::string static_text = {};                  // empty: not known
    std::optional<Session> session = {};           // monitored and listening, under the own id
    std::string serial = {};                       // empty: not known
    std::optional<std::string> project_info = {};  // as found; set while the device may hold another
};

/* Takes one step; returns what was seen. Throws a Failure when the device does not keep the contract or does not
 * answer, NotChecked when the step cannot be taken. Leaves ids and values as they were, except for what it records in
 * the visit. */
using StepFunction = std::string (*)(Visit &visit);

struct VisitStep {
    StepFunction run;
    const char *tour_name;   // NULL: not a step of the tour
    const char *check_name;  // NULL: not one of the check
};

/* Makes an RSA key, which takes some 100 ms; asks the device nothing. `options` must outlive the visit. */
Visit visit_new(const Options &options, const Account &account, const char *text);

/* Hands each step to `take`, in order. However that ends, the project information is put back, or what it should be is
 * said on standard error. */
void visit_walk(Visit &visit, const std::function<void(const VisitStep &step)> &take);

/* A new session in the place of the visit's: after an answer that did not come the old one's socket is of no use. */
void visit_reopen_session(Visit &visit);
