/* device_session.h - the login to one device, and the mirror of what it holds. */
#pragma once

#include <map>
#include <memory>

#include <kesto-client/client.h>

#include "mirror.h"
#include "options.h"

class DeviceSession {
  public:
    using Alarmed = std::function<void(const kesto::Alarm &alarm)>;

    /* `loop`, `options` and `counts` must outlive it. */
    DeviceSession(kesto::Loop &loop, const Options &options, Counts &counts, std::string serial, Alarmed alarmed);

    /* Logs in; anew when the device is at another address, or another one than before. */
    void follow(const kesto::Device &device);
    void vanish(); /* it was not found any more: gives up, unless it is connected */
    void close(std::function<void()> closed);

    bool is_connected() const { return client_ && client_->connected(); }
    bool is_live() const { return is_connected() && is_fresh_; } /* the mirror holds what the device holds */
    Mirror &mirror() { return mirror_; }

    /* `answered` is called exactly once, unless the session is destroyed before. */
    void write(const std::string &key, const std::string &value, kesto::Answered answered);

    /* Reads the device when it is time to. */
    void go_on(std::int64_t now_ms);

  private:
    kesto::ClientOptions client_options(const kesto::Device &device) const;
    void take_notice(kesto::Notice notice, const std::string &sentence);
    void take_published(const kesto::Published &published);
    void take_echo(const kesto::Reply &echo);
    void take_value(const std::string &key, const std::string &value);
    void begin_reading();
    void ask_branch(size_t index);
    void take_branch(size_t index, const kesto::Answer &answer);
    void end_reading();
    void give_up_reading();
    void forget_client();

    kesto::Loop &loop_;
    const Options &options_;
    const std::string serial_;
    const Alarmed alarmed_;
    kesto::Endpoint login_;
    std::optional<std::string> static_text_;
    std::unique_ptr<kesto::Client> client_;
    std::map<std::uint64_t, kesto::Answered> writes_;  // under way
    std::uint64_t write_count_ = 0;

    Mirror mirror_;
    bool is_fresh_ = false, is_reading_ = false, read_wanted_ = false;
    std::int64_t read_at_ms_ = 0, read_anyway_at_ms_ = 0;  // when it is wanted, and when it is not
    std::uint64_t reading_ = 0;  // the number of the read under way; answers to former ones come late
    std::vector<kesto::Pair> read_;
    size_t branches_read_ = 0;
    std::string problem_;  // with the read, said last
};
