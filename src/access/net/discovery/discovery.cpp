/* A request is "@?family FS serial FS public-key FS id!", with FS the byte 0x1C; the answer describes the device in
 * fourteen fields and carries the shared key, wrapped with the public key that came in. The answer leaves before the
 * record is registered, so that an id that is known already is answered like any other. */
#include "net/discovery/discovery.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <utility>

#include <kesto/device.h>

#include "common/log.h"
#include "common/slot.h"
#include "crypt/pubkey.h"
#include "net/device/data_key.h"
#include "net/device/discovery_extra.h"
#include "net/device/discovery_text.h"
#include "net/device/identity.h"
#include "net/device/oem_texts.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/release.h"

static constexpr size_t buffer_size = 8192;
static constexpr ssize_t request_shortest = 3, request_longest = buffer_size - 1;
static constexpr const char *shared_key = "7D2E5A91C04BF368";
static constexpr const char *second_port = "61000", *second_port_loopback = "0";
static const std::string port_field_start = "ZMQ:";
static constexpr const char *project_info_key = "/Device/Config/PROJECT_INFO";
static constexpr size_t amplifier_name_size = 256;

struct Datagram {
    char text[buffer_size];
    ssize_t length;
    sockaddr_in source;
};

// What stands between the framing marks. A request that a NUL byte has cut lacks its end mark.
static std::string_view fields_of(std::string_view request) {
    if (request.ends_with(end_mark)) request.remove_suffix(1);
    request.remove_prefix(framing_start.size());
    return request;
}

// Takes the next field, which goes up to the terminator or to the end of the request, from what is left.
static std::string_view take_field(std::string_view &left, char terminator) {
    const std::string_view field = left.substr(0, left.find(terminator));
    left.remove_prefix(std::min(field.size() + 1, left.size()));
    return field;
}

// A device answers with the same marks as a client asks. Two that answered each other's answers would never stop.
static bool is_device_answer(std::string_view request) {
    std::string_view left = fields_of(request);
    if (!take_field(left, field_separator).starts_with('D')) return false;
    take_field(left, field_separator);
    take_field(left, field_separator);
    return left.starts_with(port_field_start);
}

static char *copy_of(std::string_view field) { return g_strndup(field.data(), field.size()); }

static bool wrap_shared_key(Client *client) {
    client->cl_enckey = nullptr;
    if (*client->cl_pubkey == '\0') return true;
    const int encrypted = kesto_pubkey_encrypt(client->cl_pubkey, shared_key, &client->cl_enckey);
    return encrypted != -1 && client->cl_enckey != nullptr;
}

int client_process_discovery(Client *client, std::string_view request) {
    std::string_view left = fields_of(request);
    const std::string_view family = take_field(left, field_separator);
    LOG("client family in discovery: %s\n", std::string(family).c_str());
    const std::string_view serial = take_field(left, field_separator);
    LOG("client serial in discovery: %s\n", std::string(serial).c_str());
    client->cl_pubkey = copy_of(take_field(left, field_separator));
    client->cl_id = copy_of(take_field(left, end_mark));

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
    const std::string_view text(datagram.text, static_cast<size_t>(length));
    if (!text.starts_with(framing_start) || last != end_mark || is_device_answer(text)) {
        LOG("[DISCOVERY] discarded... (%d %c %c %c)\n", static_cast<int>(length), first, second, last);
        return false;
    }
    datagram.text[length] = '\0';
    return true;
}

static void read_amplifier_name(char (&name)[amplifier_name_size]) {
    memset(name, 0, sizeof(name));
    if (getampname(name, sizeof(name)) != -1) return;
    LOG("getampname error\n");
    *name = '\0';
}

static void log_reply(const DeviceIdentity &identity, const OemTexts &oem, int32_t login_port,
                      const char *wrapped_key) {
    LOG("[DISCOVERY] < HW_MODEL=%s FW=%s SERIAL=%s OEM_SERIAL=%s ZMQ:%d slot=%s manufacter=%s oem_model=%s ENCKEY=%s "
        "\n",
        identity.model, identity.fw_version, identity.serial, identity.oem_serial, login_port, slot_mark(),
        oem.manufacturer, oem.model, wrapped_key);
}

// Its length; a reply that is too long is cut.
static size_t write_reply(const AccessServer *server, const char *wrapped_key, char (&reply)[discovery_text_size]) {
    static const OemTexts oem = oem_texts_from_environment();
    const DeviceIdentity &identity = server->identity;
    const bool loopback = server->loopback != 0;
    const int32_t login_port = loopback ? 0 : server->auth_port;
    const std::string login_port_field = port_field_start + std::to_string(login_port);
    const std::string second_port_field = port_field_start + (loopback ? second_port_loopback : second_port);
    char amplifier_name[amplifier_name_size];
    read_amplifier_name(amplifier_name);
    g_autofree char *project_info = data_key_read(project_info_key);

    const std::string_view fields[] = {
        identity.model,                               // 1
        identity.fw_version,                          // 2
        identity.oem_serial,                          // 3
        login_port_field,                             // 4
        second_port_field,                            // 5
        wrapped_key,                                  // 6
        slot_mark(),                                  // 7
        oem.manufacturer,                             // 8
        oem.model,                                    // 9
        amplifier_name,                               // 10
        identity.serial,                              // 11
        identity.easy_swap_id,                        // 12
        project_info != nullptr ? project_info : "",  // 13
        discovery_extra(),                            // 14
    };
    const size_t length = discovery_text_write(fields, reply);
    log_reply(identity, oem, login_port, wrapped_key);
    return length;
}

// The number of bytes sent, or -1.
static ssize_t send_reply(int descriptor, const sockaddr_in &destination, const AccessServer *server,
                          const Client *client) {
    char reply[discovery_text_size];
    const size_t length = write_reply(server, client->cl_enckey != nullptr ? client->cl_enckey : "", reply);
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
