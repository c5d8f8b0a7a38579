#include "overtaken.h"

#include <utility>

namespace kesto {

static constexpr int64_t near_ms = 250;  // the tick's 33 ms, and what the network makes of them

void Overtaken::told(Way way, const std::string &key, const std::string &value, int64_t now) {
    forget_old(now);
    for (int other = 0; other < way_count; ++other) {
        const auto last = last_[other].find(key);
        if (other == way || last == last_[other].end()) continue;
        if (now - last->second.at <= near_ms && last->second.value != value) in_doubt_.insert(key);
    }
    last_[way][key] = {value, now};
}

void Overtaken::ask(const std::string &key) {
    for (auto &by_key : last_) by_key.erase(key);
}

void Overtaken::forget_old(int64_t now) {
    if (now - forgotten_at_ <= near_ms) return;
    forgotten_at_ = now;
    for (auto &by_key : last_)
        std::erase_if(by_key, [&](const auto &entry) { return now - entry.second.at > near_ms; });
}

std::set<std::string> Overtaken::take() { return std::exchange(in_doubt_, {}); }

}  // namespace kesto
