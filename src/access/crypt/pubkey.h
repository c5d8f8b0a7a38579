/* pubkey.h - wraps the shared key with a client's RSA public key. Thread-safe; takes some milliseconds with the worst
 * of keys. */
#pragma once

/* Encrypts the characters of `secret` under the RSA public key in `pem` (PKCS #1 version 1.5). Returns the number of
 * encrypted bytes and sets `wrapped` to a new text of twice as many upper-case hexadecimal digits, which the caller
 * releases with g_free. `wrapped` stays as it was on failure: -1 when the RSA operation fails, the number of bytes when
 * there is no memory for the text, 0 for any other reason. A key that is locked with a passphrase is a failure: nobody
 * is asked. */
int kesto_pubkey_encrypt(const char *pem, const char *secret, char **wrapped);
