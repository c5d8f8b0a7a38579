/* overtaken.h - keys whose value is in doubt: told about in different ways, at nearly the same moment, with different
 * values. Only what comes the same way comes in the order in which it happened: the device's own changes wait for its
 * tick, the echo of another client's write does not, and answers come on a connection of their own. */
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace kesto {

class Overtaken {
  public:
    enum Way { change, echo, answer, way_count };

    void told(Way way, const std::string &key, const std::string &value, int64_t now);

    /* The key is about to be read: what was told of it so far is older than the answer. */
    void ask(const std::string &key);

    /* The keys that have come into doubt since the last call. */
    std::set<std::string> take();

  private:
    struct Last {
        std::string value;
        int64_t at;
    };

    void forget_old(int64_t now);

    std::map<std::string, Last> last_[way_count];  // by key
    std::set<std::string> in_doubt_;
    int64_t forgotten_at_ = 0;
};

}  // namespace kesto
