/* discovery.h - a client's side of UDP discovery. */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "harness/wait.h"

/* The datagram "@?family|serial|PUBLIC KEY|ID!" with the separator 0x1C for each "|". In the replies that the functions
 * below give, "|" stands for each separator. */
std::string discovery_request(std::string_view id, std::string_view public_key = "");

class Discovery {
  public:
    explicit Discovery(const std::string &address = "127.0.0.1");
    ~Discovery();
    Discovery(const Discovery &) = delete;
    Discovery &operator=(const Discovery &) = delete;

    void send(std::string_view datagram);
    std::string receive(Where where = Where::current());  // the next reply, which must come

    /* Sends a request and gives its reply, which must come. */
    std::string find(std::string_view id, std::string_view public_key = "", Where where = Where::current());

    /* Sends, and gives the reply, or std::nullopt when there is none: then a well-formed request of the id "fence",
     * which was sent after it, has been answered. For a service that answers well-formed requests. */
    std::optional<std::string> ask(std::string_view datagram, Where where = Where::current());

  private:
    int socket_;
    std::string last_sent_;
};

/* An RSA key of 2048 bits. */
class KeyPair {
  public:
    KeyPair();                                      // a new one
    explicit KeyPair(const std::string &pem_file);  // its private key

    std::string public_pem() const;
    std::string unwrap(const std::string &wrapped_key) const;  // the sixth field of a reply; gives "" on failure

  private:
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};
