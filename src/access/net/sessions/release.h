/* release.h - how a client's record ends. Network thread only. */
#pragma once

#include <cstdint>
#include <memory>

#include <glib.h>

#include "common/owned.h"

struct Client;

enum ClientFreeType : uint32_t {
    client_free_local = 0, /* release only: never inserted, or its entry is removed by the caller */
    client_free_known = 1, /* also tells the audio service and removes the entry from the table */
};

/* Releases the record with all that it holds: monitor, sockets, texts, table entry. NULL is ignored.
 * May be called from one of the record's own handlers, which then must not touch it again. Takes half a
 * millisecond; with a monitor up to 600 ms. */
void client_free(Client *client, ClientFreeType type);

/* GHRFunc for the sweep at the end: frees the record, nobody is told, and the entry is to be removed. */
gboolean client_free_callback(void *key, void *client, void *user_data);

/* Frees a record that no table holds and says so. */
void client_drop_local(Client *client);

/* A record that no table holds yet; dropped when it leaves the scope. */
using LocalClient = std::unique_ptr<Client, ByPointer<client_drop_local>>;
