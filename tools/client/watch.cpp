#include "watch.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include <glib.h>

#include <kesto-client/browser.h>
#include <kesto-client/client.h>

#include "failure.h"
#include "interrupt.h"
#include "output.h"

static constexpr gint64 ask_every_us = 5000 * us_per_ms;

/* When a watch is over. */
class Watch {
  public:
    explicit Watch(const Options &options)
        : options_(options),
          end_us_(options.for_ms > 0 ? g_get_monotonic_time() + options.for_ms * us_per_ms : G_MAXINT64) {}

    void show(const Source &source, const kesto::Published &published) {
        if (is_over()) return;
        print_output(options_.json, format_published_by(source, published));
        ++shown_count_;
    }
    bool is_over() const {
        const bool enough = options_.count != 0 && shown_count_ >= options_.count;
        return is_interrupted() || enough || g_get_monotonic_time() >= end_us_;
    }
    /* Until the end or the other time, whichever comes first. */
    int left_ms(gint64 until_us) const {
        const gint64 left_us = std::min(end_us_, until_us) - g_get_monotonic_time();
        return static_cast<int>(std::max<gint64>(left_us / us_per_ms, 0)) + 1;
    }

  private:
    const Options &options_;
    const gint64 end_us_;
    int shown_count_ = 0;
};

static Source source_of(Session &session) {
    const std::string &address = session.account().login.address;
    const std::optional<kesto::Device> device = kesto::device_from_static_text(session_static_discovery(session));
    if (!device) return {address, "", ""};
    return {address, device->model, device->serial};
}

/* A device that is gone is as silent as one without events. A request every few seconds tells the two apart. */
static void watch_one(Session &session, const Options &options) {
    Watch watch(options);
    const Source source = source_of(session);
    gint64 ask_us = 0;
    while (!watch.is_over()) {
        if (g_get_monotonic_time() >= ask_us) {
            session_change_count(session);
            ask_us = g_get_monotonic_time() + ask_every_us;
        }
        const std::optional<kesto::Published> published = session.next_published(watch.left_ms(ask_us));
        if (published) watch.show(source, *published);
    }
}

/* Every device in reach, each with a client that recovers by itself. */
class WatchAll {
  public:
    explicit WatchAll(const Options &options) : options_(options), watch_(options) {}

    void run();

  private:
    struct Followed {
        Source source;
        kesto::Endpoint login;
        std::string static_text;
        std::unique_ptr<kesto::Client> client;
    };

    void take(kesto::News news, const kesto::Device &device);
    void follow(const kesto::Device &device);
    void show_notice(const Source &source, kesto::Notice notice, const std::string &why) const;

    const Options &options_;
    Watch watch_;
    kesto::Loop loop_;
    std::map<std::string, Followed> followed_;  // by serial
};

void WatchAll::show_notice(const Source &source, kesto::Notice notice, const std::string &why) const {
    print_output(options_.json, format_notice(source, kesto::notice_name(notice), kesto::notice_text(notice, why)));
}

void WatchAll::take(kesto::News news, const kesto::Device &device) {
    const auto known = followed_.find(device.serial);
    if (news != kesto::News::vanished) {
        follow(device);
    } else if (known != followed_.end() && !known->second.client->connected()) {
        print_output(options_.json, format_notice(known->second.source, "vanished", "not found any more"));
        followed_.erase(known);
    }
}

/* Anew when it is at another address or another device than before. */
void WatchAll::follow(const kesto::Device &device) {
    Followed &followed = followed_[device.serial];
    const kesto::Endpoint login = kesto::login_endpoint(device);
    const std::string text = device.cut ? "" : kesto::static_text_of(device);
    if (followed.client && followed.login == login && followed.static_text == text) return;
    const Source source = {device.addresses.front(), device.model, device.serial};
    if (followed.client && followed.login != login) {
        print_output(options_.json, format_notice(source, "moved", "now at " + kesto::endpoint_text(login)));
    }
    kesto::ClientOptions client;
    client.login = login;
    client.client_id = options_.client_id;
    client.user = options_.user;
    client.password = options_.password;
    if (!text.empty()) client.static_discovery = text;
    kesto::ClientCallbacks callbacks;
    callbacks.notice = [this, source](kesto::Notice notice, const std::string &why) {
        show_notice(source, notice, why);
    };
    callbacks.published = [this, source](const kesto::Published &published) { watch_.show(source, published); };
    followed = {source, login, text, nullptr};
    followed.client = std::make_unique<kesto::Client>(loop_, std::move(client), std::move(callbacks));
}

void WatchAll::run() {
    kesto::BrowserOptions search;
    if (options_.host_given) search.addresses = {options_.address};
    search.client_id = options_.client_id;
    kesto::BrowserCallbacks callbacks;
    callbacks.news = [this](kesto::News news, const kesto::Device &device) { take(news, device); };
    callbacks.trouble = [](const std::string &sentence) { fprintf(stderr, "kesto-client: %s\n", sentence.c_str()); };
    const kesto::Browser browser(loop_, std::move(search), std::move(callbacks));
    while (!watch_.is_over()) loop_.wait(watch_.left_ms(G_MAXINT64));

    size_t open = 0;
    for (auto &[serial, followed] : followed_) {
        ++open;
        followed.client->close([&open] { --open; });
    }
    while (open > 0) loop_.wait();
}

int run_watch(const Options &options) {
    if (options.all) {
        WatchAll(options).run();
        return static_cast<int>(ExitStatus::fine);
    }
    with_session(options, [&](Session &session) {
        session.listen();
        try {
            watch_one(session, options);
        } catch (const Failure &failure) {
            if (failure.status != ExitStatus::interrupted) throw;  // Ctrl-C is how one ends it
        }
    });
    return static_cast<int>(ExitStatus::fine);
}
