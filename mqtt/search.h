/* search.h - which devices there are, by broadcast, on some interfaces alone, or at addresses. */
#pragma once

#include <set>

#include <kesto-client/browser.h>

#include "options.h"

class Search {
  public:
    using Found = std::function<void(kesto::News news, const kesto::Device &device)>;

    /* `loop` and `options` must outlive it. Devices whose serial is not asked for are not told. */
    Search(kesto::Loop &loop, const Options &options, Found found);

    void go_on(std::int64_t now_ms); /* the interfaces may have got other addresses */

  private:
    void begin();
    void take(kesto::News news, const kesto::Device &device);

    kesto::Loop &loop_;
    const Options &options_;
    const Found found_;
    std::set<std::string> addresses_;
    std::unique_ptr<kesto::Browser> browser_;
    std::int64_t look_at_ms_ = 0;
};
