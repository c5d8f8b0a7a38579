/* bridge.h - the devices of the hall, each with its connection to the broker, and the bridge's own connection, which is
 * the first to find out that the broker is there. */
#pragma once

#include <map>
#include <set>

#include "device.h"
#include "search.h"

class Bridge {
  public:
    /* `options` must outlive it. Throws std::system_error as kesto::Loop does. SIGINT and SIGTERM must be blocked. */
    explicit Bridge(const Options &options);
    ~Bridge();

    void run(); /* until SIGINT or SIGTERM */

  private:
    BrokerCallbacks broker_callbacks();
    void take_message(const Message &message);
    void take_instance(const std::string &instance);
    void take_device(kesto::News news, const kesto::Device &device);
    MirroredDevice *device_of(const std::string &serial);
    void wait(int limit_ms);
    std::vector<BrokerConnection *> brokers();
    void go_on();
    bool publish_next();
    void say_drops(std::int64_t now_ms);
    void report();
    void close();

    const Options &options_;
    const std::string instance_;                           // this run of the program
    bool instance_said_ = false, instance_known_ = false;  // by the broker, from this connection or an earlier one
    std::string rival_;
    Counts counts_, counts_published_;
    std::uint64_t drops_said_ = 0;
    kesto::Loop loop_;
    NameLookup lookup_;  // of the broker
    int signals_ = -1;
    bool stopping_ = false;
    std::map<std::string, std::unique_ptr<MirroredDevice>> devices_;  // by serial
    std::set<std::string> left_out_;                                  // serials, said once
    BrokerConnection broker_;
    bool availability_waits_ = false;
    std::set<std::string> orphans_;  // devices that the bridge had before, and has not found
    std::string trouble_, status_;   // said last
    std::int64_t counts_at_ms_ = 0, drops_at_ms_ = 0, sign_of_life_at_ms_ = 0;
    Search search_;  // the last, so that nothing is found before all is there
};
