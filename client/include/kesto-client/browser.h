/* browser.h - which devices there are: asks again and again, and tells what has changed. */
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "device.h"
#include "key_pair.h"
#include "loop.h"

namespace kesto {

struct BrowserOptions {
    bool broadcast = true;                    // ask on every IPv4 interface; those that come later, too
    std::vector<std::string> addresses = {};  // ask these besides: numeric IPv4, for instance behind a router
    std::string client_id = {};               // without "!", best that of the clients, who log it out at the end
    std::string public_key = {};              // PEM, KeyPair::public_pem; empty: the devices wrap no key

    /* From one datagram to the next; at first there are three, half a second apart. The browser waits longer, up to 30
     * s, for known devices that have not answered yet: one whose data service is silent takes 25 s for a reply and
     * serves nobody meanwhile. */
    int interval_ms = 10000;
    int vanished_after_ms = 75000;  // of silence
};

enum class News {
    appeared,
    changed,  // its address or something that it says of itself, for instance after a restart; the key's bytes aside
    vanished,
};

struct BrowserCallbacks {
    /* A device is one by its serial, whatever its addresses; without a serial by its address. */
    std::function<void(News news, const Device &device)> news = {};

    /* Nothing could be sent, or an option is wrong: one sentence. Told when it begins; the browser goes on. */
    std::function<void(const std::string &sentence)> trouble = {};
};

class KESTO_CLIENT_API Browser {
  public:
    /* Begins at once. `loop` must outlive the browser's use, not the browser itself. Throws nothing of its own. */
    Browser(Loop &loop, BrowserOptions options, BrowserCallbacks callbacks);
    ~Browser(); /* silent from here on */
    Browser(const Browser &) = delete;
    Browser &operator=(const Browser &) = delete;

    std::vector<Device> devices() const; /* those that are there, by serial */
    void look_again();                   /* asks now */

  private:
    class KESTO_CLIENT_HIDDEN Core;
    std::shared_ptr<Core> core_;
};

/* Blocking: one datagram, repeated each half second, to one device. */
struct DiscoveryAnswer {
    std::string datagram;          // what it answered; empty when nothing came in time or `sentence` says why
    std::optional<Device> device;  // none when that is no discovery reply
    std::string sentence;          // why nothing could be sent; empty when it could
};
KESTO_CLIENT_API DiscoveryAnswer ask_device(const std::string &address, const std::string &client_id,
                                            const std::string &public_key, int limit_ms,
                                            const std::function<bool()> &stop = {});

}  // namespace kesto
