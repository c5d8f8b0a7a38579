#include "net/identity.h"

#include <cstdint>

#include <glib.h>

#include "common/log.h"
#include "net/data_service.h"
#include "net/server.h"

static constexpr const char *firmware_version = "1.12.1.32";
static constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial";
static constexpr const char *model_key = "/Device/Config/Hardware/Model/Model";
static constexpr const char *channels_key = "/Device/Config/Hardware/Channels";
static constexpr const char *easy_swap_id_key = "/Device/Config/EASY_SWAP_ID";

static constexpr size_t extra_size = 256;

static char extra_text[extra_size];
static int32_t discovery_extra_ready = 0;

static char *load_serial() {
    const char *serial = g_getenv("hw_serial");
    if (serial != nullptr) {
        LOG("SERAIL from variable environment: %s\n", serial);
        return g_strdup(serial);
    }
    LOG("SERAIL from DB...\n");
    return data_service_read_text(serial_key);
}

static char *load_easy_swap_id() {
    LOG("reading easyswapid\n");
    return data_service_read_text(easy_swap_id_key);
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
    char *read = data_service_read_text(model_key);
    LOG("MODEL READ FROM DB %s!!! It is not normal and means eeprom problem\n", log_text(read));
    return read;
}

static char *load_channels() {
    char *channels = data_service_read_text(channels_key);
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

static bool is_on(const char *setting) { return g_str_equal(setting, "on") || g_str_equal(setting, "1"); }

// Unset and empty mean on.
static const char *token_4221() {
    const char *setting = g_getenv("ENABLE4221");
    if (setting == nullptr) return "4221=ON";
    LOG("4221 from variable environment: %s\n", setting);
    return *setting == '\0' || is_on(setting) ? "4221=ON" : "4221=OFF";
}

// Unset and empty mean off.
static bool has_lumaversa() {
    const char *setting = g_getenv("HAS_LUMAVERSA");
    if (setting == nullptr) return false;
    LOG("LUMAVERSA from variable environment: %s\n", setting);
    return is_on(setting);
}

static void compute_discovery_extra() {
    g_strlcpy(extra_text, token_4221(), sizeof(extra_text));
    if (has_lumaversa()) g_strlcat(extra_text, ",LUMAVERSA=ON", sizeof(extra_text));
    discovery_extra_ready = 1;
}

const char *discovery_extra() {
    if (discovery_extra_ready == 0) compute_discovery_extra();
    return extra_text;
}
