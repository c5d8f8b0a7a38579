/* oem_texts.h - what the brand on the box says, from the environment. Read once, then fixed as long as the process
 * lives; an unset variable is the empty text. The replies and the files each keep a set of their own, as each is read
 * at its own first use. Network thread only. */
#ifndef ACCESS_NET_OEM_TEXTS_H
#define ACCESS_NET_OEM_TEXTS_H

#include <glib.h>

struct OemTexts {
    const char *manufacturer;
    const char *model;
};

/* A copy that is never released. */
inline const char *copy_of_environment(const char *variable) {
    const char *text = g_getenv(variable);
    return text != nullptr ? g_strdup(text) : "";
}

inline bool oem_texts_loaded(const OemTexts &oem) { return oem.manufacturer != nullptr; }

inline void oem_texts_load(OemTexts &oem) {
    oem = {.manufacturer = copy_of_environment("oem_manufacter"), .model = copy_of_environment("oem_model")};
}

#endif
