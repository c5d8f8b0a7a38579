-- kesto_protobuf.lua - protobuf's encoding, read by tables such as those of kesto_contract.lua. Wireshark's own protobuf
-- dissector would need preferences that everybody has to set. What does not parse is an error() with a sentence.

-- A varint's low 32 bits, the rest, and the offset behind it.
local function varint(range, offset)
    local low, high = 0, 0
    for index = 0, 9 do
        if offset + index >= range:len() then error("a number is cut short", 0) end
        local byte = range(offset + index, 1):uint()
        local bits = byte % 128
        if index < 4 then low = low + bits * 2 ^ (7 * index)
        elseif index == 4 then low, high = low + bits % 16 * 2 ^ 28, math.floor(bits / 16)
        else high = (high + bits * 2 ^ (7 * index - 32)) % 2 ^ 32 end
        if byte < 128 then return low, high, offset + index + 1 end
    end
    error("a number has more than ten bytes", 0)
end

local function zigzag(low) return low % 2 == 0 and low / 2 or -(low + 1) / 2 end

local readers_of_varints = {
    uint32 = function(low) return low end,
    int32 = function(low) return low < 2 ^ 31 and low or low - 2 ^ 32 end,
    sint32 = zigzag,
    uint64 = function(low, high) return UInt64.new(low, high) end,
    bool = function(low, high) return low ~= 0 or high ~= 0 end,
    status = function(low) return low end,
}

local function text_of(range, name)
    if not range then return "" end
    local text = range:string(ENC_UTF_8)
    if range:raw():find("\0", 1, true) then error(name .. " has a NUL byte in it", 0) end
    if range:raw() ~= text then error(name .. " is not UTF-8", 0) end
    return text
end

-- Where the content of a field begins and where the next one does; `offset` is behind the field's tag.
local function bounds(range, wire_type, offset)
    local first, length = offset, nil
    if wire_type == 0 then
        local _, _, behind = varint(range, offset)
        return offset, behind
    elseif wire_type == 1 then length = 8
    elseif wire_type == 2 then length, _, first = varint(range, offset)
    elseif wire_type == 5 then length = 4
    else error("there is no wire type " .. wire_type, 0) end
    if first + length > range:len() then error("a field is cut short", 0) end
    return first, first + length
end

local function wire_type_of(messages, kind)
    if messages[kind] or kind == "string" then return 2 end
    return kind == "float" and 5 or 0
end

-- A part of a range, which for Wireshark has at least one byte; nothing for an empty one.
local function part(range, first, behind) return behind > first and range(first, behind - first) or nil end

local function value_of(kind, name, range)
    if kind == "string" then return text_of(range, name) end
    if kind == "float" then return range:le_float() end
    return readers_of_varints[kind](varint(range, 0))
end

-- Reads `range`, or nothing, as a message of that name and tells `visitor` of each field, in their order:
-- visitor.scalar(tree, row, field, value), visitor.message(tree, row, field), which returns the tree for what is in it,
-- and visitor.unknown(tree, number, message) for what a protobuf decoder passes over. `field` is the range with the tag.
local function decode(messages, name, range, tree, visitor)
    local offset, size = 0, range and range:len() or 0
    while offset < size do
        local tag, _, behind_tag = varint(range, offset)
        local number, wire_type = math.floor(tag / 8), tag % 8
        local first, behind = bounds(range, wire_type, behind_tag)
        local content, row = part(range, first, behind), messages[name][number]
        local field = range(offset, behind - offset)
        if not row or wire_type_of(messages, row[2]) ~= wire_type then visitor.unknown(tree, number, name)
        elseif messages[row[2]] then decode(messages, row[2], content, visitor.message(tree, row, field), visitor)
        else visitor.scalar(tree, row, field, value_of(row[2], row[1], content)) end
        offset = behind
    end
end

return { decode = decode }
