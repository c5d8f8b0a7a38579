#include "mirror.h"

#include <algorithm>
#include <utility>

static constexpr size_t keys_most = 65536;
static constexpr const char *hidden_value = "********";  // instead of a password and the like

static bool is_below(const std::string &key, const std::string &branch) {
    if (!key.starts_with(branch)) return false;
    return key.size() == branch.size() || branch.ends_with('/') || key[branch.size()] == '/';
}

bool Mirror::is_wanted(const std::string &key) const {
    return std::any_of(branches_.begin(), branches_.end(),
                       [&](const std::string &branch) { return is_below(key, branch); });
}

bool Mirror::set(const std::string &key, const std::string &value) {
    if (!is_wanted(key)) return true;
    const auto known = values_.find(key);
    // Hidden when read, but not in what the device says of itself.
    const bool may_be_hidden = known == values_.end() ? is_whole_ : known->second == hidden_value;
    if (may_be_hidden) return false;
    set_read(key, value);
    return true;
}

void Mirror::set_read(const std::string &key, const std::string &value) {
    if (!is_wanted(key) || (!values_.contains(key) && values_.size() >= keys_most)) return;
    changed_meanwhile_.insert(key);
    put(key, value);
}

void Mirror::put(const std::string &key, const std::string &value) {
    const auto [known, is_new] = values_.try_emplace(key, value);
    if (!is_new && known->second == value) return;
    if (is_waiting_.contains(key)) ++counts_.values_overtaken;
    known->second = value;
    let_wait(key);
}

void Mirror::let_wait(const std::string &key) {
    if (is_waiting_.insert(key).second) waiting_.push_back(key);
}

void Mirror::begin_reading() { changed_meanwhile_.clear(); }

void Mirror::take_whole(const std::vector<kesto::Pair> &pairs) {
    std::set<std::string> read;
    for (const kesto::Pair &pair : pairs) {
        read.insert(pair.key);
        if (pair.value == hidden_value || !changed_meanwhile_.contains(pair.key)) put(pair.key, pair.value);
    }
    const auto is_gone = [&](const auto &entry) {
        return !read.contains(entry.first) && !changed_meanwhile_.contains(entry.first);
    };
    for (const auto &entry : values_) {
        if (is_gone(entry)) let_wait(entry.first);
    }
    std::erase_if(values_, is_gone);
    is_whole_ = true;
    for (const std::string &key : std::exchange(strays_, {})) seen_on_broker(key);
}

void Mirror::seen_on_broker(const std::string &key) {
    if (values_.contains(key)) return;
    if (is_whole_) let_wait(key);
    else if (strays_.size() < keys_most) strays_.insert(key);
}

void Mirror::start_over() {
    for (const auto &[key, value] : values_) let_wait(key);
}

kesto::Pair Mirror::take_next() {
    const std::string key = waiting_.front();
    waiting_.pop_front();
    is_waiting_.erase(key);
    const auto known = values_.find(key);
    return {key, known == values_.end() ? "" : known->second};
}
