#include "harness/discovery.h"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>

#include "harness/port.h"

static constexpr int discovery_port = 8004;
static constexpr char separator = '\x1c';

static std::optional<std::string> receive_from(int descriptor) {
    char bytes[65536];
    const ssize_t count = recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count < 0) return std::nullopt;
    std::replace(bytes, bytes + count, separator, '|');
    return std::string(bytes, static_cast<size_t>(count));
}

std::string discovery_request(std::string_view id, std::string_view public_key) {
    std::string request = "@?family";
    for (const std::string_view field : {std::string_view("serial"), public_key, id}) (request += separator) += field;
    return request += '!';
}

Discovery::Discovery(const std::string &address) : socket_(connected_socket(SOCK_DGRAM, discovery_port, address)) {}

Discovery::~Discovery() { close(socket_); }

void Discovery::send(std::string_view datagram) {
    last_sent_ = datagram.substr(0, 100);
    EXPECT_EQ(::send(socket_, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
}

std::string Discovery::receive(Where where) {
    pollfd replies = {.fd = socket_, .events = POLLIN, .revents = 0};
    comes([&](auto at_most) { return poll(&replies, 1, static_cast<int>(at_most.count())) == 1; });
    const auto reply = receive_from(socket_);
    if (!reply) abandon("no discovery reply to " + testing::PrintToString(last_sent_), where);
    return *reply;
}

std::string Discovery::find(std::string_view id, std::string_view public_key, Where where) {
    send(discovery_request(id, public_key));
    return receive(where);
}

std::optional<std::string> Discovery::ask(std::string_view datagram, Where where) {
    send(datagram);
    Discovery().find("fence", "", where);
    return receive_from(socket_);
}

using Text = std::unique_ptr<BIO, decltype(&BIO_free_all)>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

KeyPair::KeyPair() : key_(EVP_RSA_gen(2048), EVP_PKEY_free) {}

KeyPair::KeyPair(const std::string &pem_file) : key_(nullptr, EVP_PKEY_free) {
    const Text text(BIO_new_file(pem_file.c_str(), "r"), BIO_free_all);
    key_.reset(PEM_read_bio_PrivateKey(text.get(), nullptr, nullptr, nullptr));
    if (!key_) throw Abandoned("no private key in " + pem_file);
}

std::string KeyPair::public_pem() const {
    const Text text(BIO_new(BIO_s_mem()), BIO_free_all);
    PEM_write_bio_PUBKEY(text.get(), key_.get());
    char *bytes = nullptr;
    const auto size = static_cast<size_t>(BIO_get_mem_data(text.get(), &bytes));
    return {bytes, size};
}

std::string KeyPair::unwrap(const std::string &wrapped_key) const {
    const KeyContext context(EVP_PKEY_CTX_new(key_.get(), nullptr), EVP_PKEY_CTX_free);
    unsigned char bytes[256], secret[256];
    size_t size = 0, length = sizeof secret;
    if (OPENSSL_hexstr2buf_ex(bytes, sizeof bytes, &size, wrapped_key.c_str(), '\0') != 1 ||
        EVP_PKEY_decrypt_init(context.get()) != 1 ||  // PKCS #1 v1.5 padding is the default
        EVP_PKEY_decrypt(context.get(), secret, &length, bytes, size) != 1)
        return "";
    return {reinterpret_cast<const char *>(secret), length};
}
