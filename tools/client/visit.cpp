#include "visit.h"

#include <cstdio>

#include "output.h"
#include "steps.h"

static constexpr VisitStep in_tour(StepFunction run, const char *name) { return {run, name, nullptr}; }

static constexpr VisitStep in_check(StepFunction run, const char *name) { return {run, nullptr, name}; }

static constexpr VisitStep in_both(StepFunction run, const char *tour_name, const char *check_name) {
    return {run, tour_name, check_name};
}

/* In this order: what a step finds the next ones use. */
static constexpr VisitStep steps[] = {
    in_check(step_discover, "discovery: a framed reply of fourteen fields"),
    in_check(step_unwrap, "discovery: the wrapped key unwraps"),
    in_tour(step_discover_and_unwrap, "discover the device"),
    in_check(step_discover_again, "discovery: the same id is answered again"),
    in_check(step_discover_keyless, "discovery: no key, an empty key field"),
    in_check(step_garbage, "login port: garbage gets one empty frame"),
    in_check(step_several_frames, "login port: several frames get one empty frame"),
    in_check(step_unsupported, "login port: what it does not serve is unsupported"),
    in_check(step_static_discovery, "static discovery: eight fields, those of discovery"),
    in_both(step_log_in, "log in", "log-in: a port in each range"),
    in_check(step_renew, "log-in: renewal gives the same ports"),
    in_check(step_wrong_password, "log-in: a wrong password is refused, the id usable"),
    in_check(step_other_user, "log-in: a second user on the id is refused"),
    in_check(step_show_discovery, "log-in: the discovery text decides when shown"),
    in_check(step_echoed_fields, "session: client id and sequence are echoed"),
    in_both(step_read, "read a key", "read: one key"),
    in_both(step_read_recursively, "read many keys", "read: recursively"),
    in_check(step_read_missing, "read: an unknown key is refused"),
    in_check(step_read_masked, "read: hide_secure_info masks"),
    in_both(step_write, "write a key", "write: reads back"),
    in_check(step_change_count, "write: the change counter grows"),
    in_both(step_write_several, "write several keys", "multi-write: reads back"),
    in_both(step_write_forbidden, "be refused a forbidden key", "write: a forbidden key is refused"),
    in_check(step_write_one_forbidden, "multi-write: one forbidden key, nothing written"),
    in_both(step_hear_other, "hear another client's change", "echo: reaches the other client, not the writer"),
    in_tour(step_hear_alarm, "hear the device's own alarm"),
    in_both(step_put_back, "put the changed value back", "write: the changed value is put back"),
    in_tour(step_log_out, "log out"),
    in_check(step_log_out_and_in, "log-out: closes the ports, the next gets others"),
    in_both(step_vanish, "vanish, and be logged off for it", "monitor: a client that hangs up is logged off"),
};

PassingId::PassingId(Account own) : account(std::move(own)) {}

PassingId::~PassingId() {
    try {
        log_out(account);
    } catch (const Failure &) {  // whether log-outs work is a step by itself
    }
}

static void put_back(Visit &visit) {
    if (!visit.project_info) return;
    try {
        visit_reopen_session(visit);
        write_project_info(*visit.session, *visit.project_info);
    } catch (const Failure &) {
        const std::string text = printable(*visit.project_info);
        fprintf(stderr, "kesto-client: could not put back %s = '%s'\n", project_key, text.c_str());
    }
}

Visit visit_new(const Options &options, const Account &account, const char *text) {
    return {options, PassingId(account), account.login.address, text};
}

void visit_walk(Visit &visit, const std::function<void(const VisitStep &step)> &take) {
    try {
        for (const VisitStep &step : steps) take(step);
    } catch (const Failure &) {
        put_back(visit);
        throw;
    }
    put_back(visit);
}

void visit_reopen_session(Visit &visit) {
    visit.session.reset();
    log_out(visit.own.account);
    visit.session = session_open(visit.own.account, {});
    visit.session->listen();
}
