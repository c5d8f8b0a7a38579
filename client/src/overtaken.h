/* overtaken.h - keys whose value is in doubt: changed by somebody's write and by the device at nearly the same moment.
 * What the device publishes waits for its tick, what a write brings about does not, so the two can come in the wrong
 * order. */
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace kesto {

class Overtaken {
  public:
    void written(const std::string &key, const std::string &value, int64_t now);
    void changed(const std::string &key, const std::string &value, int64_t now);

    /* Read from the device: in no doubt until the device's next change comes. */
    void settled(const std::string &key, const std::string &value, int64_t now);

    /* The keys that have come into doubt since the last call. */
    std::set<std::string> take();

  private:
    struct Last {
        std::string value;
        int64_t at;
    };
    using ByKey = std::map<std::string, Last>;

    void compare(const ByKey &others, const std::string &key, const std::string &value, int64_t now);
    void forget_old(int64_t now);

    ByKey written_, changed_;
    std::set<std::string> in_doubt_;
    int64_t forgotten_at_ = 0;
};

}  // namespace kesto
