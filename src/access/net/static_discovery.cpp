#include "net/static_discovery.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <glib.h>

#include "common/log.h"
#include "common/slot.h"
#include "net/identity.h"
#include "net/oem_texts.h"
#include "net/server.h"

static constexpr size_t text_size = 8192;
static constexpr mode_t file_mode = 0644;

static char discovery_text[text_size];
static OemTexts oem;
static const char *commercial_model;

static void read_environment_once() {
    if (oem_texts_loaded(oem)) return;
    oem_texts_load(oem);
    commercial_model = copy_of_environment("commercial_model");
}

static const char *model_suffix() {
    const char mark = *slot_mark();
    if (mark == '+') return "_P";
    return mark == 'D' ? "" : "_ND";
}

// "D", the model and a suffix; a model or a suffix that does not fit is left out.
static void build_full_model(const char *model, char (&text)[text_size]) {
    memset(text, 0, sizeof(text));
    text[0] = 'D';
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

static void write_files(const DeviceIdentity &identity) {
    char full_model[text_size];
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

static void format_text(const DeviceIdentity &identity) {
    snprintf(discovery_text, sizeof(discovery_text), "@?D%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s!", identity.model,
             identity.fw_version, identity.oem_serial, slot_mark(), oem.manufacturer, oem.model, identity.serial,
             discovery_extra());
    discovery_text[sizeof(discovery_text) - 1] = '\0';
}

void compute_static_discovery(AccessServer *server) {
    LOG("COMPUTE STATIC DISCOVERY\n");
    if (server_load_identity(server) == 0) {
        LOG("NOT POSSIBLE COMPUTE STATIC DISCOVERY\n");
        return;
    }
    read_environment_once();
    write_files(server->identity);
    format_text(server->identity);
}

void ensure_static_discovery(AccessServer *server) {
    if (*discovery_text == '\0') compute_static_discovery(server);
}

const char *static_discovery_text() { return discovery_text; }
