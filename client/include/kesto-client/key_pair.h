/* key_pair.h - the RSA key pair with which a client gets the shared key. Nothing in the protocol needs it. */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "device.h"

namespace kesto {

/* The text that every device wraps. */
constexpr std::string_view shared_key = "7D2E5A91C04BF368";

class KESTO_CLIENT_API KeyPair {
  public:
    /* RSA of 2048 bits; lives in memory only; takes some 100 ms. Throws std::runtime_error when the machine cannot make
     * one. */
    KeyPair();
    ~KeyPair();
    KeyPair(KeyPair &&) noexcept;
    KeyPair &operator=(KeyPair &&) noexcept;

    std::string public_pem() const;

    /* The text that `hex` holds, wrapped with the public key; none when it is not that. */
    std::optional<std::string> unwrap(const std::string &hex) const;

    /* Whether the device has wrapped the shared key with this pair's public key. */
    bool is_right(const Device &device) const { return unwrap(device.wrapped_key) == shared_key; }

  private:
    struct KESTO_CLIENT_HIDDEN Key;
    std::unique_ptr<Key> key_;
};

}  // namespace kesto
