/* discovery.h - a client's side of UDP discovery. */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

#include "harness/wait.h"

/* Places in a reply. */
enum DiscoveryField : size_t {
    field_model,  // with the leading "D"
    field_firmware,
    field_oem_serial,
    field_auth_port,
    field_second_port,
    field_wrapped_key,
    field_slot,
    field_oem_manufacturer,
    field_oem_model,
    field_amplifier_name,
    field_serial,
    field_easy_swap_id,
    field_project_info,
    field_extra,
    discovery_field_count
};

struct DiscoveryReply {
    std::string raw;
    std::vector<std::string> fields;  // without "@?" and "!"; as many as came
};

/* "@?family FS serial FS public key FS id!" */
std::string discovery_request(std::string_view id, std::string_view public_key = "");

class Discovery {
  public:
    Discovery();
    ~Discovery();
    Discovery(const Discovery &) = delete;
    Discovery &operator=(const Discovery &) = delete;

    void send(std::string_view datagram);
    DiscoveryReply receive(Where where = Where::current());  // the next one; must come

    /* Sends, and gives the reply or says that there is none: a well-formed request behind it, of the id "fence", tells
     * when the service has passed it. For a service that answers well-formed requests. */
    std::optional<DiscoveryReply> ask(std::string_view datagram, Where where = Where::current());

  private:
    int socket_, fence_socket_;
};

/* An RSA key of 2048 bits. */
class KeyPair {
  public:
    KeyPair();
    std::string public_pem() const;
    std::string unwrap(const std::string &wrapped_key) const;  // of a reply; "" when it cannot be unwrapped

  private:
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY *)> key_;
};
