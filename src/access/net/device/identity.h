/* identity.h - who the device is.
 *
 * The data service may come up after this service, so the identity is filled step by step: each load reads only what is
 * still missing. Network thread only; each of the four texts of the data service may block for one D-Bus call of at
 * most 25 s. */
#pragma once

struct AccessServer;
struct DeviceIdentity;

/* Fills what is missing in the server's identity. 1 when it is complete afterwards, else 0. */
int server_load_identity(AccessServer *server);

/* Releases the six texts and clears them. */
void identity_clear(DeviceIdentity *identity);
