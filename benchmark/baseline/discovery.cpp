// "@?family FS serial FS public-key FS id!" comes in, fourteen fields go out.
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "baseline.h"

static constexpr size_t datagram_size = 8192, key_bytes_max = 2048;
static constexpr char separator = '\x1c';
static constexpr const char shared_key[] = "7D2E5A91C04BF368";
static constexpr size_t shared_key_length = sizeof(shared_key) - 1;
static constexpr const char *project_info_key = "/Device/Config/PROJECT_INFO";

// The third of the request's fields.
static std::string_view public_key_of(std::string_view request) {
    for (int field = 0; field < 2; ++field) request.remove_prefix(request.find(separator) + 1);
    return request.substr(0, request.find(separator));
}

static std::string hex_of(const unsigned char *bytes, size_t count) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * count);
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
    return text;
}

static std::string wrap_shared_key(std::string_view pem) {
    if (pem.empty()) return "";
    BIO *reader = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY *key = PEM_read_bio_PUBKEY(reader, nullptr, nullptr, nullptr);
    EVP_PKEY_CTX *context = EVP_PKEY_CTX_new(key, nullptr);
    EVP_PKEY_encrypt_init(context);
    EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING);
    unsigned char wrapped[key_bytes_max];
    size_t length = sizeof(wrapped);
    EVP_PKEY_encrypt(context, wrapped, &length, reinterpret_cast<const unsigned char *>(shared_key), shared_key_length);
    EVP_PKEY_CTX_free(context);
    EVP_PKEY_free(key);
    BIO_free(reader);
    return hex_of(wrapped, length);
}

static int format_reply(const Baseline &baseline, const std::string &wrapped_key, char (&reply)[datagram_size]) {
    const std::string project_info = bus_read_text(baseline, project_info_key);
    return snprintf(reply, sizeof(reply),
                    "@?D%s\x1c"
                    "1.12.1.32\x1c%s\x1cZMQ:60000\x1cZMQ:61000\x1c%s\x1c?\x1c\x1c\x1c\x1c%s\x1c%s\x1c%s\x1c"
                    "4221=ON!",
                    baseline.model.c_str(), baseline.serial.c_str(), wrapped_key.c_str(), baseline.serial.c_str(),
                    baseline.easy_swap_id.c_str(), project_info.c_str());
}

int on_discovery(zloop_t *, zmq_pollitem_t *item, void *argument) {
    const auto &baseline = *static_cast<Baseline *>(argument);
    char request[datagram_size], reply[datagram_size];
    sockaddr_in source = {};
    socklen_t source_size = sizeof(source);
    const ssize_t length =
        recvfrom(item->fd, request, sizeof(request), 0, reinterpret_cast<sockaddr *>(&source), &source_size);
    const std::string wrapped = wrap_shared_key(public_key_of({request, static_cast<size_t>(length)}));
    const int reply_length = format_reply(baseline, wrapped, reply);
    sendto(item->fd, reply, static_cast<size_t>(reply_length), 0, reinterpret_cast<const sockaddr *>(&source),
           source_size);
    return 0;
}
