/* kesto-client - talks to networked amplifiers as remote control software does. */
#include <clocale>
#include <cstdio>

#include "check.h"
#include "commands.h"
#include "failure.h"
#include "interrupt.h"
#include "shell.h"
#include "tour.h"
#include "watch.h"

static Command command(const char *name, const char *arguments, const char *summary, int (*run)(const Options &options),
                       const std::vector<const char *> &option_names = {}, Login login = Login::passing) {
    return {name, arguments, summary, run, option_names, login};
}

static const std::vector<Command> commands = {
    command("discover", "[HOST]", "Find devices (by broadcast, or ask HOST) and list them", run_discover, {"wait"},
            Login::none),
    command("login", "", "Open a session and show its ports", run_login,
            {"monitor", "discard-my-feedback", "hide-secure-info", "no-lock", "with-discovery"}, Login::lasting),
    command("logout", "", "End the session of the client id", run_logout, {}, Login::none),
    command("read", "KEY", "Read a key, with -r everything at or below it", run_read, {"recursive", "keep"}),
    command("write", "KEY VALUE", "Write a key", run_write, {"type", "lock", "keep"}),
    command("multi-write", "KEY=VALUE...", "Write all of the keys or none", run_multi_write, {"keep"}),
    command("may", "KEY", "Ask what the user may do with a key", run_may, {"keep"}),
    command("watch", "", "Show alarms and changes until Ctrl-C", run_watch, {"all", "count", "for", "keep"}),
    command("static-discovery", "", "Show the device's static discovery text", run_static_discovery, {"keep"}),
    command("changes", "", "Show the device's change counter", run_changes, {"keep"}),
    command("tour", "", "Do all of this once, step by step; changed values are put back", run_tour, {"alarm-wait"}),
    command("check", "[HOST]...", "Try devices against the contract; changed values are put back", run_check,
            {"other-password"}),
    command("shell", "", "Read commands from the terminal or standard input", run_shell),
};

static int run(int argc, char **argv) {
    setlocale(LC_CTYPE, "");
    const Invocation invocation = parse_command_line(argc, argv, commands);
    catch_interrupts();
    return invocation.command->run(invocation.options);
}

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const Failure &failure) {
        fprintf(stderr, "kesto-client: %s\n", failure.sentence.c_str());
        return static_cast<int>(failure.status);
    }
}
