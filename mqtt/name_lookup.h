/* name_lookup.h - whether the broker's name can be looked up at present.
 *
 * The MQTT library looks the name up by itself, since it checks the certificate against it, and everything waits for
 * that. It is let do so only when the same look-up, for which nothing has waited, has just had an answer. */
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class NameLookup {
  public:
    explicit NameLookup(std::string name);
    ~NameLookup();
    NameLookup(const NameLookup &) = delete;
    NameLookup &operator=(const NameLookup &) = delete;

    /* Whether a look-up takes no time to speak of. Else one is begun: ask again. That it fails is said in the log. */
    bool is_quick();

  private:
    struct Request; /* what the C library's thread reads and writes */
    void begin(std::int64_t now_ms);
    void take_answer(std::int64_t now_ms);

    const std::string name_;
    const bool is_address_;
    std::unique_ptr<Request> request_;  // under way
    std::int64_t quick_until_ms_ = 0, begin_at_ms_ = 0;
    bool is_failure_said_ = false;
};
