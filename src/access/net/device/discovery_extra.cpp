#include "net/device/discovery_extra.h"

#include <cstddef>
#include <cstdint>

#include <glib.h>

#include "common/log.h"

static constexpr size_t extra_size = 256;

static char extra_text[extra_size];
static int32_t discovery_extra_ready = 0;

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
