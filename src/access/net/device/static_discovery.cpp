#include "net/device/static_discovery.h"

#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include <glib.h>

#include "common/log.h"
#include "common/slot.h"
#include "net/device/discovery_extra.h"
#include "net/device/discovery_text.h"
#include "net/device/identity.h"
#include "net/device/oem_texts.h"
#include "net/records/server.h"

static constexpr mode_t file_mode = 0644;

static char static_text[discovery_text_size];

static const char *model_suffix() {
    const char mark = *slot_mark();
    if (mark == '+') return "_P";
    return mark == 'D' ? "" : "_ND";
}

// "D", the model and a suffix; a model or a suffix that does not fit is left out.
static void build_full_model(const char *model, char (&text)[discovery_text_size]) {
    g_strlcpy(text, "D", sizeof(text));
    if (strlen(model) <= sizeof(text) - 2) g_strlcat(text, model, sizeof(text));
    if (strlen(text) + strlen(model_suffix()) < sizeof(text)) g_strlcat(text, model_suffix(), sizeof(text));
}

void write_file_once(const char *path, const char *text) {
    if (access(path, F_OK) == 0) {
        LOG("file %s already exist I not update it\n", path);
        return;
    }
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, file_mode);
    if (descriptor == -1) {
        LOG("error writing on %s\n", path);
        return;
    }
    LOG("writing on %s: '%s'\n", path, text);
    const ssize_t written = write(descriptor, text, strlen(text));
    close(descriptor);
    if (written != static_cast<ssize_t>(strlen(text))) unlink(path);  // a piece of it would stay for ever
}

static void write_files(const DeviceIdentity &identity, const OemTexts &oem, const char *commercial_model) {
    char full_model[discovery_text_size];
    build_full_model(identity.model, full_model);
    const struct {
        const char *path, *text;
    } files[] = {
        {"/tmp/discovery_serial.txt",           identity.serial    },
        {"/tmp/discovery_hw_model.txt",         identity.model     },
        {"/tmp/discovery_full_model.txt",       full_model         },
        {"/tmp/discovery_fw_version.txt",       identity.fw_version},
        {"/tmp/discovery_hw_channels.txt",      identity.channels  },
        {"/tmp/discovery_oem_manufacter.txt",   oem.manufacturer   },
        {"/tmp/discovery_oem_model.txt",        oem.model          },
        {"/tmp/discovery_oem_serial.txt",       identity.oem_serial},
        {"/tmp/discovery_commercial_model.txt", commercial_model   },
        {"/tmp/discovery_dante.txt",            slot_mark()        },
    };
    for (const auto &file : files) write_file_once(file.path, file.text);
    write_file_once("/tmp/discovery_extra.txt", discovery_extra());  // computed only now, after the others
}

static void write_text(const DeviceIdentity &identity, const OemTexts &oem) {
    const std::string_view fields[] = {
        identity.model,       // 1
        identity.fw_version,  // 2
        identity.oem_serial,  // 3
        slot_mark(),          // 4
        oem.manufacturer,     // 5
        oem.model,            // 6
        identity.serial,      // 7
        discovery_extra(),    // 8
    };
    discovery_text_write(fields, static_text);
}

void compute_static_discovery(AccessServer *server) {
    LOG("COMPUTE STATIC DISCOVERY\n");
    if (server_load_identity(server) == 0) {
        LOG("NOT POSSIBLE COMPUTE STATIC DISCOVERY\n");
        return;
    }
    static const OemTexts oem = oem_texts_from_environment();
    static const char *const commercial_model = copy_of_environment("commercial_model");
    write_files(server->identity, oem, commercial_model);
    write_text(server->identity, oem);
}

void ensure_static_discovery(AccessServer *server) {
    if (*static_text == '\0') compute_static_discovery(server);
}

const char *static_discovery_text() { return static_text; }
