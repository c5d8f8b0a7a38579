-- kesto_zmtp.lua - ZeroMQ's transport, ZMTP 3: a greeting each way, then frames: a byte of flags, the size in one byte or
-- eight, and the body. Wireshark does not know it. A greeting begins with a byte that no frame begins with, so that
-- nothing has to be remembered of a connection.

local greeting_bytes, greeting_mark = 64, 0xff
local more_flag, long_flag, command_flag = 1, 2, 4

-- By name, with their types.
local fields = {
    version = "string", mechanism = "string", command = "string", socket_type = "string", ttl = "uint32",
}

local function flag(flags, bit) return math.floor(flags / bit) % 2 == 1 end

-- The header of the unit at the beginning of the range; nothing when it is not all there, or a reason why it is none.
local function read_header(range, limit_bytes)
    local flags = range(0, 1):uint()
    if flags == greeting_mark then return { greeting = true, head_bytes = 0, body_bytes = greeting_bytes } end
    if flags > more_flag + long_flag + command_flag then return nil, "no ZMTP 3 frame begins with byte " .. flags end
    local header = { more = flag(flags, more_flag), command = flag(flags, command_flag) }
    header.head_bytes = flag(flags, long_flag) and 9 or 2
    if range:len() < header.head_bytes then return nil end
    local size = range(1, header.head_bytes - 1)
    header.body_bytes = size:len() == 1 and size:uint() or size:uint64():tonumber()
    if header.body_bytes > limit_bytes then
        return nil, string.format("a frame of %.0f bytes is too long", header.body_bytes)
    end
    return header
end

local function dissect_greeting(range, tree, on)
    local version = range(10, 1):uint() .. "." .. range(11, 1):uint()
    local mechanism = range(12, 20):stringz()
    on.field(tree, "version", range(10, 2), version)
    on.field(tree, "mechanism", range(12, 20), mechanism)
    return "ZMTP greeting, version " .. version .. ", " .. mechanism
end

-- The metadata of READY; the socket type is what a reader wants of it.
local function add_properties(range, tree, on)
    local offset, socket_type = 0, nil
    while offset < range:len() do
        local name = range(offset + 1, range(offset, 1):uint())
        local value_first = offset + 1 + name:len() + 4
        local value_bytes = range(value_first - 4, 4):uint()
        if name:string() == "Socket-Type" then
            local value = range(value_first, value_bytes)
            socket_type = value:string()
            on.field(tree, "socket_type", value, socket_type)
        end
        offset = value_first + value_bytes
    end
    return socket_type and " " .. socket_type or ""
end

local command_details = {
    READY = add_properties,
    PING = function(range, tree, on)
        on.field(tree, "ttl", range(0, 2), range(0, 2):uint()) -- in tenths of a second
        return ""
    end,
}

local function dissect_command(range, tree, on)
    local name = range(1, range(0, 1):uint())
    on.field(tree, "command", name, name:string())
    local detail, first = command_details[name:string()], 1 + name:len()
    return "ZMTP " .. name:string() .. (detail and first < range:len() and detail(range(first), tree, on) or "")
end

-- What is in one frame, in words; nothing for the empty frame that a REQ socket puts in front. An empty body is nil.
local function dissect_body(body, header, pinfo, tree, way, on)
    if header.greeting then return dissect_greeting(body, tree, on) end
    if header.command then return dissect_command(body, tree, on) end
    if way.publishes and way.from_client then return "ZMTP subscription" end -- as ZMTP 3.0 writes it
    if header.more and not body and not way.publishes then
        tree:append_text(", delimiter")
        return nil
    end
    if header.more then return on.complain(tree, "more than one frame") end
    return on.message(body, pinfo, tree, way)
end

local function dissect_unit(unit, header, pinfo, tree, way, on)
    local subtree = on.unit(tree, unit, header.greeting and "Greeting" or header.command and "Command" or "Frame")
    local body = header.body_bytes > 0 and unit(header.head_bytes, header.body_bytes) or nil
    local fine, what = pcall(dissect_body, body, header, pinfo, subtree, way, on)
    return fine and what or not fine and on.complain(subtree, "cut short") or nil
end

-- One segment or several put together, in words. Asks for the next segments when the last unit is not all there. `way`
-- says whether it comes `from_client` and whether the port `publishes`. `on` is what the caller does: on.unit(tree, range,
-- name) and on.field(tree, name, range, value) show, on.complain(tree, reason) and on.message(range, pinfo, tree, way) give
-- words back, on.frame_limit_bytes(way) is the most that one frame may have.
local function dissect(tvb, pinfo, tree, way, on)
    local shown, offset = {}, 0
    while offset < tvb:len() do
        local rest = tvb(offset)
        local header, reason = read_header(rest, on.frame_limit_bytes(way))
        if reason then
            table.insert(shown, on.complain(on.unit(tree, rest, "Not ZMTP"), reason))
            break
        end
        local unit_bytes = header and header.head_bytes + header.body_bytes
        if not header or rest:len() < unit_bytes then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = header and unit_bytes - rest:len() or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        table.insert(shown, dissect_unit(rest(0, unit_bytes), header, pinfo, tree, way, on))
        offset = offset + unit_bytes
    end
    return table.concat(shown, " | ")
end

return { fields = fields, dissect = dissect }
