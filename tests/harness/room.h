/* room.h - one gateway with one logged-in client, "panel-1", and what its tests name of the simulated device. */
#pragma once

#include <string_view>

#include "harness/gateway.h"
#include "harness/remote_client.h"

struct Room {
    Gateway gateway;
    RemoteClient panel{"panel-1"};

    explicit Room(const LoginOptions &user = {}) {
        panel.log_in(user);
        gateway.device().expect_log({"client authenticated: panel-1"});
    }

    /* That the device has got no such call since its cursor. The client must have a command socket. */
    void expect_no_call(std::string_view call = "*", Where where = Where::current()) {
        panel.read("/fence", RemoteClient::single, where);
        gateway.device().expect_no_log_before(call, "Read (uint32 8192, '/fence')", where);
    }
};
