#include "net/device/oem_texts.h"

#include <glib.h>

const char *copy_of_environment(const char *variable) {
    const char *text = g_getenv(variable);
    return text != nullptr ? g_strdup(text) : "";
}

OemTexts oem_texts_from_environment() {
    return {.manufacturer = copy_of_environment("oem_manufacter"), .model = copy_of_environment("oem_model")};
}
