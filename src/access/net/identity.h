/* identity.h - who the device is: six texts, and the list of its hardware options.
 *
 * The data service may come up after this service, so the identity is filled step by step: each load reads only what is
 * still missing. Network thread only; each missing text may block for one D-Bus call. */
#ifndef ACCESS_NET_IDENTITY_H
#define ACCESS_NET_IDENTITY_H

struct AccessServer;

/* Owned texts, each empty until loaded and then kept until the server is released. */
struct DeviceIdentity {
    char *fw_version;
    char *serial;
    char *oem_serial;
    char *channels;
    char *model;
    char *easy_swap_id;
};

/* Fills what is missing in the server's identity. 1 when it is complete afterwards, else 0. */
int server_load_identity(AccessServer *server);

/* Releases the six texts and clears them. */
void identity_clear(DeviceIdentity *identity);

/* The hardware options for discovery, for example "4221=ON"; computed from the environment at the first call, then
 * fixed. Lives as long as the process. */
const char *discovery_extra();

#endif
