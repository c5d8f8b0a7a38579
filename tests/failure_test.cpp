/* One call of the service fails: what the log then says, what the client gets, and that the service either ends in its
 * normal way or goes on serving everybody else. "bind:1" is the first call that the service makes of bind. */
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/gateway.h"
#include "harness/port.h"
#include "harness/remote_client.h"
#include "harness/wait.h"

/* A gateway whose service has this call fail, and a client. */
struct FailingGateway : testing::ScopedTrace, Gateway {
    RemoteClient panel{"panel-1"};

    explicit FailingGateway(const char *call, bool wait_until_up = true)
        : ScopedTrace(__FILE__, __LINE__, call),
          Gateway({.prepared_by = preparation(call), .wait_until_up = wait_until_up}) {}

    // The address sanitizer refuses to run behind another library unless it is told not to check.
    static std::string preparation(const char *call) {
        return std::string("export ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 KESTO_FAIL=") + call +
               " LD_PRELOAD=" INTERPOSER_LIBRARY;
    }
};

static void expect_service_for_others() {
    RemoteClient other("other");
    EXPECT_NE(other.log_in(), Ports{});
    EXPECT_EQ(other.read("/Device/Config/Hardware/Channels").status(), wire::STATUS_OK);
}

struct FailureCase {
    const char *call;
    Texts log;
};

// ---- the start ----------------------------------------------------------------------------------------------------

static const std::string in_start = "*kesto_access_net_start:* - ";
static const Texts nothing_yet = {}, the_loop = {"Stop s_loop poller and destroy"},
                   auth_and_loop = {"Stop auth destroy socket", "Stop s_loop poller and destroy"};

static const struct {
    const char *call;
    Texts log;       // why
    Texts teardown;  // the messages between "destroy srv" and "zsys_shutdown": of what existed by then
} fatal_cases[] = {
    {"socket:1",                {in_start + "socket udp error"},                                          nothing_yet  },
    {"fcntl:1",                 {in_start + "fcntl F_GETFL"},                                             nothing_yet  },
    {"fcntl:2",                 {in_start + "fcntl F_SETFL to set not blocking"},                         nothing_yet  },
    {"setsockopt:2",            {in_start + "setsockopt SO_REUSEADDR"},                                   nothing_yet  },
    {"bind:1",                  {in_start + "bind on udp socket"},                                        nothing_yet  },
    {"g_hash_table_new_full:1", {in_start + "error creating z hash"},                                     nothing_yet  },
    {"zsys_init:1",             {in_start + "error init default context"},                                nothing_yet  },
    {"dup:5",                   {in_start + "error init default context"},                                nothing_yet  },
    {"zloop_new:1",             {in_start + "error creating z loop"},                                     nothing_yet  },
    {"zsock_new_checked:1",     {in_start + "error creating REP socket"},                                 the_loop     },
    {"zsock_bind:1",            {"error auth socket"},                                                    auth_and_loop},
    {"zloop_poller:2",          {"[NET] auth port 60000 60000", "error creating poller for auth socket"}, auth_and_loop},
    {"zloop_timer:1",           {"[NET] auth port 60000 60000", "error creating timer"},                  auth_and_loop},
};

TEST(AStartThatCannotSucceed, EndsTheServiceInItsNormalWay) {
    for (const auto &row : fatal_cases) {
        FailingGateway gateway(row.call, false);
        gateway.expect_log(row.log);
        gateway.expect_log({"destroy srv"});
        EXPECT_EQ(gateway.service().log_until("zsys_shutdown"), row.teardown);
        gateway.expect_log({"net thread joined...", "stopped access"});
        EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    }
}

static const FailureCase tolerated_cases[] = {
    {"setsockopt:1",              {"[NET] error setting SO_LINGER on discovery"}                            },
    {"setsockopt:3",              {"setsockopt SO_BROADCAST"}                                               },
    {"zloop_poller:1",            {"error registering server_discovery"}                                    },
    {"kesto_dbus_data_read_kv:2", {"reading easyswapid", "result: 0"}                                       },
    {"kesto_dbus_data_read_kv:3", {"MODEL READ FROM DB *", "result: 0"}                                     },
    {"kesto_dbus_data_read_kv:4", {"error reading CHANNELS. it can failt will be reread later", "result: 0"}},
};

TEST(AStartWithoutSomethingInessential, Serves) {
    for (const FailureCase &row : tolerated_cases) {
        FailingGateway gateway(row.call);
        gateway.service().rewind().expect_log(row.log);
        expect_service_for_others();
    }
}

struct MethodCase {
    const char *method, *arguments, *what;
};

static constexpr MethodCase changes[] = {
    {"GeneralDispatch",             "('/k', 'v', '')", "general dispatch"              },
    {"SnapshotLoadedDispatch",      "(uint32 1,)",     "snapshot loaded dispatch"      },
    {"SpeakerPresetLoadedDispatch", "()",              "speaker preset loaded dispatch"},
};

static void expect_error(Gateway &gateway, const MethodCase &row) {
    const Answer error{"", "com.quillmont.kesto.access.Error.Failed", std::string("Failed to ") + row.what};
    EXPECT_EQ(gateway.call(row.method, g_variant_new_parsed(row.arguments)), error);
}

TEST(AStartWithoutMemory, LeavesTheMethodsAnsweringWithAnError) {
    FailingGateway gateway("g_try_malloc0:1", false);
    gateway.expect_log({"*kesto_access_start:* - g_try_new0"});
    expect_error(gateway, {"Dispatch", "(40, 1.0, 1)", "snapshot loaded dispatch"});
    for (const MethodCase &row : changes) expect_error(gateway, row);
    const char *private_data = "*:* - Unable to get presetd private data...";
    gateway.expect_log({"dbus_mtod_dispatch", private_data, private_data, private_data, private_data});
    gateway.service().send_signal(SIGTERM);
    EXPECT_EQ(gateway.service().wait_exit(), Exit{.signal = SIGTERM});
}

TEST(AMethodWithoutItsProcess, AnswersWithAnError) {
    FailingGateway gateway("g_dbus_method_invocation_get_user_data:1");
    expect_error(gateway, changes[2]);
    gateway.expect_log({"*dbus_mtod_speakerpreset_loaded_dispatch:* - Unable to get private data..."});
    EXPECT_EQ(gateway.call("SpeakerPresetLoadedDispatch"), empty_reply);
}

TEST(AServiceWithoutAQueue, RefusesEventsAndServesTheRest) {
    FailingGateway gateway("g_async_queue_new_full:1");
    EXPECT_EQ(gateway.call("Dispatch", g_variant_new("(idi)", 40, 1.0, 1)), empty_reply);
    for (const MethodCase &row : changes) expect_error(gateway, row);
    gateway.expect_log({"priv->mq == NULL"});
    expect_service_for_others();
}

TEST(AServiceWithoutABus, RefusesLoginsAndTouchesNoRecord) {
    FailingGateway gateway("g_bus_get_sync:1", false);
    gateway.expect_log({"zsys_catch_interrupts"});
    EXPECT_EQ(gateway.panel.log_in(), Ports{});
    gateway.expect_log({"dbus connection missing", "[AUTH] > zmq_msg_send"});
    EXPECT_EQ(gateway.panel.log_in(), Ports{});
    gateway.expect_log({"login known client: panel-1", "dbus connection missing"});
}

// ---- sessions -----------------------------------------------------------------------------------------------------

// Without a monitor, how many calls of zsock_resolve count as the program's does not depend on how CZMQ was compiled.
static constexpr bool plain = false, monitored = true;
static const struct {
    const char *call;
    bool monitor;
    Texts log;
} refused_logins[] = {
    {"zsock_new_checked:2", monitored, {"zsocket_new (tcp://*:62001)"}                                                    },
    {"zsock_bind:2",        monitored, {"panel-1: private cmd port on (*) 62001 -1", "error bind on port (tcp://*:62001)"}},
    {"zsock_new_checked:3", monitored, {"[AUTH] events=63001", "zsocket_new(tcp://*:63001)"}                              },
    {"zsock_bind:3",        monitored, {"*private events port on (*) 63001 -1", "error bind on port (tcp://*:63001)"}     },
    {"zloop_poller:4",      monitored, {"MONITOR", "error registering poller"}                                            },
    {"zsock_resolve:2",     plain,     {"error in zsock_resolve [*]"}                                                     },
#ifndef __SANITIZE_THREAD__
    {"mmap:4",              monitored, {"zsocket_new (tcp://*:62001)"}                                                    },
    {"mmap:5",              monitored, {"[AUTH] events=63001", "zsocket_new(tcp://*:63001)"}                              },
#endif
};

TEST(ASessionThatCannotBeOpened, IsRefusedAndLeavesNothing) {
    for (const auto &row : refused_logins) {
        FailingGateway gateway(row.call);
        EXPECT_EQ(gateway.panel.log_in({.monitor = row.monitor}), Ports{});
        gateway.expect_log(row.log);
        gateway.expect_log(
            {"[AUTH] > zmq_msg_send", "free client", "remove cl_id from list of known client", "free cl_id"});
        gateway.device().expect_log({"ClientDeauthenticated ('panel-1',)"});
        EXPECT_EQ(gateway.panel.log_in({.monitor = row.monitor}), (Ports{62002, 63002}));
    }
}

static const FailureCase unmonitored_logins[] = {
    {"zactor_new:1",     {"try to enable MONITORING", "error creating monitor port"}             },
    {"pthread_create:1", {"try to enable MONITORING", "error creating monitor port"}             },
    {"zstr_sendx:1",     {"try to enable MONITORING", "error connecting [*]"}                    },
    {"zstr_send:1",      {"try to enable MONITORING", "error starting MONITORING"}               },
    {"zactor_resolve:1", {"try to enable MONITORING", "error starting MONITORING zactor_resolve"}},
    {"zloop_poller:3",   {"try to enable MONITORING", "fail in register poller for monitor"}     },
};

TEST(AMonitorThatCannotBeStarted, LeavesASessionWithoutOne) {
    for (const FailureCase &row : unmonitored_logins) {
        FailingGateway gateway(row.call);
        EXPECT_EQ(gateway.panel.log_in({.monitor = true, .connect = false}), (Ports{62001, 63001}));
        gateway.expect_log(row.log);
        gateway.device().expect_log({"ClientAuthenticated ('panel-1',)"});  // at once: no connection was made
        expect_service_for_others();
    }
}

static const FailureCase impaired_monitors[] = {
    {"zactor_sock:1", {"cl_monitor actor does not have socket", "MONITOR", "first same connection: (panel-1) 1"}},
    {"zmsg_recv:1",   {"client monitor event 62001", "first same connection: (panel-1) 1"}                      },
    {"zmsg_popstr:1", {"client monitor event 62001", "no event!!!"}                                             },
};

TEST(AMonitorThatIsImpaired, StillSeesTheLastConnectionClose) {
    for (const FailureCase &row : impaired_monitors) {
        FailingGateway gateway(row.call);
        gateway.panel.log_in({.monitor = true});
        gateway.expect_log(row.log);
        gateway.panel.hang_up();
        gateway.expect_log({"no other command connection opened, so auto-logoff (panel-1)"});
    }
}

// In its start, and in the end of one whose client has come and gone.
TEST(AStopInTheMomentOfAMonitor, IsOrderly) {
    for (const char *call : {"zsock_bind:3:stop", "zactor_new:1:stop", "zmq_socket_monitor:2:stop"}) {
        FailingGateway gateway(call);
        gateway.panel.send(Channel::authentication, {"\n\x1a\n\apanel-1R\x0f\n\x04root\x12\x05vormi\x18\x01"});
        gateway.expect_log({"try to enable MONITORING", "[AUTH] > zmq_msg_send"});
        is_open(62001);
        EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    }
}

TEST(TheLibraries, AreToldWhatTheyCannotKnowAndEachSocketItsTimes) {
    FailingGateway gateway("tell");
    for (int i = 0; i < 2; i++) gateway.panel.log_in({.monitor = true, .connect = false});
    gateway.panel.log_out();
    gateway.service().expect_orderly_end();
    gateway.service().rewind().expect_log({"proto_init 0 *", "init_fault_dump *", "mallopt 262144 *",
                                           "zloop_poller_set_tolerant *", "zsock_new_checked *",
                                           "zsock_set_tcp_keepalive 1 *", "zsock_set_handshake_ivl 0 *",
                                           "[NET] auth port *", "zloop_timer 33 0", "[AUTH] >", "zmq_msg_recv * 1"});
    gateway.expect_log({"[AUTH] cmd=62001", "zsock_set_tcp_keepalive 1 *", "[AUTH] events=63001",
                        "zsock_set_tcp_keepalive 1 *", "try to enable MONITORING", "zsock_set_rcvtimeo 600 *",
                        "MONITOR", "zmq_poll 1 0", "* alredy exist *", "free cl_cmds", "zsock_set_linger 50 *",
                        "free cl_events", "zsock_set_linger 0 *", "free cl_username", "Stop auth destroy socket",
                        "zsock_set_linger 0 *", "Stop s_loop poller and destroy"});
}

// ---- requests -----------------------------------------------------------------------------------------------------

static constexpr Channel at_login = Channel::authentication, at_work = Channel::command;
static const struct {
    const char *call;
    Texts log;
    bool answered;  // with more than the empty frame
    Channel channel;
} requests[] = {
    {"zmq_msg_recv:1",      {"[AUTH] >", "*server_auth:* - zmq_msg_recv", "[AUTH] error encoding..."}, true,  at_login},
    {"proto_id:1",          {"*server_auth:* - invalid client id", "[AUTH] error encoding..."},        false, at_login},
    {"g_try_malloc0:2",     {"*server_auth:* - client_new", "[AUTH] error encoding..."},               false, at_login},
    {"proto_buffer:1",      {"problem in proto_encode", "[AUTH] error encoding..."},                   false, at_login},
    {"proto_buffer_size:1", {"problem in proto_encode", "[AUTH] error encoding..."},                   false, at_login},
    {"zmq_msg_send:1",      {"error zmq_msg_send", "[AUTH] error encoding..."},                        false, at_login},
    {"zmq_msg_recv:2",      {"*client_read:* - zmq_msg_recv", "[CLIENT] error encoding"},              true,  at_work },
    {"proto_buffer:2",      {"problem in proto_encode", "[CLIENT] error encoding"},                    false, at_work },
};

TEST(ARequest, GetsExactlyOneAnswerWhateverFails) {
    const std::string question = "\n\t\n\apanel-1";  // who asks, and nothing else
    for (const auto &row : requests) {
        FailingGateway gateway(row.call);
        if (row.channel == at_work) gateway.panel.log_in();
        EXPECT_EQ(!gateway.panel.exchange(row.channel, {question}).empty(), row.answered);
        gateway.expect_log(row.log);
        gateway.panel.log_in();
        EXPECT_EQ(gateway.panel.read("/Device/Config/Hardware/Channels").status(), wire::STATUS_OK);
    }
}

static const std::string name_write = "\n\035b\033\n\023/Device/Config/Name\022\004Hall";

TEST(AWriteWhoseAnswerIsLost, IsEchoedAllTheSame) {
    FailingGateway gateway("zmq_msg_send:3");  // after the answers to two logins
    gateway.panel.log_in({.discard_my_feedback = true});
    RemoteClient("listener").log_in();
    gateway.panel.send(at_work, {name_write});
    gateway.expect_log({"write ok with retval=0", "[panel-1] Broadcasting to all clients.", "broadcast to 1 client"});
}

TEST(AWriteWhoseAnswerCannotBeEncoded, DoesNotLetTheNextAnswerBeEchoed) {
    for (const char *call : {"proto_buffer:3", "proto_buffer_size:3"}) {  // after the answers to two logins
        FailingGateway gateway(call);
        gateway.panel.log_in();
        RemoteClient("listener").log_in();
        EXPECT_EQ(gateway.panel.exchange(at_work, {name_write}), "");
        gateway.expect_log({"set broadcast to other client", "problem in proto_encode", "[CLIENT] error encoding"});
        EXPECT_EQ(gateway.panel.read(name_key).value().text(), "Hall");
        gateway.panel.log_out();
        gateway.service().expect_no_log_before("* Broadcasting to all clients.", "free client");
    }
}

TEST(AWriteWithoutItsClient, ChangesNothingButTheCount) {
    for (const bool refused : {true, false}) {
        FailingGateway gateway(refused ? "proto_get_private:2" : "proto_get_private:3");
        gateway.panel.log_in();
        const wire::Reply reply = gateway.panel.write(name_key, "Hall");
        EXPECT_EQ(reply.status(), refused ? wire::STATUS_REFUSED : wire::STATUS_OK);
        EXPECT_EQ(reply.change_count(), refused ? 0u : 1u);
        gateway.panel.log_out();
        gateway.service().expect_no_log_before("set broadcast to other client", "free client");
    }
}

static rlim_t limit_descriptors(Gateway &gateway, rlim_t count) {
    rlimit limit = {};
    EXPECT_EQ(prlimit(gateway.service().pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    std::swap(limit.rlim_cur, count);
    EXPECT_EQ(prlimit(gateway.service().pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    return count;
}

TEST(AProcessAtItsDescriptorLimit, RefusesWhatNeedsOneAndRecovers) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in();
    panel.read(name_key);                                  // its connection is there
    const rlim_t enough = limit_descriptors(gateway, 10);  // fewer than are open
    EXPECT_EQ(panel.read(name_key).status(), wire::STATUS_REFUSED);
    gateway.expect_log({"unable to call method for DBUS datad proxy: no descriptor is free for the call"});
    limit_descriptors(gateway, enough);
    EXPECT_EQ(panel.read(name_key).value().text(), name_value);
}

TEST(StrangersWhoTakeAllConnections, MakeRoomForAClientAndNeverForTheLastDescriptors) {
    if (!system_counts_bytes_of_connections()) GTEST_SKIP() << "silent connections cannot be told from others here";
    for (const size_t count : {20u, 100u}) {  // so that the login is refused first, or strangers are
        Gateway gateway;
        limit_descriptors(gateway, 64);
        std::vector<int> strangers(count);
        for (int &stranger : strangers) stranger = connected_socket(SOCK_STREAM, authentication_port);
        RemoteClient panel("panel-1");
        for (const auto end = deadline(); panel.log_in() == Ports{};)
            if (Clock::now() > end) FAIL() << "no login in time";
        EXPECT_EQ(panel.read(name_key).status(), wire::STATUS_OK);
        for (const int stranger : strangers) close(stranger);
    }
}

// ---- discovery ----------------------------------------------------------------------------------------------------

static const char *const freed = "free local client no map remove";
static const FailureCase discovery_requests[] = {
    {"recvfrom:1",           {"*server_discovery:* - recvfrom"}                           },
    {"g_try_malloc0:2",      {"*server_discovery:* - client_new"}                         },
    {"g_try_malloc0:3",      {"*client_process_discovery:* - kesto_pubkey_encrypt", freed}},
    {"BIO_new_mem_buf:2",    {"Error opening KEY", "[DISCOVERY] received malformed"}      },
    {"EVP_PKEY_get1_RSA:1",  {"*server_discovery:* - client_discovery_process", freed}    },
    {"BIO_read:1",           {"Error reading input Data", freed}                          },
    {"RSA_public_encrypt:1", {"RSA operation error", freed}                               },
    {"sendto:1",             {"*server_discovery:* - sendto", freed}                      },
};

TEST(ADiscoveryRequest, ThatFailsLeavesNoRecordAndIsNotAnswered) {
    const KeyPair key;
    for (const FailureCase &row : discovery_requests) {
        FailingGateway gateway(row.call);
        Discovery discovery;
        discovery.send(discovery_request("panel-1", key.public_pem()));
        gateway.expect_log(row.log);
        EXPECT_FALSE(discovery.ask(""));
        RemoteClient("panel-1").log_in();
        gateway.expect_log({"[AUTH] added non discovered client"});
    }
}

// ---- events -------------------------------------------------------------------------------------------------------

static constexpr struct {
    const char *call, *method, *arguments, *log;
} lost_events[] = {
    {"proto_encode_alarm_event:1",         "Alarm",             "(40, 1.5, 3)",     "DBUS: broadcasting code=40,*" },
    {"proto_encode_kv:1",                  "Change",            "('/k', 'v', 't')", "DBUS: broadcasting key=/k,*"  },
    {"proto_encode_RestoreSnapshot:1",     "LoadSnapshot",      "(uint32 4,)",      "DBUS: broadcasting command: 0"},
    {"proto_encode_SpeakerPresetLoaded:1", "LoadSpeakerPreset", "()",               "DBUS: broadcasting command: 1"},
    {"proto_buffer:1",                     "Change",            "('/k', 'v', 't')", "protobuf encoding error"      },
};

TEST(AnEventThatCannotBeEncoded, IsLostAloneAndTheNextOneIsSent) {
    for (const auto &row : lost_events) {
        FailingGateway gateway(row.call);
        gateway.control(row.method, row.arguments);
        gateway.control("Alarm", "(39, 0.5, 0)");
        gateway.expect_log({row.log});
        gateway.service().expect_no_log_before("DISPACH CHANGE TO ALL CLIENTS", "DBUS: DISCARD code=39");
        gateway.control(row.method, row.arguments);
        gateway.expect_log({"DISPACH CHANGE TO ALL CLIENTS", "broadcast to 0 client"});
    }
}

// Three answers to logins come first, then what is encoded once and sent to three clients.
static const FailureCase broadcasts[] = {
    {"zmq_msg_send:5", {"[*] Message broadcast to *...", "[*] Error broadcasting to *"}  },
    {"proto_buffer:6", {"[*] Message broadcast to *...", "avoid to notify empty message"}},
};

TEST(ABroadcast, CountsOnlyTheClientsThatItReached) {
    for (const FailureCase &row : broadcasts) {
        FailingGateway gateway(row.call);
        RemoteClient first("first"), second("second"), third("third");
        for (RemoteClient *client : {&first, &second, &third}) client->log_in();
        gateway.control("LoadSnapshot", "(uint32 4,)");
        gateway.expect_log(row.log);
        gateway.expect_log({"broadcast to 2 client"});
    }
}
