-- kesto.lua - what a Kesto amplifier and its clients say to each other, for Wireshark and tshark 4.0 or later: discovery
-- datagrams, and on the three kinds of TCP ports the ZMTP 3 frames with the Message in them.
--
-- From one packet to the next only the request that a connection waits with is kept.

local contract = dofile(__DIR__ .. "/kesto_contract.lua")
local protobuf = dofile(__DIR__ .. "/kesto_protobuf.lua")
local zmtp = dofile(__DIR__ .. "/kesto_zmtp.lua")

local shown_longest = 60
local frame_bytes_sane = 2 ^ 27 -- what D-Bus carries in one call; no device sends more

local kesto = Proto("kesto", "Kesto amplifier")

local malformed = ProtoExpert.new("kesto.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local unusual = ProtoExpert.new("kesto.unusual", "Unusual", expert.group.PROTOCOL, expert.severity.WARN)
local refused = ProtoExpert.new("kesto.refused", "Refused", expert.group.RESPONSE_CODE, expert.severity.NOTE)
kesto.experts = { malformed, unusual, refused }

local field_makers = {
    string = ProtoField.string,
    uint32 = ProtoField.uint32,
    uint64 = ProtoField.uint64,
    int32 = ProtoField.int32,
    sint32 = ProtoField.int32,
    float = ProtoField.float,
    bool = ProtoField.bool,
    status = function(filter, name) return ProtoField.uint32(filter, name, base.DEC, contract.statuses) end,
}
local fields = {} -- by filter name

local function declare(filter, name, kind)
    if not fields[filter] then fields[filter] = field_makers[kind](filter, name) end
end

local function filter_of(row) return row[3] or "kesto." .. row[1] end
local function discovery_filter(name) return name == "client_id" and "kesto.client_id" or "kesto.discovery." .. name end

for _, rows in pairs(contract.messages) do
    for _, row in pairs(rows) do
        if field_makers[row[2]] then declare(filter_of(row), row[1], row[2]) end
    end
end
for _, names in ipairs({ contract.discovery_request, contract.discovery_reply }) do
    for _, name in ipairs(names) do declare(discovery_filter(name), name, "string") end
end
for name, kind in pairs(zmtp.fields) do declare("kesto.zmtp." .. name, name, kind) end
declare("kesto.operation", "operation", "string")
fields["kesto.request_in"] = ProtoField.framenum("kesto.request_in", "request in", base.NONE, frametype.REQUEST)
fields["kesto.time"] = ProtoField.relative_time("kesto.time", "time since the request")
kesto.fields = fields

local function shorten(text)
    text = text:gsub("%c", " ")
    return #text > shown_longest and text:sub(1, shown_longest) .. "..." or text
end

local function complain(tree, reason)
    tree:add_proto_expert_info(malformed, reason)
    return "malformed: " .. reason
end

-- Discovery.

-- Adds the fields between the head and the end mark, with the byte that ends each of them; the values by name, and how
-- many fields there are. The one called `free_text` may hold separators itself.
local function add_discovery_fields(tvb, head, tree, names, free_text)
    local text, values, first, count = tvb:raw(), {}, #head + 1, 0
    repeat
        count = count + 1
        local name = names[count]
        local found = text:find("\x1c", first, true)
        if name == free_text then found = count < #names and text:find("\x1c[^\x1c]*$", first) end
        local behind = found or #text
        if name then
            values[name] = text:sub(first, behind - 1)
            tree:add(fields[discovery_filter(name)], tvb(first - 1, behind - first + 1), values[name])
        end
        first = behind + 1
    until not found
    return values, count
end

local function dissect_discovery_request(tvb, head, tree)
    local values = add_discovery_fields(tvb, head, tree, contract.discovery_request, "client_id")
    local id, key = values.client_id or "", values.public_key or ""
    if id:find("!", 1, true) then return complain(tree, "the client id ends at its first '!'") end
    if key ~= "" and not key:find("PUBLIC KEY-----", 1, true) then return complain(tree, "no public key in PEM") end
    return "discovery request of " .. shorten(id == "" and "(no id)" or id)
end

local function dissect_discovery_reply(tvb, head, tree)
    local values, count = add_discovery_fields(tvb, head, tree, contract.discovery_reply, "project_information")
    if count ~= #contract.discovery_reply then
        return complain(tree, count .. " fields instead of " .. #contract.discovery_reply)
    end
    local port, key = values.login_port:match("^ZMQ:(%d+)$"), values.wrapped_key
    if not port then return complain(tree, "the login port is not ZMQ: and a number") end
    if key:find("[^%dA-F]") or #key % 2 ~= 0 then return complain(tree, "the wrapped key is no hexadecimal text") end
    if not contract.slot_marks[values.slot] then return complain(tree, "there is no slot mark " .. values.slot) end
    local device = shorten(values.model) .. ", serial " .. shorten(values.serial)
    return "discovery reply of " .. device .. ", logins at port " .. port
end

local function dissect_discovery(tvb, pinfo, tree)
    local limits, from_device = contract.limits, pinfo.src_port == contract.ports.discovery
    local head = from_device and "@?D" or "@?"
    local text, what = tvb:raw(), from_device and "reply" or "request"
    if #text < limits.datagram_shortest_bytes then return complain(tree, "too short for a " .. what) end
    if #text > limits.datagram_longest_bytes then return complain(tree, "too long for a " .. what) end
    if text:sub(1, #head) ~= head then return complain(tree, "a " .. what .. " begins with " .. head) end
    if text:sub(-1) ~= "!" then
        local cut = from_device and #text == limits.datagram_longest_bytes
        return cut and "discovery reply, cut at the longest that it can be"
            or complain(tree, "a " .. what .. " ends with '!'")
    end
    return (from_device and dissect_discovery_reply or dissect_discovery_request)(tvb, head, tree)
end

-- Messages. `pending` has the request that a connection waits with, `answered` the request of a reply's packet, since
-- a packet can be dissected again later, in any order.

local pending, answered = {}, {}
function kesto.init() pending, answered = {}, {} end

local function connection_of(pinfo, from_client)
    local source, destination = tostring(pinfo.src) .. ":" .. pinfo.src_port, tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    return from_client and source .. " " .. destination or destination .. " " .. source
end

local function note_request(pinfo, operation)
    if pinfo.visited then return end
    pending[connection_of(pinfo, true)] = { frame = pinfo.number, time = pinfo.rel_ts, operation = operation }
end

local function request_of_reply(pinfo)
    if not pinfo.visited then
        local connection = connection_of(pinfo, false)
        answered[pinfo.number], pending[connection] = pending[connection], nil
    end
    return answered[pinfo.number]
end

local function first_seen(names, seen)
    for _, name in ipairs(names) do
        if seen[name] ~= nil then return name end
    end
    return "none"
end

local function operation_of(seen)
    local operation = first_seen(contract.operations, seen)
    local leaves = operation == "login" and seen.user_name == nil and seen.password == nil
    return leaves and "logout" or operation
end

local function add_operation(tree, operation)
    tree:add(fields["kesto.operation"], operation):set_generated()
    return operation
end

local function caller(seen)
    local sequence = seen.sequence and " #" .. tostring(seen.sequence) or ""
    return shorten(seen.client_id or "(no id)") .. sequence
end

local function assignment(seen)
    if seen.allowed ~= nil or seen.authorization then return seen.allowed and " allowed" or " not allowed" end
    if seen.key == nil then return "" end
    local key, value = " " .. shorten(seen.key), type(seen.value) == "string" and seen.value or seen.text
    if seen.entries then return key .. ", " .. seen.counts.entries .. " entries" end
    local others = (seen.counts.pairs or 1) - 1
    return key .. (value and " = " .. shorten(value) or "") .. (others > 0 and " and " .. others .. " more" or "")
end

local function add_status(tree, seen)
    local status = contract.statuses[seen.status or 0] or tostring(seen.status)
    if status ~= "OK" then tree:add_proto_expert_info(refused, "status " .. status) end
    return status
end

local function show_request(pinfo, tree, seen)
    local operation = add_operation(tree, operation_of(seen))
    note_request(pinfo, operation)
    local user = operation == "login" and seen.user_name and " as " .. shorten(seen.user_name) or ""
    return caller(seen) .. ": " .. operation .. user .. assignment(seen)
end

local function add_request(pinfo, tree)
    local request = request_of_reply(pinfo)
    if not request then return "" end
    tree:add(fields["kesto.request_in"], request.frame):set_generated()
    local seconds = pinfo.rel_ts - request.time
    local whole = math.floor(seconds)
    tree:add(fields["kesto.time"], NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))):set_generated()
    return add_operation(tree, request.operation) .. " "
end

local function show_reply(pinfo, tree, seen)
    local ports = seen.command_port and string.format(" ports %d and %d", seen.command_port, seen.event_port or 0) or ""
    return caller(seen) .. ": " .. add_request(pinfo, tree) .. add_status(tree, seen) .. assignment(seen) .. ports
end

local function show_event(tree, seen)
    local event, what = add_operation(tree, first_seen(contract.events, seen)), assignment(seen)
    if event == "alarm" then what = string.format(" %g on channel %d", seen.value or 0, seen.channel or 0) end
    if event == "snapshot_loaded" then what = string.format(" slot %d", seen.slot or 0) end
    return "event: " .. event .. what
end

local function show_echo(tree, seen)
    local operation = add_operation(tree, first_seen(contract.echoes, seen))
    return "echo of " .. caller(seen) .. ": " .. operation .. " " .. add_status(tree, seen) .. assignment(seen)
end

-- Fills in `seen`: the first value of each name, true for a message without a scalar of its name, and how many messages
-- of each name there are.
local function visitor_of(seen)
    seen.counts = {}
    return {
        scalar = function(tree, row, field, value)
            tree:add(fields[filter_of(row)], field, value)
            if seen[row[1]] == nil or seen[row[1]] == true then seen[row[1]] = value end
        end,
        message = function(tree, row, field)
            seen[row[1]] = seen[row[1]] or true
            seen.counts[row[1]] = (seen.counts[row[1]] or 0) + 1
            return tree:add(kesto, field, row[1])
        end,
        unknown = function(tree, number, name)
            tree:add_proto_expert_info(unusual, "field " .. number .. " of " .. name .. " is not in the contract")
        end,
    }
end

local function dissect_message(range, pinfo, tree, way)
    if not range then
        local what = way.from_client and "empty frame" or "empty frame: the request could not be answered"
        tree:add_proto_expert_info(refused, what)
        return what
    end
    local seen = {}
    local fine, reason = pcall(protobuf.decode, contract.messages, "Message", range, tree, visitor_of(seen))
    if not fine then return complain(tree, reason) end
    if way.publishes and seen.event then return show_event(tree, seen) end
    if way.publishes and seen.reply then return show_echo(tree, seen) end
    if way.from_client and seen.request then return show_request(pinfo, tree, seen) end
    if not way.from_client and not way.publishes and seen.reply then return show_reply(pinfo, tree, seen) end
    return complain(tree, "not what this port carries in this direction")
end

local function way_of(pinfo)
    local port = pinfo.match_uint
    local events = contract.ports.events
    return { from_client = pinfo.dst_port == port, publishes = port >= events.first and port <= events.last }
end

local on_zmtp = {
    unit = function(tree, range, name) return tree:add(kesto, range, name) end,
    field = function(tree, name, range, value) tree:add(fields["kesto.zmtp." .. name], range, value) end,
    complain = complain,
    message = dissect_message,
    frame_limit_bytes = function(way) return way.from_client and contract.limits.request_bytes or frame_bytes_sane end,
}

function kesto.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "Kesto"
    local subtree = tree:add(kesto, tvb())
    local is_datagram = pinfo.match_uint == contract.ports.discovery
    local shown = is_datagram and dissect_discovery(tvb, pinfo, subtree) or
        zmtp.dissect(tvb, pinfo, subtree, way_of(pinfo), on_zmtp)
    if shown ~= "" then
        pinfo.cols.info:set(shown)
        pinfo.cols.info:fence() -- what follows in the same packet comes behind it
    end
    subtree:append_text(shown ~= "" and ": " .. shown or "")
    return tvb:len()
end

local tcp = DissectorTable.get("tcp.port")
tcp:add(contract.ports.login, kesto)
for _, range in ipairs({ contract.ports.commands, contract.ports.events }) do
    tcp:add(range.first .. "-" .. range.last, kesto)
end
DissectorTable.get("udp.port"):add(contract.ports.discovery, kesto)
