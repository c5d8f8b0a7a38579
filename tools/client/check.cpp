#include "check.h"

#include <array>
#include <cstdio>

#include <glib.h>

#include "checks.h"
#include "output.h"

namespace {

struct Check {
    const char *name;
    std::string (*run)(Visit &visit);
};

constexpr Check checks[] = {
    {"discovery: a framed reply of fourteen fields",       check_discovery            },
    {"discovery: the wrapped key unwraps",                 check_wrapped_key          },
    {"discovery: the same id is answered again",           check_discovery_again      },
    {"discovery: no key, an empty key field",              check_discovery_without_key},
    {"login port: garbage gets one empty frame",           check_garbage              },
    {"login port: several frames get one empty frame",     check_several_frames       },
    {"login port: what it does not serve is unsupported",  check_unsupported          },
    {"static discovery: eight fields, those of discovery", check_static_discovery     },
    {"log-in: a port in each range",                       check_log_in               },
    {"log-in: renewal gives the same ports",               check_renewal              },
    {"log-in: a wrong password is refused, the id usable", check_wrong_password       },
    {"log-in: a second user on the id is refused",         check_other_user           },
    {"log-in: the discovery text decides when shown",      check_shown_discovery      },
    {"session: client id and sequence are echoed",         check_echoed_fields        },
    {"read: one key",                                      check_read                 },
    {"read: recursively",                                  check_recursive_read       },
    {"read: an unknown key is refused",                    check_missing_key          },
    {"read: hide_secure_info masks",                       check_masks                },
    {"write: reads back",                                  check_write                },
    {"write: the change counter grows",                    check_change_count         },
    {"write: a forbidden key is refused",                  check_forbidden_write      },
    {"multi-write: reads back",                            check_multi_write          },
    {"multi-write: one forbidden key, nothing written",    check_forbidden_multi_write},
    {"echo: reaches the other client, not the writer",     check_echo                 },
    {"write: the changed value is put back",               check_put_back             },
    {"log-out: closes the ports, the next gets others",    check_log_out              },
    {"monitor: a client that hangs up is logged off",      check_vanish               },
};

enum class Outcome { holds, fails, not_checked };
constexpr std::array<const char *, 3> outcome_texts = {"OK", "FAILED", "not checked"};

struct Row {
    Outcome outcome;
    std::string seen;
};

constexpr const char *line_format = "%-50s  %-11s  %s";

Saying say_row(const Check &check, const Row &row) {
    const char *outcome = outcome_texts[static_cast<size_t>(row.outcome)];
    g_autofree char *text = g_strdup_printf(line_format, check.name, outcome, printable(row.seen).c_str());
    return {
        {{"check", check.name}, {"outcome", outcome}, {"seen", row.seen}},
        text
    };
}

void print_head() {
    g_autofree char *head = g_strdup_printf(line_format, "check", "outcome", "seen");
    print_saying(false, {{}, head});
}

bool is_there(const Visit &visit) { return accepts_connections(visit.own.account.login, visit.own.account.timeout_ms); }

/* A device that announces nothing may still take logins; then the checks say which half of it is silent. */
void require_device(const Visit &visit) {
    const DiscoverySearch search{visit.address, visit.own.account.client_id, visit.options.timeout_ms};
    if (is_there(visit) || !discover_devices(search).empty()) return;
    throw Failure{ExitStatus::not_reachable, "not reachable: no device answers at " + visit.address};
}

/* After an answer that did not come the session's socket is of no use, and what is left of the session may be none. */
void reopen_session(Visit &visit) {
    visit.session.reset();
    log_out(visit.own.account);
    visit.session = session_open(visit.own.account, monitored());
    session_listen(*visit.session);
}

void renew_session(Visit &visit) {
    if (!visit.session) return;
    try {
        reopen_session(visit);
    } catch (const Failure &) {  // the checks that need one say so
    }
}

Row run_one(Visit &visit, const Check &check) {
    try {
        return {Outcome::holds, check.run(visit)};
    } catch (const NotChecked &reason) {
        return {Outcome::not_checked, reason.why};
    } catch (const Failure &failure) {
        if (failure.status == ExitStatus::interrupted) throw;
        if (failure.status == ExitStatus::not_reachable) renew_session(visit);
        return {Outcome::fails, failure.sentence};
    }
}

void tidy_up(Visit &visit) {
    if (!visit.project_info) return;
    try {
        reopen_session(visit);
        write_project_info(*visit.session, *visit.project_info);
    } catch (const Failure &) {
        fprintf(stderr, "kesto-client: could not put back %s = '%s'\n", project_key,
                printable(*visit.project_info).c_str());
    }
}

ExitStatus run_all(Visit &visit) {
    std::array<int, outcome_texts.size()> counts{};
    for (const Check &check : checks) {
        const Row row = run_one(visit, check);
        print_saying(visit.options.json, say_row(check, row));
        ++counts[static_cast<size_t>(row.outcome)];
        if (row.outcome == Outcome::fails && !is_there(visit))
            throw Failure{ExitStatus::not_reachable, "not reachable: the device went away"};
    }
    if (!visit.options.json) printf("%d hold, %d failed, %d not checked\n", counts[0], counts[1], counts[2]);
    return counts[static_cast<size_t>(Outcome::fails)] == 0 ? ExitStatus::fine : ExitStatus::refused;
}

}  // namespace

void require(bool holds, const std::string &otherwise) {
    if (!holds) throw device_failure(otherwise);
}

void expect_status(const wire::Reply &reply, wire::Status status, const std::string &what) {
    require(reply.status() == status,
            what + " is answered " + wire::Status_Name(reply.status()) + " instead of " + wire::Status_Name(status));
}

Session &session_of(Visit &visit) {
    if (!visit.session) throw NotChecked{"there is no session"};
    return *visit.session;
}

PassingId further_id(const Visit &visit, const char *suffix) {
    return PassingId(account_named(visit.own.account, suffix));
}

PassingId::PassingId(Account own) : account(std::move(own)) {}

PassingId::~PassingId() {
    try {
        log_out(account);
    } catch (const Failure &) {  // whether log-outs work is a check by itself
    }
}

int run_check(const Options &options) {
    const std::string address = options.arguments.empty() ? options.address : resolve_host(options.arguments[0]);
    Account account = account_named(account_from_options(options), "-check");
    account.login.address = address;
    Visit visit{options, address, PassingId(account), key_pair_new(), {}, {}, {}, {}, {}};
    require_device(visit);
    if (!options.json) print_head();
    try {
        const ExitStatus status = run_all(visit);
        tidy_up(visit);
        return static_cast<int>(status);
    } catch (const Failure &) {
        tidy_up(visit);
        throw;
    }
}
