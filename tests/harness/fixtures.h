/* fixtures.h - what many tests begin with: a gateway and a client, "panel-1". */
#pragma once

#include <string_view>

#include "harness/gateway.h"
#include "harness/remote_client.h"

struct GatewayFixture {
    Gateway gateway;
    RemoteClient panel{"panel-1"};
};

/* The client has logged in, and the device has been told. */
struct LoggedInFixture : GatewayFixture {
    explicit LoggedInFixture(const LoginOptions &user = {}) {
        panel.log_in(user);
        gateway.device().expect_log({"client authenticated: panel-1"});
    }

    /* Fails when the device has got such a call since its cursor. The client must have a command socket. */
    void expect_no_call(std::string_view call = "*", Where where = Where::current()) {
        panel.read("/fence", RemoteClient::single, where);
        gateway.device().expect_no_log_before(call, "Read (uint32 8192, '/fence')", where);
    }
};

/* What a logged-in client can do with the device's name, for tables whose rows differ in that. */
using Act = wire::Reply (*)(RemoteClient &);
inline wire::Reply read_name(RemoteClient &client) { return client.read(name_key); }
inline wire::Reply write_name(RemoteClient &client) { return client.write(name_key, "Hall"); }
inline wire::Reply lock_name(RemoteClient &client) { return client.write(name_key, "1", 0x1000); }
inline wire::Reply multi_write_name(RemoteClient &client) { return client.multi_write(Pairs(1, {name_key, "Hall"})); }
