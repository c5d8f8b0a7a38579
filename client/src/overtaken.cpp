#include "overtaken.h"

#include <utility>

namespace kesto {

static constexpr int64_t near_ms = 250;  // the tick's 33 ms, and what the network makes of them

void Overtaken::compare(const ByKey &others, const std::string &key, const std::string &value, int64_t now) {
    forget_old(now);
    const auto other = others.find(key);
    if (other == others.end() || now - other->second.at > near_ms || other->second.value == value) return;
    in_doubt_.insert(key);
}

void Overtaken::forget_old(int64_t now) {
    if (now - forgotten_at_ <= near_ms) return;
    forgotten_at_ = now;
    const auto is_old = [&](const auto &entry) { return now - entry.second.at > near_ms; };
    std::erase_if(written_, is_old);
    std::erase_if(changed_, is_old);
}

void Overtaken::written(const std::string &key, const std::string &value, int64_t now) {
    compare(changed_, key, value, now);
    written_[key] = {value, now};
}

void Overtaken::changed(const std::string &key, const std::string &value, int64_t now) {
    compare(written_, key, value, now);
    changed_[key] = {value, now};
}

void Overtaken::settled(const std::string &key, const std::string &value, int64_t now) {
    changed_.erase(key);
    written_[key] = {value, now};
}

std::set<std::string> Overtaken::take() { return std::exchange(in_doubt_, {}); }

}  // namespace kesto
