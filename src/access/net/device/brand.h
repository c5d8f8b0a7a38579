/* brand.h - what the brand on the box says, from the environment. Network thread only. */
#pragma once

/* An unset variable is the empty text. */
struct Brand {
    const char *manufacturer;
    const char *model;
    const char *commercial_model;
};

/* Copies that are never released. Each user keeps the brand of its own first use, whatever the environment says later.
 */
Brand brand_from_environment();
