// Faults of the device's services, which answer with errors, late or never, or die: what a client sees of them, and
// that no other session suffers.
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/fixtures.h"

using namespace std::chrono_literals;

// "panel-1" meets the fault; "panel-2" has a session beside it and hears its events.
struct Fault : testing::Test, LoggedInFixture {
    RemoteClient bystander{"panel-2"};

    Fault() {
        bystander.log_in();
        bystander.subscribe(gateway);
    }
    void expect_recovery(const std::string &fault) {
        gateway.set_fault(fault.substr(0, fault.find('=')) + "=none");
        bystander.events_so_far(gateway);
        EXPECT_EQ(panel.write(name_key, name_value).status(), wire::STATUS_OK);
        EXPECT_EQ(bystander.next_event().reply().write().value(), name_value);
        EXPECT_EQ(bystander.read(name_key).value().text(), name_value);
    }
};

static constexpr const char *read_failed = "unable to call method for DBUS datad proxy: *Error.Failed: simulated fault";
static constexpr const char *write_failed =
    "DBUS datad Write method error ('/Device/Config/Name'<-'*'): *simulated fault";
static constexpr const char *multi_write_failed =
    "DBUS datad Write method error: *Error.Failed: simulated fault (panel-1)";

static constexpr struct {
    const char *fault;
    Act act;
    bool ok;
    const char *answer, *log;  // the value of a read, else the result of a write
    size_t echoes;
} faults[] = {
    {"read=error",        read_name,        false, "0",  read_failed,                    0},
    {"read=type",         read_name,        true,  "7",  "*",                            0},
    {"read=empty",        read_name,        false, "0",  "*",                            0},
    {"write=error",       write_name,       false, "-1", write_failed,                   0},
    {"write=type",        write_name,       true,  "0",  "write ok with retval=0",       1},
    {"write=refuse",      write_name,       false, "-5", "write ok with retval=-5",      1},
    {"write=refuse",      lock_name,        true,  "0",  "write ok with retval=0",       1},
    {"multi-write=error", multi_write_name, false, "0",  multi_write_failed,             0},
    {"multi-write=type",  multi_write_name, true,  "0",  "multiwrite autorize all keys", 1},
};

TEST_F(Fault, IsSaidInTheAnswerAndHurtsNobodyElse) {
    for (const auto &row : faults) {
        SCOPED_TRACE(row.fault);
        gateway.set_fault(row.fault);
        const wire::Reply reply = row.act(panel);
        EXPECT_EQ(reply.status(), row.ok ? wire::STATUS_OK : wire::STATUS_REFUSED);
        EXPECT_EQ(reply.has_value() ? reply.value().text() : std::to_string(reply.write().result()), row.answer);
        EXPECT_EQ(reply.multi_write().results_size(), 0);
        EXPECT_EQ(bystander.events_so_far(gateway).size(), row.echoes);
        gateway.expect_log({row.log});
        Discovery().find("panel-3");  // reads as well
        expect_recovery(row.fault);
    }
}

struct CallCase {
    std::string method;
    const char *call;
    Act act;
};
static const CallCase calls[] = {
    {"read",        "Read (uint32 8192, '/Device/Config/Name')",          read_name       },
    {"write",       "Write (0, '/Device/Config/Name', 'Hall')",           write_name      },
    {"multi-write", "MultiWrite ([(1, '/Device/Config/Name', 'Hall')],)", multi_write_name},
};

// One thread serves all clients: the others wait, and then get all events and answers that are theirs.
TEST_F(Fault, OfALateAnswerLetsTheOthersWaitAndLosesNothing) {
    for (const CallCase &row : calls) {
        SCOPED_TRACE(row.method);
        gateway.set_fault(row.method + "=late:300");
        auto answer = std::async(std::launch::async, row.act, std::ref(panel));
        gateway.device().expect_log({row.call});
        EXPECT_EQ(gateway.call("GeneralDispatch", g_variant_new("(sss)", "/a", "", "")), empty_reply);
        bystander.write("", "");  // asks the device nothing
        EXPECT_EQ(answer.get().status(), wire::STATUS_OK);

        EXPECT_TRUE(row.act == read_name || bystander.next_event().has_reply());
        EXPECT_EQ(bystander.next_event().event().change().key(), "/a");
        expect_recovery(row.method);
    }
}

TEST_F(Fault, WithoutAnAnswerIsGivenUpAfterTheBusTimeout) {
    gateway.set_fault("read=never");
    const auto start = Clock::now();
    auto answer = std::async(std::launch::async, read_name, std::ref(panel));
    gateway.device().expect_log({"Read (uint32 8192, '/Device/Config/Name')"});
    gateway.call("SnapshotLoadedDispatch", g_variant_new("(u)", 5));
    EXPECT_EQ(answer.get().status(), wire::STATUS_REFUSED);
    EXPECT_GE(Clock::now() - start, 25s);  // GDBus's own timeout
    gateway.expect_log({"unable to call method for DBUS datad proxy: *imeout was reached"});
    EXPECT_EQ(bystander.next_event().event().snapshot_loaded().slot(), 5U);
}

TEST_F(Fault, OfADeadDeviceIsReportedUntilItIsBack) {
    for (const CallCase &row : calls) {
        SCOPED_TRACE(row.method);
        gateway.set_fault(row.method + "=die");
        EXPECT_EQ(row.act(panel).status(), wire::STATUS_REFUSED);
        gateway.expect_log({"*Error.NoReply: *"});
        EXPECT_EQ(gateway.device().wait_exit(), Exit{.status = 70});

        for (const Act act : {read_name, write_name, lock_name, multi_write_name}) {
            EXPECT_EQ(act(panel).status(), wire::STATUS_REFUSED);
            gateway.expect_log({"*Error.ServiceUnknown: *"});
        }
        EXPECT_TRUE(bystander.events_so_far(gateway).empty());
        gateway.start_device();
        expect_recovery(row.method);
    }
}

TEST_F(Fault, OfTheBusEndsTheServiceOrderlyWithSessionsOpen) {
    gateway.bus().end();
    gateway.expect_log({"request to stop", "end zmq mainloop: -1", "destroy srv", "client_free_callback", "free cl_id",
                        "client_free_callback", "free cl_id", "zsys_shutdown", "stopped access"});
    EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    EXPECT_EQ(gateway.device().wait_exit(), Exit{.status = 69});
}

// The service waits for the call, and its client still gets the answer.
TEST_F(Fault, LetsAStopWaitForTheCallThatIsUnderWay) {
    gateway.set_fault("write=late:300");
    auto answer = std::async(std::launch::async, write_name, std::ref(panel));
    gateway.device().expect_log({"Write (0, '/Device/Config/Name', 'Hall')"});
    gateway.service().send_signal(SIGTERM);
    EXPECT_EQ(answer.get().status(), wire::STATUS_OK);
    gateway.expect_log({"end zmq mainloop: 0", "destroy srv", "stopped access"});
}

// Four keys are asked for, one after the other: in the start, or for a discovery request after a start without device.
TEST(StopWhileTheIdentityIsRead, WaitsForOneCallOnly) {
    for (const auto &[in_the_start, signal] : {
             std::pair(true, SIGTERM), {true,  SIGINT },
               {false, SIGTERM}
    }) {
        SCOPED_TRACE(signal);
        Gateway gateway({.with_device = false, .with_service = !in_the_start, .wait_until_up = !in_the_start});
        gateway.start_device();
        gateway.set_fault("read=late:1000");
        if (in_the_start) gateway.start_service();
        else Discovery().send(discovery_request("panel-1"));
        gateway.device().expect_log({"Read (uint32 8192, *"});
        gateway.service().send_signal(signal);
        gateway.expect_log({"end zmq mainloop: 0", "stopped access"});
        const std::string trace = gateway.device().text(STDOUT_FILENO);
        EXPECT_EQ(trace.find("Read ("), trace.rfind("Read (")) << trace;
    }
}
