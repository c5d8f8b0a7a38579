#include "harness/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

static constexpr uint16_t discovery_port = 8004;
static constexpr char separator = '\x1c';

static int open_socket() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in service = {};
    service.sin_family = AF_INET;
    service.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    service.sin_port = htons(discovery_port);
    if (connect(descriptor, reinterpret_cast<const sockaddr *>(&service), sizeof service) != 0)
        throw Abandoned("no UDP socket for the test");
    return descriptor;
}

static DiscoveryReply split(std::string raw) {
    DiscoveryReply reply{raw, {}};
    std::string_view rest = raw;
    if (rest.starts_with("@?")) rest.remove_prefix(2);
    if (rest.ends_with('!')) rest.remove_suffix(1);
    for (size_t end; (end = rest.find(separator)) != rest.npos; rest.remove_prefix(end + 1))
        reply.fields.emplace_back(rest.substr(0, end));
    reply.fields.emplace_back(rest);
    return reply;
}

static std::optional<DiscoveryReply> receive_until(int descriptor, Clock::time_point end) {
    pollfd readable{descriptor, POLLIN, 0};
    if (poll(&readable, 1, milliseconds_until(end)) != 1) return std::nullopt;
    char bytes[65536];
    const ssize_t count = recv(descriptor, bytes, sizeof bytes, 0);
    if (count < 0) return std::nullopt;
    return split(std::string(bytes, static_cast<size_t>(count)));
}

static DiscoveryReply receive_from(int descriptor, const Where &where) {
    auto reply = receive_until(descriptor, deadline());
    if (!reply) abandon("no discovery reply", where);
    return *reply;
}

std::string discovery_request(std::string_view id, std::string_view public_key) {
    std::string request = "@?family";
    for (const std::string_view field : {std::string_view("serial"), public_key, id}) (request += separator) += field;
    return request += '!';
}

Discovery::Discovery() : socket_(open_socket()), fence_socket_(open_socket()) {}

Discovery::~Discovery() {
    close(socket_);
    close(fence_socket_);
}

void Discovery::send(std::string_view datagram) {
    ASSERT_EQ(::send(socket_, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
}

DiscoveryReply Discovery::receive(Where where) { return receive_from(socket_, where); }

std::optional<DiscoveryReply> Discovery::ask(std::string_view datagram, Where where) {
    const std::string fence = discovery_request("fence");
    send(datagram);
    EXPECT_EQ(::send(fence_socket_, fence.data(), fence.size(), 0), static_cast<ssize_t>(fence.size()));
    receive_from(fence_socket_, where);
    return receive_until(socket_, Clock::now());
}

KeyPair::KeyPair() : key_(EVP_RSA_gen(2048), EVP_PKEY_free) {}

std::string KeyPair::public_pem() const {
    const std::unique_ptr<BIO, void (*)(BIO *)> text(BIO_new(BIO_s_mem()), BIO_free_all);
    PEM_write_bio_PUBKEY(text.get(), key_.get());
    char *bytes = nullptr;
    const auto size = static_cast<size_t>(BIO_get_mem_data(text.get(), &bytes));
    return {bytes, size};
}

std::string KeyPair::unwrap(const std::string &wrapped_key) const {
    long size = 0;
    const std::unique_ptr<unsigned char, void (*)(unsigned char *)> bytes(
        OPENSSL_hexstr2buf(wrapped_key.c_str(), &size), [](unsigned char *p) { OPENSSL_free(p); });
    const std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX *)> context(EVP_PKEY_CTX_new(key_.get(), nullptr),
                                                                          EVP_PKEY_CTX_free);
    unsigned char secret[256];
    size_t length = sizeof secret;
    if (!bytes || EVP_PKEY_decrypt_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_decrypt(context.get(), secret, &length, bytes.get(), static_cast<size_t>(size)) != 1)
        return "";
    return {reinterpret_cast<const char *>(secret), length};
}
