/* key_pair.h - the RSA key pair that a client makes for discovery, and the shared key that the device wraps with it. */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <openssl/evp.h>

#include "owned.h"

/* The text that every device wraps. */
constexpr std::string_view shared_key = "7D2E5A91C04BF368";

using KeyPair = std::unique_ptr<EVP_PKEY, ByPointer<EVP_PKEY_free>>;

KeyPair key_pair_new(); /* RSA of 2048 bits; lives in memory only; takes some 100 ms */
std::string key_pair_public_pem(const KeyPair &pair);

/* The text in `hex`, encrypted with the public key by PKCS #1 version 1.5; none when it is not that. */
std::optional<std::string> key_pair_unwrap(const KeyPair &pair, const std::string &hex);
