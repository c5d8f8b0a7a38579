#include "net/device/brand.h"

#include <glib.h>

static const char *copy_of_environment(const char *variable) {
    const char *text = g_getenv(variable);
    return text != nullptr ? g_strdup(text) : "";
}

Brand brand_from_environment() {
    return {
        .manufacturer = copy_of_environment("oem_manufacter"),
        .model = copy_of_environment("oem_model"),
        .commercial_model = copy_of_environment("commercial_model"),
    };
}
