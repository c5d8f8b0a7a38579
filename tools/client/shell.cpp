#include "shell.h"

#include <cstdio>
#include <set>
#include <utility>

#include <glib.h>

#include "commands.h"
#include "failure.h"
#include "interrupt.h"
#include "line_editor.h"

using Words = std::vector<std::string>;

struct Shell {
    const Options &options;
    std::optional<Session> session = {};  // none after the device did not answer; the next command opens another
    bool watching = false;
    bool ended = false;
    ExitStatus first_failure = ExitStatus::fine;
    std::set<std::string> keys = {};                 // for completion
    std::optional<kesto::Published> published = {};  // to be shown next
};

struct ShellCommand {
    const char *name;
    const char *arguments;
    const char *summary;
    void (*run)(Shell &shell, const Words &arguments);
};

/* The branches to learn keys from; a user who may read the first recursively needs no other. */
static constexpr const char *key_roots[] = {"/", "/Device/Config", "/Device/Audio/Presets/Live"};

static Failure wrong_line(const std::string &problem) { return {ExitStatus::usage, problem + " (try help)"}; }

static Session &session_of(Shell &shell) {
    if (shell.session) return *shell.session;
    shell.session = session_enter(shell.options);
    if (shell.watching) shell.session->listen();
    return *shell.session;
}

static void print(const Shell &shell, const Output &output) { print_output(shell.options.json, output); }

static void learn_keys(Shell &shell, const kesto::Value &value) {
    for (const kesto::Pair &pair : value.entries) shell.keys.insert(pair.key);
}

static void shell_read(Shell &shell, const Words &arguments) {
    const bool recursive = arguments.front() == "-r";
    if (arguments.size() != (recursive ? 2 : 1)) throw wrong_line("read takes [-r] KEY");
    require_key(arguments.back());
    const kesto::Value value = session_read(session_of(shell), arguments.back(), recursive);
    learn_keys(shell, value);
    if (!recursive) shell.keys.insert(arguments.back());
    print(shell, format_value(value));
}

static void shell_write(Shell &shell, const Words &arguments) {
    require_key(arguments[0]);
    print(shell, format_write(session_write(session_of(shell), {arguments[0], arguments[1]}, shell.options.type)));
}

static void shell_multi_write(Shell &shell, const Words &arguments) {
    print(shell, format_write_all(session_write_all(session_of(shell), parse_assignments(arguments))));
}

static void shell_may(Shell &shell, const Words &arguments) {
    require_key(arguments[0]);
    print(shell, ask_rights(session_of(shell), arguments[0]));
}

static void shell_watch(Shell &shell, const Words &arguments) {
    const bool on = arguments[0] == "on";
    if (!on && arguments[0] != "off") throw wrong_line("watch takes on or off");
    shell.watching = on;
    Session &session = session_of(shell);
    if (!on) session.stop_listening();
    else if (session.event_descriptor() < 0) session.listen();
}

static void shell_quit(Shell &shell, const Words &) { shell.ended = true; }

static void shell_help(Shell &, const Words &);  // walks the table that it stands in

static constexpr ShellCommand shell_commands[] = {
    {"read",        "[-r] KEY",     "Read a key, with -r everything at or below it", shell_read       },
    {"write",       "KEY VALUE",    "Write a key",                                   shell_write      },
    {"multi-write", "KEY=VALUE...", "Write all of the keys or none",                 shell_multi_write},
    {"may",         "KEY",          "Ask what the user may do with a key",           shell_may        },
    {"watch",       "on|off",       "Show alarms and changes as they come",          shell_watch      },
    {"help",        "",             "Show this",                                     shell_help       },
    {"quit",        "",             "Log out and end",                               shell_quit       },
};

static void shell_help(Shell &, const Words &) {
    for (const ShellCommand &command : shell_commands) {
        printf("%-12s %-13s %s\n", command.name, command.arguments, command.summary);
    }
    printf("Words with spaces go in quotes. Tab completes commands and keys.\n");
    fflush(stdout);
}

static Words split_line(const std::string &line) {
    g_auto(GStrv) words = nullptr;
    g_autoptr(GError) error = nullptr;
    if (g_shell_parse_argv(line.c_str(), nullptr, &words, &error)) return {words, words + g_strv_length(words)};
    if (g_error_matches(error, G_SHELL_ERROR, G_SHELL_ERROR_EMPTY_STRING)) return {};
    throw wrong_line(error->message);
}

static void run_line(Shell &shell, const std::string &line) {
    if (!g_utf8_validate(line.c_str(), static_cast<gssize>(line.size()), nullptr))
        throw wrong_line("the line is not UTF-8");
    Words words = split_line(line);
    if (words.empty()) return;
    const std::string name = words.front();
    words.erase(words.begin());
    for (const ShellCommand &command : shell_commands) {
        if (name != command.name) continue;
        const std::string problem = argument_problem(name, command.arguments, words.size());
        if (!problem.empty()) throw wrong_line(problem);
        command.run(shell, words);
        return;
    }
    throw wrong_line("unknown command " + name);
}

static void run_line_and_report(Shell &shell, const std::string &line) {
    try {
        run_line(shell, line);
    } catch (const Failure &failure) {
        fprintf(stderr, "kesto-client: %s\n", failure.sentence.c_str());
        if (shell.first_failure == ExitStatus::fine) shell.first_failure = failure.status;
        const bool connection_is_lost = failure.status != ExitStatus::refused && failure.status != ExitStatus::usage;
        if (connection_is_lost) shell.session.reset();
    }
}

/* The keys that begin with `word`, cut off after the next level: a whole tree of keys would fill screens. */
static Words next_levels(const std::set<std::string> &keys, const std::string &word) {
    std::set<std::string> levels;
    for (auto key = keys.lower_bound(word); key != keys.end() && key->starts_with(word); ++key) {
        const size_t slash = key->find('/', std::max<size_t>(word.size(), 1));
        levels.insert(slash == std::string::npos ? *key : key->substr(0, slash + 1));
    }
    return {levels.begin(), levels.end()};
}

static Words complete_line(const Shell &shell, const std::string &line) {
    const size_t space = line.find_last_of(' ');
    if (space != std::string::npos) return next_levels(shell.keys, line.substr(space + 1));
    Words names;
    for (const ShellCommand &command : shell_commands) {
        if (std::string_view(command.name).starts_with(line)) names.emplace_back(command.name);
    }
    return names;
}

static void learn_tree(Shell &shell) {
    for (const char *root : key_roots) {
        if (!session_may(*shell.session, kesto::operation_read, root, true)) continue;
        try {
            learn_keys(shell, session_read(*shell.session, root, true));
        } catch (const Failure &failure) {
            if (failure.status != ExitStatus::refused) throw;  // a device without these keys
            continue;
        }
        if (std::string_view(root) == "/") return;
    }
}

static LineEditorCallbacks callbacks_of(Shell &shell) {
    LineEditorCallbacks callbacks;
    callbacks.descriptor = [&shell] { return shell.session ? shell.session->event_descriptor() : -1; };
    callbacks.has_more = [&shell] {
        if (shell.session && !shell.published) shell.published = shell.session->next_published(0);
        return shell.published.has_value();
    };
    callbacks.show = [&shell] { print(shell, format_published(*std::exchange(shell.published, std::nullopt))); };
    callbacks.complete = [&shell](const std::string &line) { return complete_line(shell, line); };
    return callbacks;
}

int run_shell(const Options &options) {
    Shell shell{options};
    session_of(shell);  // a wrong password is said at once
    const LineEditorOwner editor = line_editor_new("kesto> ", callbacks_of(shell));
    const bool interactive = line_editor_is_interactive(*editor);
    if (interactive) learn_tree(shell);
    while (!shell.ended) {
        const std::optional<std::string> line = line_editor_read(*editor);
        if (!line) break;
        run_line_and_report(shell, *line);
    }
    if (shell.session) session_leave(options, *shell.session);
    const bool fine = interactive || is_interrupted();
    return static_cast<int>(fine ? ExitStatus::fine : shell.first_failure);
}
