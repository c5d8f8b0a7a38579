/* mirror.h - what one device holds, and which of it the broker does not have yet. A key waits once, however often it
 * changes, and what is published is its latest value. */
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <kesto-client/messages.h>

#include "counts.h"

class Mirror {
  public:
    /* `counts` must outlive it. */
    Mirror(std::vector<std::string> branches, Counts &counts) : branches_(std::move(branches)), counts_(counts) {}

    /* The device said that a key has this value. Left out: one outside the branches, and more keys than any device has.
     * False when the value may be one to hide, which an answer to a read alone tells; the caller has to read the key.
     */
    bool set(const std::string &key, const std::string &value);
    void set_read(const std::string &key, const std::string &value); /* that answer */

    /* Begins a whole read: what is set from now on is newer than what that read brings. */
    void begin_reading();

    /* All keys that the device has. Keys that it no longer has wait, too, to be removed from the broker. */
    void take_whole(const std::vector<kesto::Pair> &pairs);

    /* The broker has a value of this key, from earlier. */
    void seen_on_broker(const std::string &key);

    /* A new connection to the broker: everything waits again. */
    void start_over();

    /* Nothing does before the first whole read, which tells what is to be hidden. */
    bool waits() const { return is_whole_ && !waiting_.empty(); }

    /* The key that has waited longest, which then waits no more, and its value; empty when it has to be removed. */
    kesto::Pair take_next();

  private:
    bool is_wanted(const std::string &key) const;
    void put(const std::string &key, const std::string &value);
    void let_wait(const std::string &key);

    const std::vector<std::string> branches_;
    Counts &counts_;
    std::map<std::string, std::string> values_;
    std::deque<std::string> waiting_;
    std::set<std::string> is_waiting_;
    std::set<std::string> changed_meanwhile_;  // since begin_reading
    std::set<std::string> strays_;             // on the broker, and perhaps no key of the device
    bool is_whole_ = false;
};
