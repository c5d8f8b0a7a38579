/* variant.h - values as the data service gives them. Any thread. */
#pragma once

#include <glib.h>

/* The value inside one box, or the value itself when it is not boxed. Takes over the reference that it is given and
 * gives one back. */
inline GVariant *variant_unbox(GVariant *value) {
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) return value;
    GVariant *inner = g_variant_get_variant(value);
    g_variant_unref(value);
    return inner;
}
