/* A request is "@?family FS serial FS public-key FS id!", with FS the byte 0x1C; the answer describes the device in
 * fourteen fields and carries the shared key, wrapped with the public key that came in. The answer leaves before the
 * record is registered, so that an id that is known already is answered like any other. */
#include "net/discovery.h"

#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

#include <kesto/device.h>

#include "common/log.h"
#include "common/slot.h"
#include "crypt/pubkey.h"
#include "net/client.h"
#include "net/data_service.h"
#include "net/identity.h"
#include "net/oem_texts.h"
#include "net/server.h"

static constexpr size_t buffer_size = 8192;
static constexpr ssize_t request_shortest = 3, request_longest = buffer_size - 1;
static constexpr size_t framing_start_length = 2;  // "@?"
static constexpr char field_separator = '\x1c', end_mark = '!';
static constexpr const char *shared_key = "7D2E5A91C04BF368";
static constexpr const char *second_port_text = "61000", *no_port_text = "0";
static constexpr const char *project_info_key = "/Device/Config/PROJECT_INFO";
static constexpr size_t amplifier_name_size = 256;

static OemTexts oem;

struct Datagram {
    char text[buffer_size];
    ssize_t length;
    sockaddr_in source;
};

// What is left of a request's fields. The mark that closes the request is not part of them.
struct FieldScan {
    const char *cursor, *end;
};

static FieldScan scan_of(const char *request) {
    const char *end = request + strlen(request);
    return {request + framing_start_length, end[-1] == end_mark ? end - 1 : end};
}

// Copies the next field, which goes up to the terminator or to the end of the request.
static void scan_field(FieldScan *scan, char terminator, char (&field)[buffer_size]) {
    const auto left = static_cast<size_t>(scan->end - scan->cursor);
    const void *found = memchr(scan->cursor, terminator, left);
    const char *field_end = found != nullptr ? static_cast<const char *>(found) : scan->end;
    memset(field, 0, sizeof(field));
    memcpy(field, scan->cursor, static_cast<size_t>(field_end - scan->cursor));
    scan->cursor = found != nullptr ? field_end + 1 : scan->end;
}

static bool wrap_shared_key(Client *client) {
    client->cl_enckey = nullptr;
    if (*client->cl_pubkey == '\0') return true;
    const int encrypted = kesto_pubkey_encrypt(client->cl_pubkey, shared_key, &client->cl_enckey);
    return encrypted != -1 && client->cl_enckey != nullptr;
}

int client_process_discovery(Client *client, const char *request) {
    char field[buffer_size];
    FieldScan scan = scan_of(request);
    scan_field(&scan, field_separator, field);
    LOG("client family in discovery: %s\n", field);
    scan_field(&scan, field_separator, field);
    LOG("client serial in discovery: %s\n", field);
    scan_field(&scan, field_separator, field);
    client->cl_pubkey = g_strdup(field);
    scan_field(&scan, end_mark, field);
    client->cl_id = g_strdup(field);

    if (!wrap_shared_key(client)) {
        LOG_FAILED("kesto_pubkey_encrypt");
        LOG("[DISCOVERY] received malformed\n");
        return -1;
    }
    LOG("[DISCOVERY] received id=[%s]\n", client->cl_id);
    return 0;
}

static bool receive_datagram(int descriptor, Datagram &datagram) {
    socklen_t source_size = sizeof(datagram.source);
    datagram.length = recvfrom(descriptor, datagram.text, sizeof(datagram.text) - 1, 0,
                               reinterpret_cast<sockaddr *>(&datagram.source), &source_size);
    return datagram.length != -1;
}

static bool is_framed(Datagram &datagram) {
    const ssize_t length = datagram.length;
    if (length < request_shortest || length > request_longest) {
        LOG("[DISCOVERY] discarded... (r < 3) || (r >= BUFSIZ) (%d)\n", static_cast<int>(length));
        return false;
    }
    const char first = datagram.text[0], second = datagram.text[1], last = datagram.text[length - 1];
    if (first != '@' || second != '?' || last != end_mark) {
        LOG("[DISCOVERY] discarded... (%d %c %c %c)\n", static_cast<int>(length), first, second, last);
        return false;
    }
    datagram.text[length] = '\0';
    return true;
}

static void load_oem_texts_once() {
    if (!oem_texts_loaded(oem)) oem_texts_load(oem);
}

static void read_amplifier_name(char (&name)[amplifier_name_size]) {
    memset(name, 0, sizeof(name));
    if (getampname(name, sizeof(name)) != -1) return;
    LOG("getampname error\n");
    *name = '\0';
}

// Formats the reply into the buffer, cut to what fits. Its length.
static size_t format_reply(const AccessServer *server, const char *wrapped_key, char (&reply)[buffer_size]) {
    const DeviceIdentity &identity = server->identity;
    const bool loopback = server->loopback != 0;
    char amplifier_name[amplifier_name_size];
    load_oem_texts_once();
    read_amplifier_name(amplifier_name);
    g_autofree char *project_info = data_service_read_text(project_info_key);

    snprintf(reply, sizeof(reply),
             "@?D%s\x1c%s\x1c%s\x1cZMQ:%d\x1cZMQ:%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s\x1c%s!",
             identity.model, identity.fw_version, identity.oem_serial, loopback ? 0 : server->auth_port,
             loopback ? no_port_text : second_port_text, wrapped_key, slot_mark(), oem.manufacturer, oem.model,
             amplifier_name, identity.serial, identity.easy_swap_id, project_info != nullptr ? project_info : "",
             discovery_extra());
    LOG("[DISCOVERY] < HW_MODEL=%s FW=%s SERIAL=%s OEM_SERIAL=%s ZMQ:%d slot=%s manufacter=%s oem_model=%s ENCKEY=%s "
        "\n",
        identity.model, identity.fw_version, identity.serial, identity.oem_serial, loopback ? 0 : server->auth_port,
        slot_mark(), oem.manufacturer, oem.model, wrapped_key);
    return strlen(reply);
}

// The number of bytes sent, or -1.
static ssize_t send_reply(int descriptor, const sockaddr_in &destination, const AccessServer *server,
                          const Client *client) {
    char reply[buffer_size];
    const size_t length = format_reply(server, client->cl_enckey != nullptr ? client->cl_enckey : "", reply);
    return sendto(descriptor, reply, length, 0, reinterpret_cast<const sockaddr *>(&destination), sizeof(destination));
}

// Into the table, or dropped when the id is taken.
static void remember_client(AccessServer *server, LocalClient client) {
    const Client *known = client_lookup(server, client->cl_id);
    if (known != nullptr) {
        LOG("[DISCOVERY] client: %s already discovered and active (never logged out) (%s)\n", client->cl_id,
            known->cl_id);
        return;
    }
    const char *id = client->cl_id;
    client_insert(server, client.release());
    LOG("[DISCOVERY] added client: %s\n", id);
}

int server_discovery(zloop_t *, zmq_pollitem_t *item, void *argument) {
    auto *server = static_cast<AccessServer *>(argument);
    Datagram datagram;
    if (!receive_datagram(item->fd, datagram)) {
        LOG_FAILED("recvfrom");
        return 0;
    }
    if (!is_framed(datagram)) return 0;
    LocalClient client(client_new());
    if (!client) {
        LOG_FAILED("client_new");
        return 0;
    }
    client->cl_server = server;
    LOG("[DISCOVERY] > read %zd bytes: [%s]\n\n", datagram.length, datagram.text);
    if (client_process_discovery(client.get(), datagram.text) != 0) {
        LOG_FAILED("client_discovery_process");
        return 0;
    }
    if (server_load_identity(server) == 0) {
        LOG_FAILED("server data not available discrovery discard");
        return 0;
    }
    const ssize_t sent = send_reply(item->fd, datagram.source, server, client.get());
    if (sent == -1) {
        LOG_FAILED("sendto");
        return 0;
    }
    remember_client(server, std::move(client));
    LOG("[DISCOVERY] < written %d bytes\n", static_cast<int>(sent));
    return 0;
}
