/* GOption reads the options; the words around them are sorted out here, because a value such as -6.5 is no option. */
#include "options.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <termios.h>
#include <unistd.h>

#include <gio/gio.h>

#include <kesto-client/exchange.h>

#include "failure.h"
#include "owned.h"

using Words = std::vector<std::string>;

static constexpr double default_timeout_s = 5, default_wait_s = 1, default_alarm_wait_s = 20;
static constexpr int seconds_max = 86400;

/* What GOption writes into. The texts are file names for it, so that no locale changes their bytes. */
struct Parsed {
    char *host, *id, *user, *password, *other_password;
    double timeout_s = default_timeout_s, for_s, wait_s = default_wait_s, alarm_wait_s = default_alarm_wait_s;
    gboolean json, version, recursive, all, lock, keep, monitor, discard_my_feedback, hide_secure_info, no_lock,
        with_discovery;
    int type = write_plain, count;
};
static Parsed parsed;

static GOptionEntry text_option(const char *name, char letter, char **value, const char *word, const char *help) {
    return {name, letter, 0, G_OPTION_ARG_FILENAME, value, help, word};
}

static GOptionEntry number_option(const char *name, char letter, int *value, const char *help) {
    return {name, letter, 0, G_OPTION_ARG_INT, value, help, "N"};
}

static GOptionEntry seconds_option(const char *name, char letter, double *value_s, const char *help) {
    return {name, letter, 0, G_OPTION_ARG_DOUBLE, value_s, help, "S"};
}

static GOptionEntry flag_option(const char *name, char letter, gboolean *value, const char *help) {
    return {name, letter, 0, G_OPTION_ARG_NONE, value, help, nullptr};
}

static constexpr char no_letter = 0;
static constexpr GOptionEntry last_entry = {};

static const GOptionEntry common_entries[] = {
    text_option("host", 'H', &parsed.host, "HOST", "Device to talk to (default: $KESTO_HOST, else 127.0.0.1)"),
    text_option("id", 'i', &parsed.id, "ID",
                "Client id (default: kesto-client-THISHOST for discover, login, logout and --keep; "
                "for all else with the process id appended)"),
    text_option("user", 'u', &parsed.user, "NAME", "User name (default: quillmont)"),
    text_option("password", 'p', &parsed.password, "TEXT",
                "Password (default: $KESTO_PASSWORD, else asked on the terminal)"),
    flag_option("json", 'j', &parsed.json, "Print JSON: one value, or one line for each event, step or check"),
    seconds_option("timeout", 't', &parsed.timeout_s, "Longest wait for an answer (default: 5)"),
    flag_option("version", no_letter, &parsed.version, "Print the version"),
    last_entry,
};

static const GOptionEntry command_entries[] = {
    flag_option("recursive", 'r', &parsed.recursive, "Read every key at or below KEY"),
    number_option("type", no_letter, &parsed.type, "Write type, decimal or 0x... (default: 1)"),
    flag_option("lock", no_letter, &parsed.lock, "Make it a lock write (type bit 12)"),
    flag_option("keep", 'k', &parsed.keep, "Leave the session open at the end"),
    flag_option("monitor", 'm', &parsed.monitor, "Log the id off when its last command connection closes"),
    flag_option("discard-my-feedback", no_letter, &parsed.discard_my_feedback, "No echo of the id's own changes"),
    flag_option("hide-secure-info", no_letter, &parsed.hide_secure_info, "Mask passwords and the like"),
    flag_option("no-lock", no_letter, &parsed.no_lock, "Announce the id to the audio service as @localhost"),
    flag_option("with-discovery", no_letter, &parsed.with_discovery,
                "Ask for the device's static discovery text and present it"),
    flag_option("all", 'a', &parsed.all, "Follow every device, those that come later, too"),
    number_option("count", 'n', &parsed.count, "End after N events"),
    seconds_option("for", no_letter, &parsed.for_s, "End after S seconds"),
    seconds_option("wait", 'w', &parsed.wait_s, "Time to collect answers (default: 1)"),
    seconds_option("alarm-wait", no_letter, &parsed.alarm_wait_s,
                   "Longest wait for the device's alarm (default: 20; 0 leaves the step out)"),
    text_option("other-password", no_letter, &parsed.other_password, "TEXT",
                "Password of the other user, root or else quillmont, to check that the two are kept apart"),
    last_entry,
};

static constexpr const char *notes =
    "kesto-client COMMAND --help shows the options of a command. A value that begins with a dash and is no number\n"
    "goes after --. Commands log in and out by themselves; under an --id that has a session already they use "
    "that one\n"
    "and leave it. A session that login opens without --monitor stays until logout, also after the program's end.\n"
    "\n"
    "Exit status: 0 fine, 1 refused by the device or a check failed, 2 device not reachable, 64 wrong usage, "
    "130 interrupted.\n"
    "\n"
    "Examples:\n"
    "  kesto-client discover\n"
    "  kesto-client --password tandrivel check 192.168.1.20\n"
    "  kesto-client --host 192.168.1.20 read -r /Device/Config/Hardware\n"
    "  kesto-client write /Device/Config/PROJECT_INFO \"Main hall\"\n";

using Context = std::unique_ptr<GOptionContext, ByPointer<g_option_context_free>>;

static Failure wrong_usage(const std::string &problem) {
    return {ExitStatus::usage, "wrong usage: " + problem + " (see kesto-client --help)"};
}

static std::string command_summary(const std::vector<Command> &commands) {
    std::string text = "Talks to networked amplifiers as remote control software does.\n\nCommands:";
    for (const Command &command : commands) {
        g_autofree char *left = g_strdup_printf("%s %s", command.name, command.arguments);
        g_autofree char *line = g_strdup_printf("\n  %-27s %s", left, command.summary);
        text += line;
    }
    return text;
}

static Context main_context(const std::vector<Command> &commands) {
    Context context(g_option_context_new("COMMAND [ARGUMENT...]"));
    g_option_context_set_strict_posix(context.get(), TRUE);
    g_option_context_add_main_entries(context.get(), common_entries, nullptr);
    g_option_context_set_summary(context.get(), command_summary(commands).c_str());
    g_option_context_set_description(context.get(), notes);
    return context;
}

static Context command_context(const Command &command) {
    g_autofree char *parameters = g_strdup_printf("%s %s", command.name, command.arguments);
    Context context(g_option_context_new(parameters));
    g_option_context_set_strict_posix(context.get(), TRUE);
    g_option_context_set_summary(context.get(), command.summary);
    g_option_context_add_main_entries(context.get(), common_entries, nullptr);
    for (const char *name : command.option_names) {
        const GOptionEntry *entry = command_entries;
        while (entry->long_name != nullptr && strcmp(entry->long_name, name) != 0) ++entry;
        const GOptionEntry pair[] = {*entry, {}};
        g_option_context_add_main_entries(context.get(), pair, nullptr);
    }
    return context;
}

static bool is_option(const std::string &word) {
    if (word.size() < 2 || word[0] != '-') return false;
    const bool number = std::isdigit(static_cast<unsigned char>(word[1])) != 0 || word[1] == '.';
    return !number;
}

/* Reads the options that `words` begins with; returns the words behind them. */
static Words parse_leading_options(const Context &context, const Words &words) {
    g_autoptr(GStrvBuilder) builder = g_strv_builder_new();
    g_strv_builder_add(builder, "kesto-client");
    for (const std::string &word : words) g_strv_builder_add(builder, word.c_str());
    g_auto(GStrv) rest = g_strv_builder_end(builder);
    g_autoptr(GError) error = nullptr;
    if (!g_option_context_parse_strv(context.get(), &rest, &error)) throw wrong_usage(error->message);
    if (parsed.version) {
        printf("kesto-client %s\n", KESTO_VERSION);
        exit(static_cast<int>(ExitStatus::fine));
    }
    return {rest + 1, rest + g_strv_length(rest)};
}

/* Options may stand before, between and behind the arguments; what is behind "--" is arguments only. */
static Words parse_options(const Context &context, Words words) {
    const auto dashes = std::find(words.begin(), words.end(), "--");
    const Words plain(dashes == words.end() ? dashes : dashes + 1, words.end());
    words.erase(dashes, words.end());
    Words arguments;
    while (!words.empty()) {
        if (is_option(words.front())) {
            words = parse_leading_options(context, words);
        } else {
            arguments.push_back(words.front());
            words.erase(words.begin());
        }
    }
    arguments.insert(arguments.end(), plain.begin(), plain.end());
    return arguments;
}

static const Command &find_command(const std::vector<Command> &commands, const std::string &name) {
    for (const Command &command : commands) {
        if (name == command.name) return command;
    }
    throw wrong_usage("unknown command " + name);
}

static int milliseconds(const char *option, double seconds, bool may_be_zero) {
    const bool fits = std::isfinite(seconds) && seconds <= seconds_max && (may_be_zero ? seconds >= 0 : seconds > 0);
    const char *from = may_be_zero ? "from 0" : "above 0";
    if (!fits)
        throw wrong_usage(std::string("--") + option + " takes seconds " + from + ", at most " +
                          std::to_string(seconds_max));
    return std::max(static_cast<int>(std::lround(seconds * ms_per_s)), may_be_zero ? 0 : 1);
}

static std::string text_or(const char *given, const char *otherwise) { return given != nullptr ? given : otherwise; }

/* A session that stays needs an id that can be found again. */
static bool is_per_run(const Command &command) { return command.login == Login::passing && !parsed.keep; }

static std::string default_id(const Command &command) {
    const std::string id = std::string("kesto-client-") + g_get_host_name();
    return is_per_run(command) ? id + "-" + std::to_string(getpid()) : id;
}

static std::string ask_password(const std::string &user) {
    termios shown{};
    if (isatty(STDIN_FILENO) == 0 || tcgetattr(STDIN_FILENO, &shown) != 0) {
        throw wrong_usage("no password: give --password or set KESTO_PASSWORD");
    }
    fprintf(stderr, "Password of %s: ", user.c_str());
    termios hidden = shown;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);  // a Ctrl-C that ended the program would leave the echo off
    const char interrupt = static_cast<char>(shown.c_cc[VINTR]);
    hidden.c_cc[VEOL] = shown.c_cc[VINTR];
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    std::string password;
    char c = 0;
    while (read(STDIN_FILENO, &c, 1) == 1 && c != '\n' && c != interrupt) password += c;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown);
    fputc('\n', stderr);
    if (c == interrupt) throw interrupted();
    if (g_utf8_validate(password.c_str(), -1, nullptr) == FALSE) throw wrong_usage("the password is not UTF-8");
    return password;
}

static std::string find_password(const std::string &user) {
    if (parsed.password != nullptr) return parsed.password;
    const char *environment = getenv("KESTO_PASSWORD");
    if (environment == nullptr) return ask_password(user);
    if (g_utf8_validate(environment, -1, nullptr) == FALSE) throw wrong_usage("KESTO_PASSWORD is not UTF-8");
    return environment;
}

static void check_client_id(const std::string &id) {
    // Discovery ends an id at its first exclamation mark.
    if (id.empty() || id.find('!') != std::string::npos) throw wrong_usage("--id must not be empty or contain '!'");
}

std::string address_of(const std::string &host) {
    const std::optional<std::string> address = kesto::resolve_host(host);
    if (!address) throw not_reachable("no IPv4 address is known for host " + host);
    return *address;
}

static Options options_from_parsed(const Command &command, Words arguments) {
    Options o{};
    const char *environment_host = getenv("KESTO_HOST");
    o.host_given = parsed.host != nullptr || environment_host != nullptr;
    o.own_id = parsed.id == nullptr && is_per_run(command);
    o.client_id = parsed.id != nullptr ? parsed.id : default_id(command);
    check_client_id(o.client_id);
    o.user = text_or(parsed.user, restricted_user);
    o.json = parsed.json;
    o.timeout_ms = milliseconds("timeout", parsed.timeout_s, false);
    o.recursive = parsed.recursive;
    o.all = parsed.all;
    o.lock = parsed.lock;
    o.keep = parsed.keep;
    o.monitor = parsed.monitor;
    o.discard_my_feedback = parsed.discard_my_feedback;
    o.hide_secure_info = parsed.hide_secure_info;
    o.no_lock = parsed.no_lock;
    o.with_discovery = parsed.with_discovery;
    if (parsed.type < 0) throw wrong_usage("--type takes a number of 0 or more");
    o.type = static_cast<uint32_t>(parsed.type);
    if (parsed.count < 0) throw wrong_usage("--count takes a number of 0 or more");
    o.count = parsed.count;
    o.for_ms = milliseconds("for", parsed.for_s, true);
    o.wait_ms = milliseconds("wait", parsed.wait_s, false);
    o.alarm_wait_ms = milliseconds("alarm-wait", parsed.alarm_wait_s, true);
    o.arguments = std::move(arguments);
    if (parsed.other_password != nullptr) o.other_password = parsed.other_password;
    if (command.login != Login::none) o.password = find_password(o.user);
    const char *host = parsed.host != nullptr ? parsed.host : environment_host;
    o.address = address_of(text_or(host, kesto::loopback_address));
    return o;
}

Invocation parse_command_line(int argc, char **argv, const std::vector<Command> &commands) {
    Words words(argv + 1, argv + argc);
    for (const std::string &word : words) {
        if (!g_utf8_validate(word.c_str(), -1, nullptr)) throw wrong_usage("an argument is not UTF-8");
    }
    if (!words.empty() && is_option(words.front())) words = parse_leading_options(main_context(commands), words);
    if (words.empty()) throw wrong_usage("no command given");
    const Command &command = find_command(commands, words.front());
    words.erase(words.begin());
    Words arguments = parse_options(command_context(command), std::move(words));
    const std::string problem = argument_problem(command.name, command.arguments, arguments.size());
    if (!problem.empty()) throw wrong_usage(problem);
    return {&command, options_from_parsed(command, std::move(arguments))};
}

std::string argument_problem(const std::string &name, const std::string &syntax, size_t count) {
    size_t count_min = 0, count_max = 0;
    std::istringstream words(syntax);
    for (std::string word; words >> word; ++count_max) {
        if (!word.starts_with('[')) ++count_min;
    }
    if (count >= count_min && (count <= count_max || syntax.ends_with("..."))) return "";
    return name + " takes " + (syntax.empty() ? "no arguments" : syntax);
}

Assignment parse_assignment(const std::string &word) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0) throw wrong_usage("'" + word + "' is not of the form KEY=VALUE");
    return {word.substr(0, equals), word.substr(equals + 1)};
}

void require_key(const std::string &key) {
    if (key.empty()) throw wrong_usage("a key must not be empty");
}
