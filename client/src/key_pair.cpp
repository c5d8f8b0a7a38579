#include <charconv>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <kesto-client/key_pair.h>

#include "owned.h"

namespace kesto {

static constexpr unsigned key_bits = 2048;

using Bytes = std::vector<unsigned char>;

struct KeyPair::Key {
    std::unique_ptr<EVP_PKEY, ByPointer<EVP_PKEY_free>> pair;
};

/* The queue of OpenSSL's errors belongs to the caller's thread. */
struct ErrorsKept {
    ErrorsKept() { ERR_set_mark(); }
    ~ErrorsKept() { ERR_pop_to_mark(); }
    ErrorsKept(const ErrorsKept &) = delete;
    ErrorsKept &operator=(const ErrorsKept &) = delete;
};

static std::optional<Bytes> bytes_of_hex(const std::string &hex) {
    if (hex.empty() || hex.size() % 2 != 0) return std::nullopt;
    Bytes bytes(hex.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char *digits = hex.data() + 2 * i;
        const auto [end, error] = std::from_chars(digits, digits + 2, bytes[i], 16);
        if (error != std::errc() || end != digits + 2) return std::nullopt;
    }
    return bytes;
}

KeyPair::KeyPair() : key_(std::make_unique<Key>()) {
    const ErrorsKept errors;
    key_->pair.reset(EVP_RSA_gen(key_bits));
    if (!key_->pair) throw std::runtime_error("cannot make an RSA key on this machine");
}

KeyPair::~KeyPair() = default;
KeyPair::KeyPair(KeyPair &&) noexcept = default;
KeyPair &KeyPair::operator=(KeyPair &&) noexcept = default;

std::string KeyPair::public_pem() const {
    const std::unique_ptr<BIO, ByPointer<BIO_free>> memory(BIO_new(BIO_s_mem()));
    if (!memory) throw std::bad_alloc();
    PEM_write_bio_PUBKEY(memory.get(), key_->pair.get());
    std::string pem(BIO_ctrl_pending(memory.get()), '\0');
    BIO_read(memory.get(), pem.data(), static_cast<int>(pem.size()));
    return pem;
}

std::optional<std::string> KeyPair::unwrap(const std::string &hex) const {
    const ErrorsKept errors;
    EVP_PKEY *pair = key_->pair.get();
    const std::optional<Bytes> wrapped = bytes_of_hex(hex);
    if (!wrapped) return std::nullopt;
    const std::unique_ptr<EVP_PKEY_CTX, ByPointer<EVP_PKEY_CTX_free>> context(EVP_PKEY_CTX_new(pair, nullptr));
    if (!context || EVP_PKEY_decrypt_init(context.get()) <= 0) return std::nullopt;
    if (EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) <= 0) return std::nullopt;
    Bytes text(static_cast<size_t>(EVP_PKEY_get_size(pair)));
    size_t length = text.size();
    if (EVP_PKEY_decrypt(context.get(), text.data(), &length, wrapped->data(), wrapped->size()) <= 0)
        return std::nullopt;
    return std::string(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
}

}  // namespace kesto
