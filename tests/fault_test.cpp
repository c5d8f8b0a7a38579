// What a client sees when the device's services fail, hang, die or are not there, and that nobody else's session
// suffers.
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/room.h"

namespace {

using namespace std::chrono_literals;
constexpr auto late = 300ms;

using Texts = std::vector<std::string>;
using Act = wire::Reply (*)(RemoteClient &);

wire::Reply read_name(RemoteClient &client) { return client.read(name_key); }
wire::Reply write_name(RemoteClient &client) { return client.write(name_key, "Hall"); }
wire::Reply lock_name(RemoteClient &client) { return client.write(name_key, "1", 0x1000); }
wire::Reply multi_write_name(RemoteClient &client) {
    return client.multi_write({
        {name_key, "Hall"}
    });
}

// "panel-1" meets the fault; "panel-2" has a session beside it and hears its events.
struct Hall : Room {
    RemoteClient bystander{"panel-2"};

    Hall() {
        bystander.log_in();
        bystander.subscribe(gateway);
    }
    void set_fault(const std::string &fault) { gateway.control("Fault", ("('" + fault + "',)").c_str()); }
    void set_late(const char *method) {
        set_fault(std::string(method) + ':' + name_key + "=late:" + std::to_string(late.count()));
    }
    void expect_all_is_well() {
        EXPECT_EQ(panel.write(name_key, name_value).status(), wire::STATUS_OK);
        EXPECT_EQ(bystander.next_event().reply().write().value(), name_value);
        EXPECT_EQ(bystander.read(name_key).value().text(), name_value);
        EXPECT_TRUE(bystander.events_so_far(gateway).empty());
    }
};

struct FaultCase {
    const char *fault;
    Act act;
    wire::Status status;
    const char *answer;  // what it holds, see `shown`
    const char *log;
};

constexpr const char *no_read = "unable to call method for DBUS datad proxy: *Error.Failed: simulated fault";
constexpr const char *no_write = "DBUS datad Write method error ('/Device/Config/Name'<-'*'): *simulated fault";
constexpr const char *no_multi_write = "DBUS datad Write method error: *Error.Failed: simulated fault (panel-1)";
constexpr auto ok = wire::STATUS_OK, refused = wire::STATUS_REFUSED;

const FaultCase faults[] = {
    {"read=error",        read_name,        refused, "nothing",    no_read                       },
    {"read=type",         read_name,        ok,      "value i: 7", ""                            },
    {"read=empty",        read_name,        refused, "nothing",    ""                            },
    {"write=error",       write_name,       refused, "result -1",  no_write                      },
    {"write=error",       lock_name,        refused, "result -1",  no_write                      },
    {"write=type",        write_name,       ok,      "result 0",   "write ok with retval=0"      },
    {"write=empty",       write_name,       ok,      "result 0",   "write ok with retval=0"      },
    {"write=refuse",      write_name,       refused, "result -5",  "write ok with retval=-5"     },
    {"write=refuse",      lock_name,        ok,      "result 0",   "write ok with retval=0"      },
    {"multi-write=error", multi_write_name, refused, "0 results",  no_multi_write                },
    {"multi-write=type",  multi_write_name, ok,      "0 results",  "multiwrite autorize all keys"},
    {"multi-write=empty", multi_write_name, ok,      "0 results",  "multiwrite autorize all keys"},
};

std::string shown(const wire::Reply &reply) {
    if (reply.has_value()) return "value " + reply.value().signature() + ": " + reply.value().text();
    if (reply.has_write()) return "result " + std::to_string(reply.write().result());
    if (reply.has_multi_write()) return std::to_string(reply.multi_write().results_size()) + " results";
    return "nothing";
}

TEST(Fault, IsSaidInTheAnswerAndHurtsNobodyElse) {
    Hall hall;
    for (const FaultCase &row : faults) {
        SCOPED_TRACE(row.fault);
        hall.set_fault(row.fault);
        const wire::Reply reply = row.act(hall.panel);
        EXPECT_EQ(reply.status(), row.status);
        EXPECT_EQ(shown(reply), row.answer);
        if (*row.log != '\0') hall.gateway.expect_log({row.log});
        const std::string method(row.fault, std::string_view(row.fault).find('='));
        hall.set_fault(method + "=none");
        hall.bystander.events_so_far(hall.gateway);
        hall.expect_all_is_well();
    }
}

struct LateCase {
    const char *method, *call;
    Act act;
};
constexpr LateCase late_calls[] = {
    {"read",        "Read (uint32 8192, '/Device/Config/Name')",          read_name       },
    {"write",       "Write (0, '/Device/Config/Name', 'Hall')",           write_name      },
    {"multi-write", "MultiWrite ([(1, '/Device/Config/Name', 'Hall')],)", multi_write_name},
};
// One thread serves everybody, so that others wait, and then get all that is theirs.
TEST(LateAnswer, LetsTheOthersWaitAndLosesNothing) {
    Hall hall;
    for (const LateCase &row : late_calls) {
        SCOPED_TRACE(row.method);
        hall.set_late(row.method);
        const auto start = Clock::now();
        auto answer = std::async(std::launch::async, row.act, std::ref(hall.panel));
        hall.gateway.device().expect_log({row.call});
        for (const char *key : {"/a", "/b"})
            EXPECT_EQ(hall.gateway.call("GeneralDispatch", g_variant_new("(sss)", key, "", "")), empty_reply);
        RemoteClient newcomer("panel-3");
        newcomer.log_in();
        EXPECT_GE(Clock::now() - start, late);
        EXPECT_EQ(answer.get().status(), wire::STATUS_OK);

        Texts heard;
        for (const wire::Message &message : hall.bystander.events_so_far(hall.gateway))
            heard.push_back(message.has_event() ? message.event().change().key() : "echo");
        EXPECT_EQ(heard, row.act == read_name ? (Texts{"/a", "/b"}) : (Texts{"echo", "/a", "/b"}));
        newcomer.log_out();
        hall.set_fault(std::string(row.method) + "=none");
        hall.expect_all_is_well();
    }
}

TEST(NoAnswer, IsGivenUpAfterTheBusTimeout) {
    constexpr auto bus_timeout = 25s;  // GDBus's own
    Hall hall;
    hall.set_fault("read=never");
    const auto start = Clock::now();
    auto answer = std::async(std::launch::async, read_name, std::ref(hall.panel));
    hall.gateway.device().expect_log({"Read (uint32 8192, '/Device/Config/Name')"});
    hall.gateway.call("SnapshotLoadedDispatch", g_variant_new("(u)", 5));
    EXPECT_EQ(answer.get().status(), wire::STATUS_REFUSED);
    EXPECT_GE(Clock::now() - start, bus_timeout);
    hall.gateway.expect_log({"unable to call method for DBUS datad proxy: *imeout was reached"});
    EXPECT_EQ(hall.bystander.next_event().event().snapshot_loaded().slot(), 5U);
    hall.set_fault("read=none");
    hall.expect_all_is_well();
}

struct DeathCase {
    const char *fault;
    Act act;
};
constexpr const char *died = "*Error.NoReply: *", *not_there = "*Error.ServiceUnknown: *";
constexpr DeathCase deaths[] = {
    {"read=die",        read_name       },
    {"write=die",       write_name      },
    {"multi-write=die", multi_write_name},
};

TEST(DeadDevice, IsReportedUntilItIsBack) {
    constexpr Exit device_fault = {.status = 70};
    Hall hall;
    for (const DeathCase &row : deaths) {
        SCOPED_TRACE(row.fault);
        hall.set_fault(row.fault);
        EXPECT_EQ(row.act(hall.panel).status(), wire::STATUS_REFUSED);
        hall.gateway.expect_log({died});
        EXPECT_EQ(hall.gateway.device().wait_exit(), device_fault);

        for (const Act act : {read_name, write_name, lock_name, multi_write_name}) {
            EXPECT_EQ(act(hall.panel).status(), wire::STATUS_REFUSED);
            hall.gateway.expect_log({not_there});
        }
        EXPECT_TRUE(hall.bystander.events_so_far(hall.gateway).empty());
        RemoteClient newcomer("panel-3");
        EXPECT_NE(newcomer.log_in(), (Ports{}));
        EXPECT_EQ(newcomer.log_out().status(), wire::STATUS_OK);

        hall.gateway.start_device();
        hall.expect_all_is_well();
    }
}

TEST(LostBus, EndsTheServiceOrderlyWithSessionsOpen) {
    constexpr Exit device_without_bus = {.status = 69};
    Hall hall;
    RemoteClient watched("panel-3");
    watched.log_in({.monitor = true});
    read_name(watched);
    hall.gateway.service().rewind();
    hall.gateway.bus().end();
    hall.gateway.expect_log({"request to stop", "end zmq mainloop: -1", "destroy srv", "stop timer",
                             "Stop auth destroy socket", "client_free_callback", "free cl_id", "client_free_callback",
                             "free cl_id", "client_free_callback", "free cl_id", "Stop s_loop poller and destroy",
                             "zsys_shutdown", "zmq thread down", "net thread joined...", "stopped access"});
    EXPECT_EQ(hall.gateway.service().wait_exit(), Exit{});
    EXPECT_EQ(hall.gateway.device().wait_exit(), device_without_bus);
}

// The call is waited for, and what it gave still gets out.
TEST(Stop, WaitsForTheCallThatIsUnderWay) {
    for (const LateCase &row : late_calls) {
        SCOPED_TRACE(row.method);
        Hall hall;
        hall.set_late(row.method);
        auto answer = std::async(std::launch::async, row.act, std::ref(hall.panel));
        hall.gateway.device().expect_log({row.call});
        hall.gateway.service().send_signal(SIGTERM);
        EXPECT_EQ(answer.get().status(), wire::STATUS_OK);
        hall.gateway.expect_log({"end zmq mainloop: 0", "destroy srv", "stopped access"});
        EXPECT_EQ(hall.gateway.service().wait_exit(), Exit{});
    }
}

}  // namespace
