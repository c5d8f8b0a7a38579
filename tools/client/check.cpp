#include "check.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <glib.h>

#include <kesto-client/browser.h>

#include "output.h"
#include "steps.h"

enum class Verdict { holds, fails, not_checked };
static constexpr std::array<const char *, 3> verdict_texts = {"OK", "FAILED", "not checked"};

struct CheckResult {
    Verdict verdict;
    std::string seen;
};

static constexpr const char *line_format = "%-50s  %-11s  %s";

/* `host` is told where several devices are checked. */
static Output format_result(const std::string &host, const char *name, const CheckResult &result) {
    const char *outcome = verdict_texts[static_cast<size_t>(result.verdict)];
    g_autofree char *text = g_strdup_printf(line_format, name, outcome, printable(result.seen).c_str());
    Json json;
    if (!host.empty()) json["host"] = host;
    json.update({
        {"check",   name       },
        {"outcome", outcome    },
        {"seen",    result.seen}
    });
    return {json, text};
}

static void print_head() {
    g_autofree char *head = g_strdup_printf(line_format, "check", "outcome", "seen");
    print_output(false, {{}, head});
}

static bool is_there(const Account &account) { return kesto::accepts_connections(account.login, account.patience); }

/* A device that does not answer discovery may still take logins; the checks then show which of the two fails. */
static void require_device(const Account &account) {
    const std::string &address = account.login.address;
    const kesto::Patience &patience = account.patience;
    if (is_there(account) ||
        kesto::ask_device(address, account.client_id, "", patience.limit_ms, patience.stop).device.has_value())
        return;
    throw not_reachable("no device answers at " + address);
}

static void renew_session(Visit &visit) {
    if (!visit.session) return;
    try {
        visit_reopen_session(visit);
    } catch (const Failure &) {  // the checks that need one say so
    }
}

static CheckResult make_check(Visit &visit, const VisitStep &step) {
    try {
        return {Verdict::holds, step.run(visit)};
    } catch (const NotChecked &reason) {
        return {Verdict::not_checked, reason.why};
    } catch (const Failure &failure) {
        if (failure.status == ExitStatus::interrupted) throw;
        if (failure.status == ExitStatus::not_reachable) renew_session(visit);
        return {Verdict::fails, failure.sentence};
    }
}

using Counts = std::array<int, verdict_texts.size()>;

static Counts check_device(const Options &options, const std::string &address, const std::string &host) {
    Account account = account_named(account_from_options(options), "-check");
    account.login.address = address;
    require_device(account);
    if (!options.json) print_head();

    Visit visit = visit_new(options, account, "written by the check");
    Counts counts{};
    visit_walk(visit, [&](const VisitStep &step) {
        if (step.check_name == nullptr) return;
        const CheckResult result = make_check(visit, step);
        print_output(options.json, format_result(host, step.check_name, result));
        ++counts[static_cast<size_t>(result.verdict)];
        if (result.verdict == Verdict::fails && !is_there(visit.own.account))
            throw not_reachable("the device went away");
    });
    if (!options.json) printf("%d hold, %d failed, %d not checked\n", counts[0], counts[1], counts[2]);
    return counts;
}

static ExitStatus status_of(const Counts &counts) {
    return counts[static_cast<size_t>(Verdict::fails)] == 0 ? ExitStatus::fine : ExitStatus::refused;
}

/* One after the other; a device that is not there does not keep the next ones from being checked. */
static ExitStatus check_several(const Options &options) {
    ExitStatus worst = ExitStatus::fine;
    for (const std::string &host : options.arguments) {
        if (!options.json) print_output(false, {{}, "device at " + printable(host)});
        ExitStatus status = ExitStatus::fine;
        try {
            status = status_of(check_device(options, address_of(host), host));
        } catch (const Failure &failure) {
            if (failure.status == ExitStatus::interrupted) throw;
            fprintf(stderr, "kesto-client: %s: %s\n", host.c_str(), failure.sentence.c_str());
            status = failure.status;
        }
        worst = std::max(worst, status);
    }
    return worst;
}

int run_check(const Options &options) {
    if (options.arguments.size() > 1) return static_cast<int>(check_several(options));
    const std::string address = options.arguments.empty() ? options.address : address_of(options.arguments[0]);
    return static_cast<int>(status_of(check_device(options, address, "")));
}
