#include "service_manager.h"

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

void tell_service_manager(const std::string &lines) {
    const char *path = getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    const size_t path_length = path == nullptr ? 0 : strlen(path);
    if (path_length == 0 || path_length >= sizeof(address.sun_path)) return;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, path_length);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_length);
    if (path[0] == '@') address.sun_path[0] = '\0';
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return;
    sendto(socket, lines.data(), lines.size(), MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
           length);
    close(socket);
}

static long number_in_environment(const char *name) {
    const char *text = getenv(name);
    long number = 0;
    if (text != nullptr) std::from_chars(text, text + strlen(text), number);
    return number;
}

int watchdog_interval_ms() {
    const long process = number_in_environment("WATCHDOG_PID");
    if (process != 0 && process != getpid()) return 0;
    return static_cast<int>(number_in_environment("WATCHDOG_USEC") / 1000);
}
