/* kesto-client - talks to networked amplifiers as remote control software does. */
#include <clocale>
#include <cstdio>

#include <czmq.h>
#include <google/protobuf/stubs/logging.h>

#include "check.h"
#include "commands.h"
#include "failure.h"
#include "shell.h"
#include "tour.h"
#include "watch.h"

static constexpr size_t any_number = SIZE_MAX;

static const std::vector<Command> &commands() {
    static const std::vector<Command> table = {
        {"discover",
         "[HOST]",                        "Find devices (by broadcast, or ask HOST) and show what they say",
         0,                                                                                                     1,
         false,                                                                                                                    false,
         {"wait"},
         run_discover                                                                                                                                                          },
        {"login",
         "",                              "Open a session and show its ports",
         0,                                                                                                     0,
         true,                                                                                                                     false,
         {"monitor", "discard-my-feedback", "hide-secure-info", "no-lock", "with-discovery"},
         run_login                                                                                                                                                             },
        {"logout",           "",          "End the session of the client id",                                0, 0,          false, false, {},                       run_logout },
        {"read",
         "KEY",                           "Read a key, with -r everything at or below it",
         1,                                                                                                     1,
         true,                                                                                                                     true,
         {"recursive", "keep"},
         run_read                                                                                                                                                              },
        {"write",            "KEY VALUE", "Write a key",                                                     2, 2,          true,  true,  {"type", "lock", "keep"}, run_write  },
        {"multi-write",
         "KEY=VALUE...",                  "Write all of the keys or none",
         1,                                                                                                     any_number,
         true,                                                                                                                     true,
         {"keep"},
         run_multi_write                                                                                                                                                       },
        {"may",              "KEY",       "Ask what the user may do with a key",                             1, 1,          true,  true,  {"keep"},                 run_may    },
        {"watch",            "",          "Show alarms and changes until Ctrl-C",                            0, 0,          true,  true,  {"count", "for", "keep"}, run_watch  },
        {"static-discovery",
         "",                              "Show the device's static discovery text",
         0,                                                                                                     0,
         true,                                                                                                                     true,
         {"keep"},
         run_static_discovery                                                                                                                                                  },
        {"changes",          "",          "Show the device's change counter",                                0, 0,          true,  true,  {"keep"},                 run_changes},
        {"tour",
         "",                              "Do all of this once, step by step; changed values are put back",
         0,                                                                                                     0,
         true,                                                                                                                     true,
         {"alarm-wait"},
         run_tour                                                                                                                                                              },
        {"check",
         "[HOST]",                        "Try a device against the contract; changed values are put back",
         0,                                                                                                     1,
         true,                                                                                                                     true,
         {"other-password"},
         run_check                                                                                                                                                             },
        {"shell",            "",          "Read commands from the terminal or standard input",               0, 0,          true,  true,  {},                       run_shell  },
    };
    return table;
}

static void start_libraries() {
    google::protobuf::SetLogHandler(nullptr);  // what does not parse is reported in our own words
    zsys_init();                               // from here on Ctrl-C only sets zsys_interrupted
    zsys_set_logstream(stderr);
}

static int run(int argc, char **argv) {
    setlocale(LC_CTYPE, "");
    const Invocation invocation = parse_command_line(argc, argv, commands());
    start_libraries();
    return invocation.command->run(invocation.options);
}

int main(int argc, char **argv) {
    int status = 0;
    try {
        status = run(argc, argv);
    } catch (const Failure &failure) {
        fprintf(stderr, "kesto-client: %s\n", failure.sentence.c_str());
        status = static_cast<int>(failure.status);
    }
    zsys_shutdown();
    return status;
}
