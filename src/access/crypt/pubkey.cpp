#include "crypt/pubkey.h"

#include <cstdio>
#include <memory>

#include <glib.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "common/log.h"
#include "common/owned.h"

using MemoryReader = std::unique_ptr<BIO, ByPointer<BIO_free>>;
using PublicKey = std::unique_ptr<EVP_PKEY, ByPointer<EVP_PKEY_free>>;
using RsaKey = std::unique_ptr<RSA, ByPointer<RSA_free>>;
using Buffer = std::unique_ptr<unsigned char, ByPointer<g_free>>;

static constexpr int failed = 0;

// Without it OpenSSL asks the terminal for the passphrase of a locked key, and the service stands still.
static int refuse_passphrase(char *, int, int, void *) { return -1; }

static MemoryReader open_reader(const char *text) {
    constexpr int to_terminator = -1;
    return MemoryReader(BIO_new_mem_buf(text, to_terminator));
}

static RsaKey read_rsa_key(BIO *reader) {
    ERR_print_errors_fp(stderr);
    const PublicKey key(PEM_read_bio_PUBKEY(reader, nullptr, refuse_passphrase, nullptr));
    return RsaKey(key ? EVP_PKEY_get1_RSA(key.get()) : nullptr);
}

static char *upper_case_hex(const unsigned char *bytes, gsize count) {
    static constexpr char digits[] = "0123456789ABCDEF";
    auto *text = static_cast<char *>(g_try_malloc0(2 * count + 1));
    if (text == nullptr) {
        perror("malloc");
        return nullptr;
    }
    for (gsize i = 0; i < count; ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0xF];
    }
    return text;
}

static int encrypt(BIO *secret, RSA *key, char **wrapped) {
    const int key_bytes = RSA_size(key);
    const Buffer input(static_cast<unsigned char *>(g_malloc0(2 * static_cast<gsize>(key_bytes))));
    const Buffer output(static_cast<unsigned char *>(g_malloc0(static_cast<gsize>(key_bytes))));

    const int read = BIO_read(secret, input.get(), 2 * key_bytes);
    if (read < 1) {
        LOG("Error reading input Data\n");
        return failed;
    }
    const int encrypted = RSA_public_encrypt(read, input.get(), output.get(), key, RSA_PKCS1_PADDING);
    if (encrypted < 1) {
        LOG("RSA operation error\n");
        return encrypted;
    }
    char *text = upper_case_hex(output.get(), static_cast<gsize>(encrypted));
    if (text != nullptr) *wrapped = text;
    return encrypted;
}

static int encrypt_with_pem(const char *pem, const char *secret, char **wrapped) {
    const MemoryReader secret_reader = open_reader(secret);
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);

    const MemoryReader pem_reader = open_reader(pem);
    if (!pem_reader) {
        LOG("Error opening KEY\n");
        return failed;
    }
    const RsaKey key = read_rsa_key(pem_reader.get());
    if (!key) return failed;
    return encrypt(secret_reader.get(), key.get(), wrapped);
}

int kesto_pubkey_encrypt(const char *pem, const char *secret, char **wrapped) {
    const int encrypted = encrypt_with_pem(pem, secret, wrapped);
    ERR_clear_error();  // else the next request would print this one's errors
    return encrypted;
}
