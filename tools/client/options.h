/* options.h - the command line: common options, a command, its own options and arguments. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <kesto-client/messages.h>

/* What the service itself gives each pair of a multi-write. */
constexpr uint32_t write_plain = 1;

constexpr int ms_per_s = 1000;
constexpr int64_t us_per_ms = 1000;

/* The device's two users. */
constexpr const char *restricted_user = "quillmont", *unrestricted_user = "root";

struct Options {
    std::string address;  // numeric IPv4 of --host
    bool host_given;
    std::string client_id;
    bool own_id;  // the id is this run's own, so nobody else has a session under it
    std::string user;
    std::string password;  // empty for a command that does not log in
    bool json;
    int timeout_ms;
    std::optional<std::string> other_password;  // of the device's other user

    bool recursive;
    bool all;
    bool lock;
    bool keep;
    bool monitor;
    bool discard_my_feedback;
    bool hide_secure_info;
    bool no_lock;
    bool with_discovery;
    uint32_t type;
    int count;   // 0: without end
    int for_ms;  // 0: without end
    int wait_ms;
    int alarm_wait_ms;  // 0: leave the step out

    std::vector<std::string> arguments;
};

/* What a command does about a session. */
enum class Login {
    passing,  // logs in, by default under an id of this run
    lasting,  // logs in, by default under an id that the next run finds again
    none,     // takes the id that `lasting` takes, but no password
};

/* One row of the command table. */
struct Command {
    const char *name;
    const char *arguments;  // as the help shows them: "[HOST]" may be left out, "PAIR..." repeated
    const char *summary;
    int (*run)(const Options &options);  // returns the exit status, or throws a Failure
    std::vector<const char *> option_names = {};
    Login login = Login::passing;
};

struct Invocation {
    const Command *command;
    Options options;
};

/* Throws a Failure (usage) for anything wrong. --help and --version print and end the program with 0. */
Invocation parse_command_line(int argc, char **argv, const std::vector<Command> &commands);

/* What is wrong with this number of arguments for a command whose arguments are written like that; empty when it is
 * right. */
std::string argument_problem(const std::string &name, const std::string &syntax, size_t count);

std::string address_of(const std::string &host); /* numeric IPv4; throws when there is none */

/* A word of the form KEY=VALUE. */
using Assignment = kesto::Pair;
Assignment parse_assignment(const std::string &word);
void require_key(const std::string &key); /* throws when it is empty */
