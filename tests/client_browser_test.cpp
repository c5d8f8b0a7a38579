// What a program sees of the browser in libkesto-client: the devices that are there, whatever else answers.
#include <algorithm>
#include <netinet/in.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kesto-client/browser.h>

#include "harness/panel.h"

// Somebody who answers discovery at an address.
class FakeDiscovery {
  public:
    explicit FakeDiscovery(uint32_t address) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int yes = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(8004);
        to.sin_addr.s_addr = htonl(address);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    }
    ~FakeDiscovery() { close(socket_); }
    void hear(kesto::Loop &loop) {
        char bytes[9000];
        socklen_t size = sizeof browser_;
        serve(loop, "a discovery request", [&] {
            return recvfrom(socket_, bytes, sizeof bytes, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&browser_),
                            &size) > 0;
        });
    }
    void say(std::string text) {  // "|" is the separator
        std::replace(text.begin(), text.end(), '|', '\x1c');
        sendto(socket_, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&browser_), sizeof browser_);
    }

  private:
    int socket_;
    sockaddr_in browser_ = {};
};

struct Browsing {
    kesto::Loop loop;
    Texts seen;
    std::optional<kesto::Browser> browser;

    explicit Browsing(kesto::BrowserOptions options) {
        kesto::BrowserCallbacks callbacks;
        callbacks.news = [this](kesto::News news, const kesto::Device &device) {
            const char *const names[] = {"appeared ", "changed ", "vanished "};
            std::string text = names[static_cast<int>(news)] + device.amplifier_name + (device.cut ? ", cut" : "");
            for (const std::string &address : device.addresses) text += ' ' + address;
            seen.push_back(text);
        };
        browser.emplace(loop, std::move(options), std::move(callbacks));
    }
    void expect(const Texts &texts) {
        pass(loop);
        EXPECT_EQ(std::exchange(seen, {}), texts);
    }
};

struct SayCase {
    int who;
    const char *text, *news;  // news may be ""
};
static constexpr SayCase said[] = {
    {0, "@?DM|1|o|ZMQ:60000|ZMQ:0||?|||Hall|1|e||!",   "appeared Hall 127.0.0.2"          },
    {1, "@?DM|1|o|ZMQ:60000|ZMQ:0||?|||Hall|1|e||!",   ""                                 },
    {0, "@?DM|1|o|ZMQ:60000|ZMQ:0|AB|?|||Hall|1|e||!", ""                                 },
    {0, "@?DM|1|o|ZMQ:60000|ZMQ:0||?|||Stage|1|e||!",  "changed Stage 127.0.0.2 127.0.0.3"},
    {0, "",                                            ""                                 },
    {0, "@?D",                                         ""                                 },
    {0, "@?DM|1|o|ZMQ:60000|ZMQ:0||?|||Bad|3|",        ""                                 },
    {0, "@?DM|1|o|ZMQ:65536|ZMQ:0||?|||Bad|3|e||!",    ""                                 },
    {0, "@?DM|1|o|ZMQ:9x|ZMQ:0||?|||Bad|3|e||!",       ""                                 },
    {0, "@?DM|1|o|60000|ZMQ:0||?|||Bad|3|e||!",        ""                                 },
    {0, "@?family||||||||||||||!",                     ""                                 },
};
static const std::string moved = said[3].text, cut_head = "@?DM|1|o|ZMQ:60000|ZMQ:0||?|||Long|2|e|";
static constexpr size_t longest_datagram_bytes = 8191;

TEST(Browser, TellsWhatIsNewAndNothingElse) {
    FakeDiscovery fakes[] = {FakeDiscovery(0x7f000002), FakeDiscovery(0x7f000003)};
    kesto::BrowserOptions options;
    options.broadcast = false;
    options.addresses = {"127.0.0.2", "127.0.0.3"};
    Browsing browsing(options);
    for (FakeDiscovery &fake : fakes) fake.hear(browsing.loop);
    for (const SayCase &row : said) {
        SCOPED_TRACE(row.text);
        fakes[row.who].say(row.text);
        browsing.expect(*row.news != '\0' ? Texts{row.news} : Texts());
    }

    pass(browsing.loop, options.interval_ms);
    fakes[1].say(moved);  // and no longer at the other address
    browsing.expect({});
    pass(browsing.loop, options.interval_ms);
    browsing.expect({"changed Stage 127.0.0.3"});

    fakes[1].say("@?DM|1|o|ZMQ:0|ZMQ:0||?|||Odd||e|!|!|!");  // without a serial
    browsing.expect({"appeared Odd 127.0.0.3"});
    fakes[1].say(cut_head + std::string(longest_datagram_bytes - cut_head.size(), 'p'));
    browsing.expect({"appeared Long, cut 127.0.0.3"});
    for (int i = 0; i < options.vanished_after_ms + options.interval_ms; i += 1000) pass(browsing.loop, 1000);
    EXPECT_EQ(browsing.seen.size(), 3U);
    EXPECT_TRUE(browsing.browser->devices().empty());
    browsing.seen.clear();
    fakes[0].say(moved);
    browsing.expect({"appeared Stage 127.0.0.2"});
}

TEST(Browser, FindsTheServiceOnceAndAgain) {
    Gateway gateway;
    kesto::BrowserOptions options;
    options.addresses = {kesto::loopback_address};
    Browsing browsing(options);
    const auto expect_news = [&browsing](const char *text) {
        serve(browsing.loop, text, [&] { return !browsing.seen.empty(); });
        for (int i = 0; i < 3; i++) pass(browsing.loop, 500);  // all datagrams of the round
        EXPECT_EQ(std::exchange(browsing.seen, {}), Texts{text});
    };
    expect_news("appeared  127.0.0.1");
    EXPECT_EQ(kesto::login_endpoint(browsing.browser->devices().front()),
              (kesto::Endpoint{kesto::loopback_address, authentication_port}));
    kill_service(gateway);
    gateway.control("Change", "('/Device/Config/PROJECT_INFO', 'Hall', 's')");
    gateway.start_service();
    browsing.browser->look_again();
    expect_news("changed  127.0.0.1");
    EXPECT_EQ(browsing.browser->devices().front().project_information, "Hall");
}
