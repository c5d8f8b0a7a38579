-- kesto_contract.lua - docs/protocol.md and proto/access.proto as tables. Nothing but data.

-- Of each message, by number: the field's name, its type or message, and its filter name where that is not "kesto." and
-- the name.
local messages = {
    Message = { [1] = { "request", "Request" }, [2] = { "reply", "Reply" }, [3] = { "event", "Event" } },
    Request = {
        [1] = { "client_id", "string" },
        [2] = { "sequence", "uint64" },
        [10] = { "login", "Login" },
        [11] = { "read", "Read" },
        [12] = { "write", "Write" },
        [13] = { "multi_write", "MultiWrite" },
        [14] = { "authorize", "Authorize" },
        [15] = { "discovery", "Nothing" },
        [16] = { "change_count", "Nothing" },
    },
    Login = {
        [1] = { "user_name", "string" },
        [2] = { "password", "string" },
        [3] = { "monitor", "int32" },
        [4] = { "discard_my_feedback", "int32" },
        [5] = { "hide_secure_info", "int32" },
        [6] = { "no_lock", "int32" },
        [7] = { "discovery", "string", "kesto.static_discovery" },
    },
    Read = { [1] = { "key", "string" }, [2] = { "flags", "uint32" } },
    Write = { [1] = { "key", "string" }, [2] = { "value", "string" }, [3] = { "type", "uint32" } },
    Pair = { [1] = { "key", "string" }, [2] = { "value", "string" } },
    MultiWrite = { [1] = { "pairs", "Pair" } },
    Authorize = {
        [1] = { "operation", "uint32", "kesto.asked_right" },
        [2] = { "key", "string" },
        [3] = { "recursive", "uint32" },
    },
    Nothing = {},
    Reply = {
        [1] = { "client_id", "string" },
        [2] = { "sequence", "uint64" },
        [3] = { "status", "status" },
        [4] = { "change_count", "uint32" },
        [10] = { "session", "Session" },
        [11] = { "value", "Value" },
        [12] = { "write", "WriteResult" },
        [13] = { "multi_write", "MultiWriteResult" },
        [14] = { "authorization", "Authorization" },
        [15] = { "discovery", "string", "kesto.static_discovery" },
    },
    Session = { [1] = { "command_port", "int32" }, [2] = { "event_port", "int32" } },
    Value = {
        [1] = { "key", "string" },
        [2] = { "signature", "string" },
        [3] = { "text", "string", "kesto.value" },
        [4] = { "entries", "Pair" },
    },
    WriteResult = {
        [1] = { "key", "string" },
        [2] = { "value", "string" },
        [3] = { "type", "uint32" },
        [4] = { "result", "int32" },
    },
    MultiWriteResult = { [1] = { "pairs", "Pair" }, [2] = { "results", "string", "kesto.result_text" } },
    Authorization = { [1] = { "allowed", "bool" } },
    Event = {
        [1] = { "alarm", "Alarm" },
        [2] = { "change", "Change" },
        [3] = { "snapshot_loaded", "SnapshotLoaded" },
        [4] = { "speaker_preset_loaded", "Nothing" },
    },
    Alarm = {
        [1] = { "code", "sint32", "kesto.alarm.code" },
        [2] = { "active", "uint32", "kesto.alarm.active" },
        [3] = { "channel", "sint32", "kesto.alarm.channel" },
        [4] = { "value", "float", "kesto.alarm.value" },
    },
    Change = { [1] = { "key", "string" }, [2] = { "value", "string" }, [3] = { "type", "string", "kesto.change_type" } },
    SnapshotLoaded = { [1] = { "slot", "uint32" } },
}

return {
    ports = {
        discovery = 8004,
        login = 60000,
        commands = { first = 62000, last = 62998 },
        events = { first = 63000, last = 63998 },
    },
    limits = { datagram_shortest_bytes = 3, datagram_longest_bytes = 8191, request_bytes = 10485760 },
    messages = messages,
    statuses = { [0] = "UNSPECIFIED", "OK", "REFUSED", "UNSUPPORTED" },

    -- What was asked, named by the part of the request that says so; what happened, by the part of the event.
    operations = { "login", "read", "write", "multi_write", "authorize", "discovery", "change_count" },
    echoes = { "write", "multi_write" },
    events = { "alarm", "change", "snapshot_loaded", "speaker_preset_loaded" },

    discovery_request = { "family", "client_serial", "public_key", "client_id" },
    discovery_reply = {
        "model", "firmware", "oem_serial", "login_port", "second_port", "wrapped_key", "slot", "oem_manufacturer",
        "oem_model", "amplifier_name", "serial", "easy_swap_id", "project_information", "extra",
    },
    slot_marks = { ["?"] = true, ["-"] = true, D = true, ["+"] = true },
}
