#include "options.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <unistd.h>

#include "log.h"
#include "topics.h"

static constexpr int usual_port = 1883, usual_tls_port = 8883, last_port = 65535;
static constexpr int longest_pause_most_s = 3600, read_every_most_s = 86400;
static constexpr int usage_status = 64;
static constexpr const char *usual_file = "/etc/kesto-mqtt.conf";

using Text = std::string Options::*;
using Flag = bool Options::*;
using List = std::vector<std::string> Options::*;
using Number = int Options::*;

/* One of the last four is set. */
struct Setting {
    const char *name, *word, *help;
    Text text = nullptr;
    Flag flag = nullptr;
    List list = nullptr;
    Number number = nullptr;
    int largest = 0;
};

static Setting text_setting(const char *name, const char *word, Text text, const char *help) {
    return {name, word, help, text};
}
static Setting flag_setting(const char *name, Flag flag, const char *help) {
    return {name, nullptr, help, nullptr, flag};
}
static Setting list_setting(const char *name, const char *word, List list, const char *help) {
    return {name, word, help, nullptr, nullptr, list};
}
static Setting number_setting(const char *name, const char *word, Number number, int largest, const char *help) {
    return {name, word, help, nullptr, nullptr, nullptr, number, largest};
}

static const Setting settings[] = {
    text_setting("broker", "HOST", &Options::broker, "Broker (default: 127.0.0.1)"),
    number_setting("port", "N", &Options::port, last_port, "Port of the broker (default: 1883, with TLS 8883)"),
    text_setting("broker-user", "NAME", &Options::broker_user, "User name at the broker"),
    text_setting("broker-password", "TEXT", &Options::broker_password, "Password at the broker"),
    flag_setting("tls", &Options::tls, "Encrypt; the machine's authorities vouch for the broker"),
    text_setting("ca-file", "FILE", &Options::ca_file, "Authorities that vouch for the broker; implies --tls"),
    text_setting("certificate", "FILE", &Options::certificate, "Certificate to show to the broker; implies --tls"),
    text_setting("private-key", "FILE", &Options::private_key, "Key of that certificate"),
    text_setting("id", "ID", &Options::id, "Name of this bridge, no other's (default: this host's name)"),
    text_setting("user", "NAME", &Options::user, "User name at the devices (default: quillmont)"),
    text_setting("password", "TEXT", &Options::password, "Password at the devices (default: $KESTO_PASSWORD)"),
    number_setting("longest-pause", "S", &Options::longest_pause_s, longest_pause_most_s,
                   "Seconds between two attempts to reach the broker or a device (default: 30)"),
    number_setting("read-every", "S", &Options::read_every_s, read_every_most_s,
                   "Seconds between two whole reads of a device (default: 600)"),
    flag_setting("read-only", &Options::read_only, "Take no sets"),
    list_setting("address", "ADDRESS", &Options::addresses,
                 "Ask this address, and do not ask by broadcast; can be repeated"),
    list_setting("interface", "NAME", &Options::interfaces,
                 "Ask by broadcast on this interface alone; can be repeated"),
    list_setting("serial", "PATTERN", &Options::serials,
                 "Take devices whose serial matches, with * ? []; can be repeated"),
    list_setting("branch", "KEY", &Options::branches, "Publish what is at or below this key alone; can be repeated"),
};

[[noreturn]] static void end_with_usage(const std::string &problem) {
    fprintf(stderr, "kesto-mqtt: wrong usage: %s (see kesto-mqtt --help)\n", problem.c_str());
    exit(usage_status);
}

static void print_line(const std::string &left, const char *help) { printf("  %-27s %s\n", left.c_str(), help); }

[[noreturn]] static void print_help() {
    printf("Usage:\n  kesto-mqtt [OPTION...]\n\nPublishes the amplifiers of a hall on an MQTT broker.\n\nOptions:\n");
    print_line("-h, --help", "Show this");
    print_line("--version", "Print the version");
    print_line("--config=FILE", "Read settings from this file (default: /etc/kesto-mqtt.conf)");
    for (const Setting &setting : settings) {
        const std::string word = setting.word != nullptr ? "=" + std::string(setting.word) : "";
        print_line("--" + std::string(setting.name) + word, setting.help);
    }
    printf(
        "\nThe file has lines NAME = VALUE, with the names of the options, and lines of comment that begin with #.\n");
    exit(0);
}

static std::optional<int> positive_number(const std::string &text, int largest) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 1 || number > largest) return {};
    return number;
}

/* One topic level, as discovery takes it: there a client id ends at its first exclamation mark. */
static bool is_bridge_id(const std::string &text) {
    return is_topic_level(text) && text.find('!') == std::string::npos;
}

/* Why the value is none; empty when it was taken. */
static std::string take_value(Options &options, const Setting &setting, const std::string &value) {
    const std::string name = setting.name;
    if (setting.flag != nullptr) {
        if (value != "yes" && value != "no") return name + " is yes or no";
        options.*setting.flag = value == "yes";
    } else if (value.empty()) {
        return name + " has no value";
    } else if (setting.text == &Options::id && !is_bridge_id(value)) {
        return "'" + value + "' cannot be the bridge's id";
    } else if (setting.text != nullptr) {
        options.*setting.text = value;
    } else if (setting.list != nullptr) {
        (options.*setting.list).push_back(value);
    } else {
        const std::optional<int> number = positive_number(value, setting.largest);
        if (!number) return name + " is a number from 1 to " + std::to_string(setting.largest);
        options.*setting.number = *number;
    }
    return "";
}

static const Setting *find_setting(const std::string &name) {
    const auto *found = std::find_if(std::begin(settings), std::end(settings),
                                     [&](const Setting &setting) { return setting.name == name; });
    return found == std::end(settings) ? nullptr : found;
}

static std::string trimmed(const std::string &text) {
    constexpr const char *blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

static std::string take_line(Options &options, const std::string &line) {
    if (line.empty() || line.starts_with('#')) return "";
    const size_t equals = line.find('=');
    if (equals == std::string::npos) return "'" + line + "' is not of the form NAME = VALUE";
    const std::string name = trimmed(line.substr(0, equals));
    const Setting *setting = find_setting(name);
    if (setting == nullptr) return "there is no setting '" + name + "'";
    return take_value(options, *setting, trimmed(line.substr(equals + 1)));
}

/* False when it cannot be read, to its end. */
static bool read_file(Options &options, const std::string &path) {
    std::ifstream file(path);
    if (!file) return false;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string problem = take_line(options, trimmed(line));
        if (!problem.empty()) say(path + ":" + std::to_string(number) + ": " + problem + "; the line is left out");
    }
    return !file.bad();
}

/* A word of the command line: its name without the dashes, and its value, behind "=" or in the next word. */
struct Given {
    std::string name;
    std::optional<std::string> value;
};

static std::vector<Given> read_words(int argc, char **argv) {
    std::vector<Given> words;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "-h") print_help();
        if (!word.starts_with("--")) end_with_usage("'" + word + "' is no option");
        const size_t equals = word.find('=');
        Given given = {word.substr(2, equals == std::string::npos ? equals : equals - 2), {}};
        if (given.name == "help") print_help();
        const Setting *setting = find_setting(given.name);
        const bool takes_value = given.name == "config" || (setting != nullptr && setting->flag == nullptr);
        if (equals != std::string::npos) given.value = word.substr(equals + 1);
        else if (takes_value && i + 1 < argc) given.value = argv[++i];
        words.push_back(given);
    }
    return words;
}

static void take_word(Options &options, const Given &word) {
    if (word.name == "config") return;
    if (word.name == "version") {
        printf("kesto-mqtt %s\n", KESTO_VERSION);
        exit(0);
    }
    const Setting *setting = find_setting(word.name);
    if (setting == nullptr) end_with_usage("there is no option --" + word.name);
    const std::string problem =
        take_value(options, *setting, word.value.value_or(setting->flag != nullptr ? "yes" : ""));
    if (!problem.empty()) end_with_usage(problem);
}

static void read_files(Options &options, const std::vector<Given> &words) {
    bool given = false;
    for (const Given &word : words) {
        if (word.name != "config") continue;
        given = true;
        const std::string path = word.value.value_or("");
        if (!read_file(options, path)) end_with_usage("'" + path + "' cannot be read");
    }
    if (!given && access(usual_file, F_OK) == 0 && !read_file(options, usual_file))
        say(std::string(usual_file) + " cannot be read, and is left out");
}

static std::string host_name() {
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    return name;
}

static void complete(Options &options) {
    const char *password = getenv("KESTO_PASSWORD");
    if (options.password.empty() && password != nullptr) options.password = password;
    if (options.id.empty()) options.id = host_name();
    if (!is_bridge_id(options.id)) end_with_usage("give an id: the host's name '" + options.id + "' cannot be one");
    if (options.branches.empty()) options.branches = {"/Device"};
}

Options read_options(int argc, char **argv) {
    Options options;
    const std::vector<Given> words = read_words(argc, argv);
    read_files(options, words);
    for (const Given &word : words) take_word(options, word);
    complete(options);
    return options;
}

std::string kesto_client_id(const Options &options) { return "kesto-mqtt-" + options.id; }

bool uses_tls(const Options &options) {
    return options.tls || !options.ca_file.empty() || !options.certificate.empty();
}

int broker_port(const Options &options) {
    if (options.port != 0) return options.port;
    return uses_tls(options) ? usual_tls_port : usual_port;
}
