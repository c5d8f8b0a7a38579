/* oem_texts.h - the OEM texts from the environment. Network thread only. */
#pragma once

/* Copies that are never released. An unset variable is the empty text. */
struct OemTexts {
    const char *manufacturer;
    const char *model;
};

/* Each user keeps the texts of its own first use, whatever the environment says later. */
OemTexts oem_texts_from_environment();

/* The same for one variable: a copy that is never released, or the empty text. */
const char *copy_of_environment(const char *variable);
