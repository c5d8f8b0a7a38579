#include "search.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fnmatch.h>
#include <ifaddrs.h>
#include <net/if.h>

#include "log.h"

static constexpr int look_pause_ms = 10000;

static std::string address_text(const sockaddr *address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, text, sizeof(text));
    return text;
}

static bool contains(const std::vector<std::string> &texts, const char *text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

static std::set<std::string> broadcast_addresses(const std::vector<std::string> &interfaces) {
    std::set<std::string> addresses;
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0) return addresses;
    for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next) {
        const bool is_ipv4 = entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET;
        const bool is_wanted = (entry->ifa_flags & IFF_BROADCAST) != 0 && contains(interfaces, entry->ifa_name);
        if (is_ipv4 && is_wanted && entry->ifa_broadaddr != nullptr)
            addresses.insert(address_text(entry->ifa_broadaddr));
    }
    freeifaddrs(first);
    return addresses;
}

Search::Search(kesto::Loop &loop, const Options &options, Found found)
    : loop_(loop), options_(options), found_(std::move(found)) {}

void Search::go_on(std::int64_t now_ms) {
    if (browser_ && (options_.interfaces.empty() || now_ms < look_at_ms_)) return;
    look_at_ms_ = now_ms + look_pause_ms;
    std::set<std::string> addresses = broadcast_addresses(options_.interfaces);
    addresses.insert(options_.addresses.begin(), options_.addresses.end());
    if (browser_ && addresses == addresses_) return;
    if (addresses.empty() && !options_.interfaces.empty()) say("the interfaces have no addresses yet");
    addresses_ = std::move(addresses);
    begin();
}

void Search::begin() {
    kesto::BrowserOptions search;
    search.broadcast = options_.addresses.empty() && options_.interfaces.empty();
    search.addresses.assign(addresses_.begin(), addresses_.end());
    search.client_id = kesto_client_id(options_);
    kesto::BrowserCallbacks callbacks;
    callbacks.news = [this](kesto::News news, const kesto::Device &device) { take(news, device); };
    callbacks.trouble = [](const std::string &sentence) { say("search: " + sentence); };
    browser_ = std::make_unique<kesto::Browser>(loop_, std::move(search), std::move(callbacks));
}

void Search::take(kesto::News news, const kesto::Device &device) {
    const auto matches = [&](const std::string &pattern) {
        return fnmatch(pattern.c_str(), device.serial.c_str(), 0) == 0;
    };
    const std::vector<std::string> &patterns = options_.serials;
    if (patterns.empty() || std::any_of(patterns.begin(), patterns.end(), matches)) found_(news, device);
}
