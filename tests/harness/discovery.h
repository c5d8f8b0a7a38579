/* discovery.h - a client's side of UDP discovery. */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "harness/wait.h"

/* "@?family FS serial FS public key FS id!". Replies are given with "|" for each FS. */
std::string discovery_request(std::string_view id, std::string_view public_key = "");

class Discovery {
  public:
    Discovery();
    ~Discovery();
    Discovery(const Discovery &) = delete;
    Discovery &operator=(const Discovery &) = delete;

    void send(std::string_view datagram);
    std::string receive(Where where = Where::current());  // the next one; must come
    std::string find(std::string_view id, std::string_view public_key = "", Where where = Where::current());

    /* Sends, and gives the reply or says that there is none: a well-formed request behind it, of the id "fence", tells
     * when the service has passed it. For a service that answers well-formed requests. */
    std::optional<std::string> ask(std::string_view datagram, Where where = Where::current());

  private:
    int socket_;
};

/* An RSA key of 2048 bits. */
class KeyPair {
  public:
    KeyPair();                                      // a new one
    explicit KeyPair(const std::string &pem_file);  // its private key

    std::string public_pem() const;
    std::string unwrap(const std::string &wrapped_key) const;  // a reply's sixth field; "" when it cannot be unwrapped

  private:
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};
