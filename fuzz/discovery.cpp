// The discovery handler with any datagram, over a real socket: received, parsed, answered, and its records released.
#include "net/discovery/discovery.h"

#include <cstring>
#include <sys/socket.h>

#include <kesto/device.h>

#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/release.h"
#include "target.h"

static constexpr size_t longest_datagram = 8191;

// These replace the libraries' functions: no bus, no pauses.
extern "C" char *kesto_dbus_data_read_kv(const char *) { return g_strdup("value"); }
extern "C" void g_usleep(gulong) {}

struct Fixture {
    AccessServer server = {};
    int asker = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);

    Fixture() {
        server.udp_fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        server.clients = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr);
        sockaddr_in address = {};  // any address, any port
        address.sin_family = AF_INET;
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        socklen_t size = sizeof(address);
        require(bind(server.udp_fd, generic, size) == 0 && getsockname(server.udp_fd, generic, &size) == 0 &&
                connect(asker, generic, size) == 0);
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static Fixture fixture;
    if (size > longest_datagram + 1 || send(fixture.asker, data, size, 0) == -1) return 0;
    zmq_pollitem_t item = {.socket = nullptr, .fd = fixture.server.udp_fd, .events = ZMQ_POLLIN, .revents = 0};
    server_discovery(nullptr, &item, &fixture.server);

    char reply[longest_datagram + 1];
    const ssize_t length = recv(fixture.asker, reply, sizeof(reply), 0);
    const bool answered = length > 0;
    require(!answered || (memcmp(reply, "@?D", 3) == 0 && reply[length - 1] == '!'));
    require(answered == (g_hash_table_size(fixture.server.clients) == 1));
    g_hash_table_foreach_remove(fixture.server.clients, client_free_callback, nullptr);
    return 0;
}
