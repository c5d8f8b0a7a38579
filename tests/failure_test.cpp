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

static GatewayOptions failing(const char *call, bool wait_until_up = true) {
    const char *asan_options = getenv("ASAN_OPTIONS");
    Environment environment = {};
    environment["LD_PRELOAD"] = INTERPOSER_LIBRARY;
    environment["KESTO_FAIL"] = call;
    // The address sanitizer refuses to run behind another library unless it is told not to check.
    environment["ASAN_OPTIONS"] =
        std::string(asan_options != nullptr ? asan_options : "") + ":verify_asan_link_order=0";
    return {.environment = environment, .wait_until_up = wait_until_up};
}

static void expect_texts(Gateway &gateway, const Texts &texts) {
    for (const std::string &text : texts) gateway.expect_log({text});
}

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

struct FatalCase {
    const char *call;
    Texts log;       // why
    Texts teardown;  // the messages between "destroy srv" and "zsys_shutdown": of what existed by then
};

static const std::string in_start = "*kesto_access_net_start:* - ";
static const Texts nothing_yet = {}, the_loop = {"Stop s_loop poller and destroy"},
                   auth_and_loop = {"Stop auth destroy socket", "Stop s_loop poller and destroy"};

static const FatalCase fatal_cases[] = {
    {"socket:1",                {in_start + "socket udp error"},                                          nothing_yet  },
    {"fcntl:1",                 {in_start + "fcntl F_GETFL"},                                             nothing_yet  },
    {"fcntl:2",                 {in_start + "fcntl F_SETFL to set not blocking"},                         nothing_yet  },
    {"setsockopt:2",            {in_start + "setsockopt SO_REUSEADDR"},                                   nothing_yet  },
    {"g_hash_table_new_full:1", {in_start + "error creating z hash"},                                     nothing_yet  },
    {"zsys_init:1",             {in_start + "error init default context"},                                nothing_yet  },
    {"dup:5",                   {in_start + "error init default context"},                                nothing_yet  },
    {"zloop_new:1",             {in_start + "error creating z loop"},                                     nothing_yet  },
    {"zsock_new_checked:1",     {in_start + "error creating REP socket"},                                 the_loop     },
    {"zloop_poller:2",          {"[NET] auth port 60000 60000", "error creating poller for auth socket"}, auth_and_loop},
    {"zloop_timer:1",           {"[NET] auth port 60000 60000", "error creating timer"},                  auth_and_loop},
};

TEST(AStartThatCannotSucceed, EndsTheServiceInItsNormalWay) {
    for (const FatalCase &row : fatal_cases) {
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call, false));
        expect_texts(gateway, row.log);
        gateway.expect_log({"destroy srv"});
        EXPECT_EQ(gateway.service().log_until("zsys_shutdown"), row.teardown);
        gateway.expect_log({"net thread joined...", "stopped access"});
        EXPECT_EQ(gateway.service().wait_exit(), Exit{.status = 0});
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
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        gateway.service().rewind();
        expect_texts(gateway, row.log);
        expect_service_for_others();
    }
}

TEST(AStart, TellsTheLibrariesWhatTheyCannotKnow) {
    Gateway gateway(failing("tell"));
    RemoteClient("panel-1").log_in();
    gateway.service().send_signal(SIGTERM);
    EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    gateway.service().rewind();
    gateway.expect_log({"proto_init 0 *", "init_fault_dump *", "mallopt 262144 *", "zloop_poller_set_tolerant *",
                        "zsock_new_checked *", "zsock_set_handshake_ivl 0 *", "zloop_timer 33 0", "[AUTH] >",
                        "zmq_msg_recv * 1"});
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
    Gateway gateway(failing("g_try_malloc0:1", false));
    gateway.expect_log({"*kesto_access_start:* - g_try_new0"});
    expect_error(gateway, {"Dispatch", "(40, 1.0, 1)", "snapshot loaded dispatch"});
    for (const MethodCase &row : changes) expect_error(gateway, row);
    const char *private_data = "*:* - Unable to get presetd private data...";
    gateway.expect_log({"dbus_mtod_dispatch", private_data, private_data, private_data, private_data});
    gateway.service().send_signal(SIGTERM);
    EXPECT_EQ(gateway.service().wait_exit(), Exit{.signal = SIGTERM});
}

TEST(AMethodWithoutItsProcess, AnswersWithAnError) {
    Gateway gateway(failing("g_dbus_method_invocation_get_user_data:1"));
    expect_error(gateway, changes[2]);
    gateway.expect_log({"*dbus_mtod_speakerpreset_loaded_dispatch:* - Unable to get private data..."});
    EXPECT_EQ(gateway.call("SpeakerPresetLoadedDispatch"), empty_reply);
}

TEST(AServiceWithoutAQueue, RefusesEventsAndServesTheRest) {
    Gateway gateway(failing("g_async_queue_new_full:1"));
    EXPECT_EQ(gateway.call("Dispatch", g_variant_new("(idi)", 40, 1.0, 1)), empty_reply);
    for (const MethodCase &row : changes) expect_error(gateway, row);
    gateway.expect_log({"priv->mq == NULL"});
    expect_service_for_others();
}

TEST(AServiceWithoutABus, RefusesLoginsAndTouchesNoRecord) {
    Gateway gateway(failing("g_bus_get_sync:1", false));
    RemoteClient panel("panel-1");
    gateway.expect_log({"zsys_catch_interrupts"});
    EXPECT_EQ(panel.log_in(), Ports{});
    gateway.expect_log({"dbus connection missing", "[AUTH] > zmq_msg_send"});
    EXPECT_EQ(panel.log_in(), Ports{});
    gateway.expect_log({"login known client: panel-1", "dbus connection missing"});
}

// ---- sessions -----------------------------------------------------------------------------------------------------

static const FailureCase refused_logins[] = {
    {"zsock_new_checked:2", {"zsocket_new (tcp://*:62001)"}                                                       },
    {"zsock_bind:2",        {"panel-1: private cmd port on (*) 62001 -1", "error bind on port (tcp://*:62001)"}   },
    {"zsock_new_checked:3", {"[AUTH] events=63001", "zsocket_new(tcp://*:63001)"}                                 },
    {"zsock_bind:3",        {"panel-1: private events port on (*) 63001 -1", "error bind on port (tcp://*:63001)"}},
    {"zloop_poller:4",      {"MONITOR", "error registering poller"}                                               },
#ifndef __SANITIZE_THREAD__
    {"mmap:4",              {"zsocket_new (tcp://*:62001)"}                                                       },
    {"mmap:5",              {"[AUTH] events=63001", "zsocket_new(tcp://*:63001)"}                                 },
#endif
};

// With a monitor, how many of these calls count as the program's depends on how CZMQ was compiled.
static const FailureCase refused_login_without_monitor = {"zsock_resolve:2", {"error in zsock_resolve [*]"}};

static void expect_refused_login(const FailureCase &row, bool monitor) {
    SCOPED_TRACE(row.call);
    Gateway gateway(failing(row.call));
    RemoteClient panel("panel-1");
    EXPECT_EQ(panel.log_in({.monitor = monitor}), Ports{});
    expect_texts(gateway, row.log);
    gateway.expect_log(
        {"[AUTH] > zmq_msg_send", "free client", "remove cl_id from list of known client", "free cl_id"});
    gateway.device().expect_log({"ClientDeauthenticated ('panel-1',)"});
    EXPECT_EQ(panel.log_in({.monitor = monitor}), (Ports{62002, 63002}));
}

TEST(ASessionThatCannotBeOpened, IsRefusedAndLeavesNothing) {
    for (const FailureCase &row : refused_logins) expect_refused_login(row, true);
    expect_refused_login(refused_login_without_monitor, false);
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
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        RemoteClient panel("panel-1");
        EXPECT_EQ(panel.log_in({.monitor = true, .connect = false}), (Ports{62001, 63001}));
        expect_texts(gateway, row.log);
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
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        RemoteClient panel("panel-1");
        panel.log_in({.monitor = true});
        expect_texts(gateway, row.log);
        panel.hang_up();
        gateway.expect_log({"no other command connection opened, so auto-logoff (panel-1)"});
    }
}

// In its start, and in the end of one whose client has come and gone.
TEST(AStopInTheMomentOfAMonitor, IsOrderly) {
    for (const char *call : {"zsock_bind:3:stop", "zactor_new:1:stop", "zmq_socket_monitor:2:stop"}) {
        SCOPED_TRACE(call);
        Gateway gateway(failing(call));
        RemoteClient panel("panel-1");
        panel.send(Channel::authentication, {"\n\x1a\n\apanel-1R\x0f\n\x04root\x12\x05vormi\x18\x01"});
        gateway.expect_log({"try to enable MONITORING", "[AUTH] > zmq_msg_send"});
        is_open(62001);
        EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    }
}

TEST(ASocket, WaitsForNobodyTooLongAndNoticesWhoHasGone) {
    Gateway gateway(failing("tell"));
    RemoteClient panel("panel-1");
    for (int i = 0; i < 2; i++) panel.log_in({.monitor = 1, .connect = false});
    panel.log_out();
    gateway.service().send_signal(SIGTERM);
    EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    gateway.service().rewind();
    gateway.expect_log({"zsock_set_tcp_keepalive 1 *", "[NET] auth port *", "[AUTH] cmd=62001",
                        "zsock_set_tcp_keepalive 1 *", "[AUTH] events=63001", "zsock_set_tcp_keepalive 1 *",
                        "try to enable MONITORING", "zsock_set_rcvtimeo 600 *", "MONITOR", "zmq_poll 1 0",
                        "* alredy exist *", "free cl_cmds", "zsock_set_linger 50 *", "free cl_events",
                        "zsock_set_linger 0 *", "free cl_username", "Stop auth destroy socket", "zsock_set_linger 0 *",
                        "Stop s_loop poller and destroy"});
}

// ---- requests -----------------------------------------------------------------------------------------------------

struct RequestCase {
    const char *call;
    Texts log;
    bool answered;  // with more than the empty frame
    Channel channel = Channel::authentication;
};

static constexpr Channel at_login = Channel::authentication, at_work = Channel::command;
static const RequestCase requests[] = {
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
    for (const RequestCase &row : requests) {
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        RemoteClient panel("panel-1");
        if (row.channel == at_work) panel.log_in();
        EXPECT_EQ(!panel.exchange(row.channel, {question}).empty(), row.answered);
        expect_texts(gateway, row.log);
        panel.log_in();
        EXPECT_EQ(panel.read("/Device/Config/Hardware/Channels").status(), wire::STATUS_OK);
    }
}

TEST(AWriteWhoseAnswerIsLost, IsEchoedAllTheSame) {
    Gateway gateway(failing("zmq_msg_send:3"));  // after the answers to two logins
    RemoteClient writer("writer"), listener("listener");
    writer.log_in({.discard_my_feedback = true});
    listener.log_in();
    writer.send(Channel::command, {"\n\035b\033\n\023/Device/Config/Name\022\004Hall"});
    gateway.expect_log({"write ok with retval=0", "[writer] Broadcasting to all clients.", "broadcast to 1 client"});
}

TEST(AWriteWhoseAnswerCannotBeEncoded, DoesNotLetTheNextAnswerBeEchoed) {
    for (const char *call : {"proto_buffer:3", "proto_buffer_size:3"}) {  // after the answers to two logins
        SCOPED_TRACE(call);
        Gateway gateway(failing(call));
        RemoteClient writer("writer"), listener("listener");
        writer.log_in();
        listener.log_in();
        EXPECT_EQ(writer.exchange(Channel::command, {"\n\035b\033\n\023/Device/Config/Name\022\004Hall"}), "");
        gateway.expect_log({"set broadcast to other client", "problem in proto_encode", "[CLIENT] error encoding"});
        EXPECT_EQ(writer.read("/Device/Config/Name").value().text(), "Hall");
        writer.log_out();
        gateway.service().expect_no_log_before("* Broadcasting to all clients.", "free client");
    }
}

TEST(AWriteWithoutItsClient, ChangesNothingButTheCount) {
    for (const bool refused : {true, false}) {
        SCOPED_TRACE(refused);
        Gateway gateway(failing(refused ? "proto_get_private:2" : "proto_get_private:3"));
        RemoteClient panel("panel-1");
        panel.log_in();
        const wire::Reply reply = panel.write(name_key, "Hall");
        EXPECT_EQ(reply.status(), refused ? wire::STATUS_REFUSED : wire::STATUS_OK);
        EXPECT_EQ(reply.change_count(), refused ? 0u : 1u);
        panel.log_out();
        gateway.service().expect_no_log_before("set broadcast to other client", "free client");
    }
}

static rlim_t limit_descriptors(Gateway &gateway, rlim_t count) {
    rlimit limit = {};
    EXPECT_EQ(prlimit(gateway.service().pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    const rlim_t before = std::exchange(limit.rlim_cur, count);
    EXPECT_EQ(prlimit(gateway.service().pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    return before;
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
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        Discovery discovery;
        discovery.send(discovery_request("panel-1", key.public_pem()));
        expect_texts(gateway, row.log);
        EXPECT_FALSE(discovery.ask(""));
        RemoteClient("panel-1").log_in();
        gateway.expect_log({"[AUTH] added non discovered client"});
    }
}

// ---- events -------------------------------------------------------------------------------------------------------

struct EventCase {
    const char *call, *method, *arguments, *log;
};

static constexpr EventCase lost_events[] = {
    {"proto_encode_alarm_event:1",         "Alarm",             "(40, 1.5, 3)",     "DBUS: broadcasting code=40,*" },
    {"proto_encode_kv:1",                  "Change",            "('/k', 'v', 't')", "DBUS: broadcasting key=/k,*"  },
    {"proto_encode_RestoreSnapshot:1",     "LoadSnapshot",      "(uint32 4,)",      "DBUS: broadcasting command: 0"},
    {"proto_encode_SpeakerPresetLoaded:1", "LoadSpeakerPreset", "()",               "DBUS: broadcasting command: 1"},
    {"proto_buffer:1",                     "Change",            "('/k', 'v', 't')", "protobuf encoding error"      },
};

TEST(AnEventThatCannotBeEncoded, IsLostAloneAndTheNextOneIsSent) {
    for (const EventCase &row : lost_events) {
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        gateway.control(row.method, row.arguments);
        gateway.control("Alarm", "(39, 0.5, 0)");
        gateway.expect_log({row.log});
        gateway.service().expect_no_log_before("DISPACH CHANGE TO ALL CLIENTS", "DBUS: DISCARD code=39");
        gateway.control(row.method, row.arguments);
        gateway.expect_log({"DISPACH CHANGE TO ALL CLIENTS", "broadcast to 0 client"});
    }
}

struct BroadcastCase {
    const char *call, *log;
};

// Three answers to logins come first, then what is encoded once and sent to three clients.
static constexpr BroadcastCase broadcasts[] = {
    {"zmq_msg_send:5", "[*] Error broadcasting to *"  },
    {"proto_buffer:6", "avoid to notify empty message"},
};

TEST(ABroadcast, CountsOnlyTheClientsThatItReached) {
    for (const BroadcastCase &row : broadcasts) {
        SCOPED_TRACE(row.call);
        Gateway gateway(failing(row.call));
        RemoteClient first("first"), second("second"), third("third");
        for (RemoteClient *client : {&first, &second, &third}) client->log_in();
        gateway.control("LoadSnapshot", "(uint32 4,)");
        gateway.expect_log({"[*] Message broadcast to *...", row.log, "broadcast to 2 client"});
    }
}
