/* panel.h - a program that uses libkesto-client: it shows some values, and does what the library's headers tell it to
 * do.
 *
 * Pauses and time limits of the library do not take their time in these tests: `pass` sets this program's clock
 * forward. */
#pragma once

#include <functional>
#include <map>

#include <kesto-client/client.h>

#include "harness/remote_client.h"

inline constexpr int pause_ms = 1250, connect_limit_ms = 5000, answer_limit_ms = 8000;
inline constexpr const char *secret_key = "/Device/Config/Networking/Snmp/Secret",
                            *serial_key = "/Device/Config/Hardware/Model/Serial";
extern const Texts shown_keys;  // the two and the name; the serial is not for the panel to write

/* The clock of this program only, by so much. */
void skip(int time_ms);

/* Serves the loop until that is so, which must come. */
void serve(kesto::Loop &loop, const std::string &what, const std::function<bool()> &is_so,
           Where where = Where::current());

/* Lets so much time go by, in which nothing comes from elsewhere. */
void pass(kesto::Loop &loop, int time_ms = 0);

/* "panel-1", as a user who is kept from some keys. */
kesto::ClientOptions panel_options(int port = authentication_port);

inline bool is_connected(kesto::Notice last) { /* as far as a program knows that was told this last */
    return last <= kesto::Notice::read_again && last != kesto::Notice::lost;
}

struct Panel {
    kesto::Loop loop;
    std::function<void(kesto::Notice)> judge;  // hears of each notice first
    Texts seen;                                // notices and outcomes of `ask`
    std::map<std::string, std::string> shown;  // by key
    size_t asked = 0, answered = 0, heard = 0;
    int32_t last_channel = 0;  // of an alarm
    std::optional<kesto::Client> client;

    explicit Panel(kesto::ClientOptions options = panel_options());

    void ask(kesto::Operation operation);
    void ask(kesto::Operation operation, kesto::Answered judge_answer);
    void read_all();

    /* These patterns, in this order, are what is seen from now on; then nothing counts as seen. */
    void expect(const Texts &patterns, Where where = Where::current());
    void serve_until_answered(Where where = Where::current());

  private:
    void take_notice(kesto::Notice notice, const std::string &sentence);
    void take_published(const kesto::Published &published);
    void apply(const kesto::Published &published);
};

/* What the device holds, past the access service. */
std::string device_value(Gateway &gateway, const std::string &key);

/* Until all has come that was published and asked, and the library has had the time to notice what is missing. Then the
 * panel must show what the device holds. */
void settle(Panel &panel, Gateway &gateway, Where where = Where::current());

void kill_service(Gateway &gateway);
