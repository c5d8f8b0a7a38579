/* The user "root" may do everything, and so may a client without a user name; any other user is kept from the keys of
 * two lists. A list is data: its position is what a refusal's message shows. */
#include "net/requests/rights.h"

#include <glib.h>

#include "common/log.h"
#include "net/records/client.h"

static constexpr const char *unrestricted_user = "root";

#define EIGHT_CHANNELS(prefix, suffix)                                                                                \
    prefix "0" suffix, prefix "1" suffix, prefix "2" suffix, prefix "3" suffix, prefix "4" suffix, prefix "5" suffix, \
        prefix "6" suffix, prefix "7" suffix
#define PRE_OUTPUT "/Device/Audio/Presets/Live/PreOutputProcess/Channels/Channel-"
#define OUTPUT     "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-"

static constexpr const char *write_blacklist[] = {
    EIGHT_CHANNELS(PRE_OUTPUT, "/IIR"),
    EIGHT_CHANNELS(OUTPUT, "/IIR"),
    EIGHT_CHANNELS(OUTPUT, "/TruePowerLimiter"),
    EIGHT_CHANNELS(OUTPUT, "/CurrentLimiterRMS"),
    EIGHT_CHANNELS(OUTPUT, "/DynamicEq"),
    EIGHT_CHANNELS(OUTPUT, "/ClipLimiter"),
    EIGHT_CHANNELS(OUTPUT, "/PeakLimiter"),
    EIGHT_CHANNELS(OUTPUT, "/VoltageLimiterRMS"),
    EIGHT_CHANNELS(OUTPUT, "/Feedloop"),
    "/Device/Config/Hardware/Channels",
    "/Device/Config/Hardware/Model/Family",
    "/Device/Config/Hardware/Model/Mac",
    "/Device/Config/Hardware/Model/Manufacturer",
    "/Device/Config/Hardware/Model/Model",
    "/Device/Config/Hardware/Model/Serial",
    "/Device/Config/Networking/Ethernet/Dhcp/Enable",
    "/Device/Config/Networking/Ethernet/Dns",
    "/Device/Config/Networking/Ethernet/Gateway",
    "/Device/Config/Networking/Ethernet/Ip",
    "/Device/Config/Networking/Ethernet/Netmask",
    "/Device/Config/Software/Firmware/Version",
    "/Device/Config/EASY_SWAP_ID",
    nullptr,
};

// Whole branches that a restricted user is not to pull over the network in one go.
static constexpr const char *recursive_read_blacklist[] = {
    "/", "/Device/Audio", "/Device/Audio/", "/Device/Audio/Presets", "/Device/Audio/Presets/", nullptr,
};

// The key's position in a NULL-terminated list, or -1.
static int position_in(const char *const *list, const char *key) {
    for (int i = 0; list[i] != nullptr; ++i) {
        if (g_str_equal(list[i], key)) return i;
    }
    return -1;
}

static bool is_restricted(const Client *client) {
    return client->cl_username != nullptr && !g_str_equal(client->cl_username, unrestricted_user);
}

static int restricted_read(const char *key, uint32_t recursive) {
    const int position = recursive != 0 ? position_in(recursive_read_blacklist, key) : -1;
    if (position == -1) return 1;
    LOG("key in blaklist read recursive [%d]\n", position);
    return 0;
}

static int restricted_write(const char *key) {
    const int position = position_in(write_blacklist, key);
    if (position == -1) return 1;
    LOG("key in blaklist write [%d]\n", position);
    return 0;
}

int key_authorized(Proto *handle, uint32_t operation, const char *key, uint32_t recursive) {
    if (key == nullptr || *key == '\0') return 0;
    const auto *client = static_cast<const Client *>(proto_get_private(handle));
    if (client == nullptr) return 0;

    const bool restricted = is_restricted(client);
    switch (operation) {
        case PROTO_OPERATION_READ: return restricted ? restricted_read(key, recursive) : 1;
        case PROTO_OPERATION_WRITE: return restricted ? restricted_write(key) : 1;
        case PROTO_OPERATION_OTHER: return 1;
        default: LOG("Autentification NOT OK\n"); return 0;
    }
}
