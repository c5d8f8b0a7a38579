#include "net/device/identity.h"

#include <glib.h>

#include "common/log.h"
#include "net/device/data_key.h"
#include "net/records/server.h"

static constexpr const char *firmware_version = "1.12.1.32";
static constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial";
static constexpr const char *model_key = "/Device/Config/Hardware/Model/Model";
static constexpr const char *channels_key = "/Device/Config/Hardware/Channels";
static constexpr const char *easy_swap_id_key = "/Device/Config/EASY_SWAP_ID";

static char *load_serial() {
    const char *serial = g_getenv("hw_serial");
    if (serial != nullptr) {
        LOG("SERAIL from variable environment: %s\n", serial);
        return g_strdup(serial);
    }
    LOG("SERAIL from DB...\n");
    return data_key_read(serial_key);
}

static char *load_easy_swap_id() {
    LOG("reading easyswapid\n");
    return data_key_read(easy_swap_id_key);
}

static char *load_oem_serial(const char *serial) {
    const char *oem_serial = g_getenv("oem_serial");
    return g_strdup(oem_serial != nullptr ? oem_serial : serial);
}

static char *load_model() {
    const char *model = g_getenv("hw_model");
    if (model != nullptr) {
        LOG("MODEL from variable environment: %s\n", model);
        return g_strdup(model);
    }
    LOG("MODEL from DB...\n");
    char *read = data_key_read(model_key);
    LOG("MODEL READ FROM DB %s!!! It is not normal and means eeprom problem\n", log_text(read));
    return read;
}

static char *load_channels() {
    char *channels = data_key_read(channels_key);
    if (channels == nullptr) LOG("error reading CHANNELS. it can failt will be reread later\n");
    return channels;
}

int server_load_identity(AccessServer *server) {
    DeviceIdentity &identity = server->identity;
    if (identity.serial == nullptr) identity.serial = load_serial();
    if (identity.easy_swap_id == nullptr) identity.easy_swap_id = load_easy_swap_id();
    if (identity.oem_serial == nullptr) identity.oem_serial = load_oem_serial(identity.serial);
    if (identity.model == nullptr) identity.model = load_model();
    if (identity.fw_version == nullptr) identity.fw_version = g_strdup(firmware_version);
    if (identity.channels == nullptr) identity.channels = load_channels();

    const bool complete = identity.serial != nullptr && identity.easy_swap_id != nullptr &&
                          identity.oem_serial != nullptr && identity.model != nullptr &&
                          identity.fw_version != nullptr && identity.channels != nullptr;
    return complete ? 1 : 0;
}

void identity_clear(DeviceIdentity *identity) {
    g_clear_pointer(&identity->fw_version, g_free);
    g_clear_pointer(&identity->serial, g_free);
    g_clear_pointer(&identity->oem_serial, g_free);
    g_clear_pointer(&identity->channels, g_free);
    g_clear_pointer(&identity->model, g_free);
    g_clear_pointer(&identity->easy_swap_id, g_free);
}
