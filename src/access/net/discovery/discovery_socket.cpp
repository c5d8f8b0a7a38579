#include "net/discovery/discovery_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/log.h"
#include "net/records/server.h"

static constexpr int linger_s = 3;

static bool enable_option(const AccessServer *server, int option) {
    const int on = 1;
    return setsockopt(server->udp_fd, SOL_SOCKET, option, &on, sizeof(on)) != -1;
}

static void set_linger(const AccessServer *server) {
    const linger option = {.l_onoff = 1, .l_linger = linger_s};
    if (setsockopt(server->udp_fd, SOL_SOCKET, SO_LINGER, &option, sizeof(option)) == -1) {
        LOG("[NET] error setting SO_LINGER on discovery\n");
    }
}

bool discovery_socket_create(AccessServer *server) {
    server->udp_fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (server->udp_fd == -1) return false;
    set_linger(server);
    return true;
}

bool discovery_socket_read_flags(const AccessServer *server, int *flags) {
    *flags = fcntl(server->udp_fd, F_GETFL);
    return *flags != -1;
}

bool discovery_socket_set_nonblocking(const AccessServer *server, int flags) {
    return fcntl(server->udp_fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

bool discovery_socket_share_port(const AccessServer *server) { return enable_option(server, SO_REUSEADDR); }

bool discovery_socket_bind(const AccessServer *server) {
    if (!enable_option(server, SO_BROADCAST)) LOG("setsockopt SO_BROADCAST\n");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(server->udp_port));
    return bind(server->udp_fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != -1;
}

void discovery_socket_close(AccessServer *server) {
    if (server->udp_fd == -1) return;
    close(server->udp_fd);
    server->udp_fd = -1;
}
