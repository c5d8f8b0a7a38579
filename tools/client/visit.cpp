#include "visit.h"

#include <cstdio>

#include "output.h"
#include "steps.h"

static constexpr const char *none = nullptr;

/* In this order: what a step finds the next ones use. */
static constexpr VisitStep steps[] = {
    {step_discover,            none,                               "discovery: a framed reply of fourteen fields"      },
    {step_unwrap,              none,                               "discovery: the wrapped key unwraps"                },
    {step_discover_and_unwrap, "discover the device",              none                                                },
    {step_discover_again,      none,                               "discovery: the same id is answered again"          },
    {step_discover_keyless,    none,                               "discovery: no key, an empty key field"             },
    {step_garbage,             none,                               "login port: garbage gets one empty frame"          },
    {step_several_frames,      none,                               "login port: several frames get one empty frame"    },
    {step_unsupported,         none,                               "login port: what it does not serve is unsupported" },
    {step_static_discovery,    none,                               "static discovery: eight fields, those of discovery"},
    {step_log_in,              "log in",                           "log-in: a port in each range"                      },
    {step_renew,               none,                               "log-in: renewal gives the same ports"              },
    {step_wrong_password,      none,                               "log-in: a wrong password is refused, the id usable"},
    {step_other_user,          none,                               "log-in: a second user on the id is refused"        },
    {step_show_discovery,      none,                               "log-in: the discovery text decides when shown"     },
    {step_echoed_fields,       none,                               "session: client id and sequence are echoed"        },
    {step_read,                "read a key",                       "read: one key"                                     },
    {step_read_recursively,    "read many keys",                   "read: recursively"                                 },
    {step_read_missing,        none,                               "read: an unknown key is refused"                   },
    {step_read_masked,         none,                               "read: hide_secure_info masks"                      },
    {step_write,               "write a key",                      "write: reads back"                                 },
    {step_change_count,        none,                               "write: the change counter grows"                   },
    {step_write_several,       "write several keys",               "multi-write: reads back"                           },
    {step_write_forbidden,     "be refused a forbidden key",       "write: a forbidden key is refused"                 },
    {step_write_one_forbidden, none,                               "multi-write: one forbidden key, nothing written"   },
    {step_hear_other,          "hear another client's change",     "echo: reaches the other client, not the writer"    },
    {step_hear_alarm,          "hear the device's own alarm",      none                                                },
    {step_put_back,            "put the changed value back",       "write: the changed value is put back"              },
    {step_log_out,             "log out",                          none                                                },
    {step_log_out_and_in,      none,                               "log-out: closes the ports, the next gets others"   },
    {step_vanish,              "vanish, and be logged off for it", "monitor: a client that hangs up is logged off"     },
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
    return {options, PassingId(account), account.login.address, text, key_pair_new(), {}, {}, {}, {}, {}};
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
    visit.session = session_open(visit.own.account, monitored());
    session_listen(*visit.session);
}
