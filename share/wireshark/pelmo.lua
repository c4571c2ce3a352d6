-- Dissectors of the Pelmo message bus for Wireshark 4 and tshark:
--
--   pelmo          the bus's UDP packets, found by their magic number on any port
--   pelmo_stream   a client's TCP connection to its daemon, on port 7500 and wherever it looks like one
--   pelmo_direct   the direct road between two clients, by "Decode As" on a UDP port
--
-- Each shows the messages inside with all their fields. docs/WIRE.md describes the bytes. The file
-- goes into the folder of personal or global Lua plugins (Help, About, Folders), or is named by
-- tshark -X lua_script:pelmo.lua.

local BUS_MAGIC = 0x88fa6923
local MESSAGE_MAGIC = 0x9955eeaa
local MOST_MESSAGE_BYTES = 64 * 1024 * 1024
local MOST_NESTED = 32
local MOST_ELEMENTS = 4096 -- of an array that are shown

local pelmo = Proto("pelmo", "Pelmo Message Bus")
local pelmo_stream = Proto("pelmo_stream", "Pelmo Daemon Stream")
local pelmo_direct = Proto("pelmo_direct", "Pelmo Direct Road")

local TYPES = {
    [1] = "data", [3] = "rreq", [4] = "null", [5] = "rrej",
    [6] = "ptp data", [7] = "ptp ackme", [8] = "ptp ack", [9] = "ptp nak",
}

local f = {
    magic = ProtoField.uint32("pelmo.magic", "Magic", base.HEX),
    src = ProtoField.ipv4("pelmo.src", "Source address in the header"),
    epoch = ProtoField.uint32("pelmo.epoch", "Epoch of the sender", base.HEX),
    dst = ProtoField.ipv4("pelmo.dst", "Destination address in the header"),
    type = ProtoField.int16("pelmo.type", "Type", base.DEC, TYPES),
    seq = ProtoField.uint32("pelmo.seq", "Sequence number"),
    length = ProtoField.int16("pelmo.length", "Bytes of data"),
    fragment = ProtoField.uint16("pelmo.fragment", "Part of a message that runs on"),
    reliability = ProtoField.double("pelmo.reliability", "Reliability (seconds)"),
    list_bytes = ProtoField.int32("pelmo.list_bytes", "Bytes of the list"),
    wanted = ProtoField.uint32("pelmo.wanted", "Wanted sequence number"),
    wanted_frame = ProtoField.framenum("pelmo.wanted_frame", "Was sent in frame", base.NONE),
    sender = ProtoField.ipv4("pelmo.sender", "Sender"),
    scid = ProtoField.uint16("pelmo.scid", "SCid"),
    data = ProtoField.bytes("pelmo.data", "Data"),
    repeated = ProtoField.bool("pelmo.repeated", "Repeated data"),
    parts = ProtoField.framenum("pelmo.part_frame", "Part in frame", base.NONE),

    message = ProtoField.none("pelmo.message", "Message"),
    message_length = ProtoField.uint32("pelmo.message.length", "Length"),
    message_magic = ProtoField.uint32("pelmo.message.magic", "Magic", base.HEX),
    subject = ProtoField.string("pelmo.subject", "Subject"),
    reply = ProtoField.string("pelmo.reply", "Reply subject"),
    mtype = ProtoField.string("pelmo.mtype", "Kind of message"),
    cid = ProtoField.uint16("pelmo.cid", "Source port"),
    field = ProtoField.none("pelmo.field", "Field"),
    name = ProtoField.string("pelmo.field.name", "Name"),
    id = ProtoField.uint16("pelmo.field.id", "Id"),
    wire_type = ProtoField.uint8("pelmo.field.wire_type", "Wire type"),
    kind = ProtoField.string("pelmo.field.type", "Type"),
    size = ProtoField.uint32("pelmo.field.size", "Bytes of the value"),
    value = ProtoField.string("pelmo.field.value", "Value"),
    number = ProtoField.double("pelmo.field.number", "Number"),
}
for _, field in pairs(f) do table.insert(pelmo.fields, field) end

local s = {
    version = ProtoField.uint32("pelmo_stream.version", "Protocol version"),
    local_daemon = ProtoField.uint32("pelmo_stream.local", "Third word"),
    hello = ProtoField.uint32("pelmo_stream.hello", "Hello", base.DEC,
        { [0] = "refused", [1] = "agreed", [2] = "first offer", [3] = "counter-offer" }),
    queue_limit = ProtoField.uint16("pelmo_stream.queue_limit", "Queue limit"),
    format = ProtoField.uint16("pelmo_stream.format", "Format"),
    limit_a = ProtoField.uint32("pelmo_stream.limit_a", "Limit A"),
    limit_b = ProtoField.uint32("pelmo_stream.limit_b", "Limit B"),
}
for _, field in pairs(s) do table.insert(pelmo_stream.fields, field) end

local d = {
    source_id = ProtoField.uint32("pelmo_direct.source_id", "Sender's number of the connection"),
    dest_id = ProtoField.uint32("pelmo_direct.dest_id", "Receiver's number of the connection"),
    seq = ProtoField.uint64("pelmo_direct.seq", "Sequence number"),
    ack = ProtoField.uint64("pelmo_direct.ack", "Next number expected"),
    flags = ProtoField.uint8("pelmo_direct.flags", "Flags", base.HEX),
    fin = ProtoField.bool("pelmo_direct.fin", "FIN", 8, nil, 1),
    syn = ProtoField.bool("pelmo_direct.syn", "SYN", 8, nil, 2),
    rst = ProtoField.bool("pelmo_direct.rst", "RST", 8, nil, 4),
    notice = ProtoField.bool("pelmo_direct.close_notice", "The sender's endpoint is closing", 8, nil, 8),
    window = ProtoField.uint32("pelmo_direct.window", "Window (packets)"),
    options = ProtoField.uint8("pelmo_direct.options_length", "Bytes of options"),
    checksum = ProtoField.uint16("pelmo_direct.checksum", "Checksum", base.HEX),
    total = ProtoField.uint32("pelmo_direct.total_size", "Size of the message"),
    first = ProtoField.uint64("pelmo_direct.first_seq", "Number of its first packet"),
    offset = ProtoField.uint32("pelmo_direct.offset", "Offset of this part"),
}
for _, field in pairs(d) do table.insert(pelmo_direct.fields, field) end

local e = {
    fault = ProtoExpert.new("pelmo.fault", "Fault", expert.group.MALFORMED, expert.severity.ERROR),
    cut = ProtoExpert.new("pelmo.cut", "Cut short by the capture", expert.group.UNDECODED,
        expert.severity.NOTE),
    gap = ProtoExpert.new("pelmo.incomplete", "Message without all of its parts",
        expert.group.SEQUENCE, expert.severity.WARN),
    again = ProtoExpert.new("pelmo.retransmitted", "Repeated data", expert.group.SEQUENCE,
        expert.severity.NOTE),
}
pelmo.experts = { e.fault, e.cut, e.gap, e.again }
pelmo_direct.experts = {
    ProtoExpert.new("pelmo_direct.fault", "Fault", expert.group.MALFORMED, expert.severity.ERROR),
}

-- What one pass over the capture remembers, by frame where it is shown again on every later pass.
local state
local function forget()
    state = {
        data_frames = {}, -- "sender scid seq": the frame that brought it first
        last_seq = {},    -- "sender scid group port": {epoch, seq}
        repeated = {},    -- frame: true
        open = {},        -- "sender scid group port": a message that runs on
        whole = {},       -- frame: {bytes, frames} that it completed
        broken = {},      -- frame: text
        direct = {},      -- "source dest first": parts
        direct_whole = {},
    }
end
forget()
function pelmo.init() forget() end

local function fault(tree, range, text)
    if range == nil then return tree:add_proto_expert_info(e.fault, text) end
    tree:add_tvb_expert_info(e.fault, range, text)
end

-- ---- Texts, in the form of pelmobus listen --json and pelmowatch messages ----

-- A byte that isn't part of valid UTF-8 is shown as \xNN.
local function safe_text(bytes)
    local out, at = {}, 1
    while at <= #bytes do
        local lead = bytes:byte(at)
        local length = lead < 0x80 and 1 or lead >= 0xc2 and lead < 0xe0 and 2
            or lead >= 0xe0 and lead < 0xf0 and 3 or lead >= 0xf0 and lead < 0xf5 and 4 or 0
        local sound = length > 0 and at + length - 1 <= #bytes
        for offset = 1, length - 1 do
            local byte = bytes:byte(at + offset) or 0
            sound = sound and byte >= 0x80 and byte < 0xc0
        end
        if sound and length == 3 then
            local second = bytes:byte(at + 1)
            sound = not (lead == 0xe0 and second < 0xa0) and not (lead == 0xed and second > 0x9f)
        elseif sound and length == 4 then
            local second = bytes:byte(at + 1)
            sound = not (lead == 0xf0 and second < 0x90) and not (lead == 0xf4 and second > 0x8f)
        end
        if sound and (length > 1 or lead >= 0x20 and lead ~= 0x7f) then
            out[#out + 1] = bytes:sub(at, at + length - 1)
        else
            length = 1
            out[#out + 1] = string.format("\\x%02x", lead)
        end
        at = at + length
    end
    return table.concat(out)
end

local function hex_text(range)
    return range and range:bytes():tohex(true) or ""
end

-- The shortest digits that read back as the same number.
local function real_text(number, digits)
    if number ~= number then return "NaN" end
    if number == math.huge then return "Infinity" end
    if number == -math.huge then return "-Infinity" end
    for precision = 1, digits do
        local text = string.format("%." .. precision .. "g", number)
        if tonumber(text) == number then return text end
    end
    return string.format("%." .. digits .. "g", number)
end

-- Days since 1970 as year, month and day of the proleptic Gregorian calendar.
local function civil(days)
    local z = days + 719468
    local era = math.floor(z / 146097)
    local doe = z - era * 146097
    local yoe = math.floor((doe - math.floor(doe / 1460) + math.floor(doe / 36524)
        - math.floor(doe / 146096)) / 365)
    local doy = doe - (365 * yoe + math.floor(yoe / 4) - math.floor(yoe / 100))
    local mp = math.floor((5 * doy + 2) / 153)
    local month = mp < 10 and mp + 3 or mp - 9
    local year = yoe + era * 400 + (month <= 2 and 1 or 0)
    return year, month, doy - math.floor((153 * mp + 2) / 5) + 1
end

-- Nil where there are more microseconds than a second has.
local function date_text(range)
    local low, high = range(0, 4):uint(), range(4, 1):uint()
    local micros = range(5, 3):uint()
    if micros > 999999 then return nil end
    if high >= 128 then high = high - 256 end
    local seconds = high * 4294967296 + low
    local days = math.floor(seconds / 86400)
    local rest = seconds - days * 86400
    local year, month, day = civil(days)
    if year <= 0 then year = year - 1 end -- there is no year 0
    local text = string.format("%04d-%02d-%02d %02d:%02d:%02d", year, month, day,
        math.floor(rest / 3600), math.floor(rest / 60) % 60, rest % 60)
    if micros > 0 then text = text .. string.format(".%09d", micros * 1000) end
    return text .. "Z"
end

-- Nil where the packed subject is not well formed.
local function subject_text(range)
    if range:len() < 3 or range(0, 2):uint() ~= range:len() then return nil end
    local elements, at = {}, 3
    for _ = 1, range(2, 1):uint() do
        if at >= range:len() then return nil end
        local size = range(at, 1):uint()
        if size < 3 or at + size > range:len() or range(at + size - 1, 1):uint() ~= 0 then
            return nil
        end
        elements[#elements + 1] = safe_text(range(at + 1, size - 2):raw())
        at = at + size
    end
    if at ~= range:len() then return nil end
    return table.concat(elements, ".")
end

local function without_nul(bytes)
    if bytes:sub(-1) == "\0" then return bytes:sub(1, -2) end
    return bytes
end

-- ---- Values ----

local NETINT, INT, UINT, FLOAT = 10, 11, 12, 13
local FOLDED = {
    [14] = INT, [16] = INT, [18] = INT, [20] = INT, [15] = UINT, [17] = UINT, [19] = UINT, [21] = UINT,
    [24] = FLOAT, [25] = FLOAT, [26] = NETINT, [27] = NETINT,
}

local function int_of(range)
    if range:len() == 8 then
        local value = range:int64()
        return tostring(value), value:tonumber()
    end
    local value = range:int()
    return tostring(value), value
end

local function uint_of(range)
    if range:len() == 8 then
        local value = range:uint64()
        return tostring(value), value:tonumber()
    end
    local value = range:uint()
    return tostring(value), value
end

local function float_of(range)
    local value = range:float()
    return real_text(value, range:len() == 4 and 9 or 17), value
end

local ARRAYS = {
    [34] = { "i8[]", 1, int_of }, [35] = { "u8[]", 1, uint_of },
    [36] = { "i16[]", 2, int_of }, [37] = { "u16[]", 2, uint_of },
    [38] = { "i32[]", 4, int_of }, [39] = { "u32[]", 4, uint_of },
    [40] = { "i64[]", 8, int_of }, [41] = { "u64[]", 8, uint_of },
    [44] = { "f32[]", 4, float_of }, [45] = { "f64[]", 8, float_of },
}

local function array_text(range, width, one)
    local texts = {}
    local count = range and math.floor(range:len() / width) or 0
    for number = 0, math.min(count, MOST_ELEMENTS) - 1 do
        texts[#texts + 1] = (one(range(number * width, width)))
    end
    if count > MOST_ELEMENTS then texts[#texts + 1] = "..." end
    return "[" .. table.concat(texts, ",") .. "]"
end

local function strings_text(range)
    if range == nil or range:len() < 4 then return nil end
    local bytes, texts, at = range:raw(), {}, 5
    for number = 1, range(0, 4):uint() do
        local last = bytes:find("\0", at, true)
        if last == nil then return nil end
        if number <= MOST_ELEMENTS then texts[number] = '"' .. safe_text(bytes:sub(at, last - 1)) .. '"' end
        at = last + 1
    end
    return "[" .. table.concat(texts, ",") .. "]"
end

-- Reads a size prefix at `at`: the value's offset and length, or nil.
local function prefix_of(range, at)
    if at >= range:len() then return nil end
    local class = range(at, 1):uint()
    if class < 120 then return at + 1, class end
    local width = class == 121 and 2 or class == 122 and 4 or nil
    if width == nil or at + 1 + width > range:len() then return nil end
    local length = range(at + 1, width):uint()
    if length < width then return nil end
    return at + 1 + width, length - width
end

-- Nil where the document doesn't inflate to its size.
local function xml_text(range)
    if range == nil then return nil end
    local at, size = prefix_of(range, 0)
    if at == nil then return nil end
    if at >= range:len() then return size == 0 and "" or nil end
    local stored = range(at)
    if size == 0 then return safe_text(stored:raw()) end
    local ok, inflated = pcall(function() return stored:uncompress("XML") end)
    if not ok or inflated == nil or inflated:len() ~= size then return nil end
    return safe_text(inflated:raw())
end

-- The type's name, the value's text, and its number if it has one; text nil where it doesn't decode.
local function value_of(wire, range)
    local size = range and range:len() or 0
    local type = FOLDED[wire] or wire
    if type == INT or type == UINT then
        local letter = type == INT and "i" or "u"
        if size ~= 1 and size ~= 2 and size ~= 4 and size ~= 8 then return letter .. "nt", nil end
        return letter .. size * 8, (type == INT and int_of or uint_of)(range)
    elseif type == FLOAT then
        if size ~= 4 and size ~= 8 then return "float", nil end
        return "f" .. size * 8, float_of(range)
    elseif type == NETINT then
        if size == 2 then return "port", uint_of(range) end
        if size == 4 then return "ip", tostring(range:ipv4()) end
        return "ip", nil
    elseif type == 2 then
        return "subject", range and subject_text(range)
    elseif type == 3 then
        return "datetime", size == 8 and date_text(range) or nil
    elseif type == 7 then
        return "opaque", hex_text(range)
    elseif type == 8 then
        return "string", range and safe_text(without_nul(range:raw())) or ""
    elseif type == 9 then
        if size == 0 then return "bool", nil end
        return "bool", range(0, 1):uint() == 1 and "true" or "false"
    elseif type == 22 then
        return "none", "null"
    elseif type == 47 then
        return "xml", xml_text(range)
    elseif type == 48 then
        return "string[]", strings_text(range)
    elseif ARRAYS[type] then
        local row = ARRAYS[type]
        return row[1], array_text(range, row[2], row[3])
    end
    return tostring(wire), hex_text(range)
end

-- ---- Messages ----

-- Calls visit(record range, name or nil, id, wire type, value offset, value size, class) for each
-- field of the message, offsets in `range`. Answers what is wrong, or nil.
local function each_field(range, visit)
    local at, last = 8, range:len()
    while at < last do
        local record, names = at, range(at, 1):uint()
        if names + 3 > last - at then return "a field's head runs past the end" end
        local name_size, id = names, 0
        if names >= 2 and range(at + names - 2, 1):uint() == 0 then
            name_size = names - 2
            id = range(at + names - 1, 2):uint()
        elseif names > 0 and range(at + names, 1):uint() ~= 0 then
            return "a field's name has no end"
        end
        local name = name_size > 0 and range(at + 1, name_size):raw():gsub("%z.*", "") or nil
        if names == 3 and id ~= 0 then name = "" end
        local type, class = range(at + names + 1, 1):uint(), range(at + names + 2, 1):uint()
        at = at + names + 3
        local length_bytes = class < 120 and 0 or class == 121 and 2 or class == 122 and 4 or nil
        if length_bytes == nil then return "a field has an invalid size" end
        if length_bytes > last - at then return "a field's size runs past the end" end
        local next_at = at + (length_bytes == 0 and class or range(at, length_bytes):uint())
        if next_at > last or next_at < at + length_bytes then return "a field's value runs past the end" end
        visit(range(record, next_at - record), name, id, type, at + length_bytes,
            next_at - at - length_bytes, class, at)
        at = next_at
    end
    return nil
end

local show_fields

-- A message inside a field: `range` begins at its head.
local function show_nested(tree, range, depth)
    if range:len() < 8 or range(4, 4):uint() ~= MESSAGE_MAGIC then
        return fault(tree, range, "a nested message has no head")
    end
    if depth >= MOST_NESTED then return end
    show_fields(tree, range, depth + 1)
end

local function show_message_array(tree, range, depth)
    if range == nil or range:len() < 4 then return fault(tree, nil, "an array without its count") end
    local at = 4
    for _ = 1, math.min(range(0, 4):uint(), MOST_ELEMENTS) do
        if at + 8 > range:len() then return fault(tree, range, "an array is shorter than its count") end
        local size = range(at, 4):uint()
        if size < 8 or at + size > range:len() then
            return fault(tree, range, "a message of an array runs past its end")
        end
        show_nested(tree:add(f.message, range(at, size)), range(at, size), depth)
        at = at + size
    end
end

local function show_field(tree, message, record, name, id, type, at, size, class, prefix_at, depth)
    local value = size > 0 and message(at, size) or nil
    local item = tree:add(f.field, record)
    if name ~= nil then item:add(f.name, record, safe_text(name)) end
    if id ~= 0 then item:add(f.id, record, id) end
    item:add(f.wire_type, record, type)
    item:add(f.size, record, size)
    local label = name ~= nil and safe_text(name) or "(no name)"
    if id ~= 0 then label = label .. "[" .. id .. "]" end
    if type == 1 or type == 49 then
        item:add(f.kind, record, type == 1 and "msg" or "msg[]")
        item:set_text("Field " .. label .. " (" .. (type == 1 and "msg" or "msg[]") .. ")")
        if type == 1 and class ~= 122 then return fault(item, record, "a nested message has no head") end
        if type == 1 then return show_nested(item, message(prefix_at, size + 4), depth) end
        return show_message_array(item, value, depth)
    end
    -- A packed subject begins at its own length, which is the prefix's.
    if type == 2 then value = class == 121 and message(prefix_at, size + 2) or nil end
    local kind, text, number = value_of(type, value)
    item:add(f.kind, record, kind)
    if text == nil then
        fault(item, record, "the value of a field doesn't decode")
        text = hex_text(value)
    end
    item:add(f.value, value or record, text)
    if number ~= nil then item:add(f.number, value or record, number) end
    item:set_text("Field " .. label .. " (" .. kind .. "): " .. text)
end

show_fields = function(tree, message, depth)
    local wrong = each_field(message, function(record, name, id, type, at, size, class, prefix_at)
        show_field(tree, message, record, name, id, type, at, size, class, prefix_at, depth)
    end)
    if wrong ~= nil then fault(tree, message, wrong) end
end

-- A message as it travels: its envelope, then the application's fields. Answers the subject.
local function show_message(tree, range, from)
    local item = tree:add(f.message, range)
    item:add(f.message_length, range(0, 4))
    item:add(f.message_magic, range(4, 4))
    local subject, last
    local wrong = each_field(range, function(...) last = { ... } end)
    if wrong ~= nil then fault(item, range, wrong) end
    local has_data = last ~= nil and last[2] == "data" and last[4] == 1 and last[7] == 122
    each_field(range, function(record, name, id, type, at, size, class, prefix_at)
        local value = size > 0 and range(at, size) or nil
        if name == "sub" and type == 2 and class == 121 then
            local text = subject_text(range(prefix_at, size + 2))
            if text == nil then return fault(item, record, "the subject is corrupt") end
            subject = text
            item:add(f.subject, record, text)
        elseif name == "return" and type == 8 and value then
            item:add(f.reply, record, safe_text(without_nul(value:raw())))
        elseif name == "mtype" and type == 8 and value then
            item:add(f.mtype, record, safe_text(without_nul(value:raw())))
        elseif name == "cid" and size == 2 then
            item:add(f.cid, value)
        elseif has_data and record:offset() == last[1]:offset() then
            show_nested(item, range(prefix_at, size + 4), 0)
        elseif not has_data then
            show_field(item, range, record, name, id, type, at, size, class, prefix_at, 0)
        end
    end)
    item:set_text("Message " .. (subject or "without a subject") .. ", " .. range:len() .. " bytes"
        .. (from or ""))
    return subject
end

-- Whole messages back to back. Answers the subjects, and what is left of a last one that runs on.
local function show_messages(tree, range, runs_on)
    local subjects, at = {}, 0
    while at < range:len() do
        local left = range:len() - at
        if left < 8 then
            if not runs_on then fault(tree, range(at), "a message's head runs past the end") end
            return subjects, range(at)
        end
        if range(at + 4, 4):uint() ~= MESSAGE_MAGIC then
            fault(tree, range(at, 8), "bad magic of a message")
            return subjects, nil
        end
        local length = range(at, 4):uint()
        if length < 8 then
            fault(tree, range(at, 8), "invalid message length")
            return subjects, nil
        end
        if length > left then
            if not runs_on then fault(tree, range(at), "message length greater than payload") end
            return subjects, range(at)
        end
        if length > 8 then
            local subject = show_message(tree, range(at, length))
            if subject ~= nil then subjects[#subjects + 1] = subject end
        end
        at = at + length
    end
    return subjects, nil
end

-- ---- The bus's packets ----

local function sender_key(pinfo, packet)
    return tostring(pinfo.src) .. " " .. packet.scid .. " " .. tostring(pinfo.dst) .. " " .. pinfo.dst_port
end

-- Follows the sender's numbers, on the first pass only.
local function follow(pinfo, packet)
    if pinfo.visited then return end
    local key = sender_key(pinfo, packet)
    local before = state.last_seq[key]
    if before ~= nil and before.epoch == packet.epoch and packet.seq <= before.seq then
        state.repeated[pinfo.number] = true
    else
        state.last_seq[key] = { epoch = packet.epoch, seq = packet.seq }
    end
    local frames = state.data_frames
    local wanted = tostring(pinfo.src) .. " " .. packet.seq
    if frames[wanted] == nil then frames[wanted] = pinfo.number end
end

-- Puts the parts of a message together, on the first pass only. `left` is the beginning of one that
-- runs on past this packet's end, or nil.
local function assemble(pinfo, packet, payload, left)
    if pinfo.visited or state.repeated[pinfo.number] then return end
    local key = sender_key(pinfo, packet)
    local open = state.open[key]
    if open ~= nil and packet.fragment >= 2 and packet.seq == open.seq + 1 and payload then
        local wanted = open.length - open.bytes:len()
        open.bytes:append(payload(0, math.min(wanted, payload:len())):bytes())
        open.frames[#open.frames + 1] = pinfo.number
        open.seq = packet.seq
        if open.bytes:len() >= open.length then
            state.whole[pinfo.number] = open
            state.open[key] = nil
        end
        return
    end
    if open ~= nil then
        state.broken[open.frames[#open.frames]] = "of " .. open.length .. " bytes "
            .. open.bytes:len() .. " came, then a part is missing"
        state.open[key] = nil
    end
    if left ~= nil and left:len() >= 8 and left(0, 4):uint() <= MOST_MESSAGE_BYTES then
        state.open[key] = {
            seq = packet.seq, length = left(0, 4):uint(), bytes = left:bytes(), frames = { pinfo.number },
        }
    end
end

local function show_whole(tree, pinfo)
    local whole = state.whole[pinfo.number]
    if whole ~= nil then
        local tvb = whole.bytes:tvb("Reassembled message")
        local subject = show_message(tree, tvb(0, whole.length), ", in " .. #whole.frames .. " packets")
        for _, frame in ipairs(whole.frames) do
            tree:add(f.parts, frame):set_generated()
        end
        return subject
    end
    local broken = state.broken[pinfo.number]
    if broken ~= nil then tree:add_proto_expert_info(e.gap, "Message without all of its parts: " .. broken) end
    return nil
end

local function dissect_data(tree, tvb, pinfo, packet)
    if tvb:len() < 32 then return tree:add_proto_expert_info(e.cut) end
    tree:add(f.seq, tvb(20, 4))
    tree:add(f.length, tvb(28, 2))
    packet.seq = tvb(20, 4):uint()
    local length = tvb(28, 2):int()
    if packet.type == 6 then
        if tvb:len() > 32 then tree:add(f.data, tvb(32)) end
        return
    end
    tree:add(f.fragment, tvb(30, 2))
    packet.fragment = tvb(30, 2):uint()
    if length <= 0 then fault(tree, tvb(28, 2), "invalid length") end
    local is_cut = tvb:reported_len() > tvb:len()
    if length > tvb:reported_len() - 32 then fault(tree, tvb(28, 2), "data larger than the UDP payload") end
    follow(pinfo, packet)
    if state.repeated[pinfo.number] then
        tree:add(f.repeated, true):set_generated()
        tree:add_proto_expert_info(e.again)
    end
    local payload = tvb:len() > 32 and tvb(32) or nil
    local subjects, left = {}, nil
    if payload and packet.fragment < 2 then
        subjects, left = show_messages(tree, payload, packet.fragment == 1 or is_cut)
    elseif payload then
        tree:add(f.data, payload)
    end
    assemble(pinfo, packet, payload, packet.fragment == 1 and not is_cut and left or nil)
    local subject = show_whole(tree, pinfo)
    if subject ~= nil then subjects[#subjects + 1] = subject end
    if is_cut then tree:add_proto_expert_info(e.cut) end
    return table.concat(subjects, ", ")
end

local function dissect_request(tree, tvb, pinfo)
    if tvb:len() < 24 then return tree:add_proto_expert_info(e.cut) end
    tree:add(f.list_bytes, tvb(20, 4))
    local bytes = tvb(20, 4):int()
    if bytes <= 0 or bytes % 4 ~= 0 then fault(tree, tvb(20, 4), "invalid length of the list") end
    for at = 24, math.min(tvb:len(), 24 + math.max(bytes, 0)) - 4, 4 do
        local item = tree:add(f.wanted, tvb(at, 4))
        -- It asks the host that it is sent to.
        local frame = state.data_frames[tostring(pinfo.dst) .. " " .. tvb(at, 4):uint()]
        if frame ~= nil then item:add(f.wanted_frame, frame):set_generated() end
    end
end

local function dissect_null(tree, tvb)
    if tvb:len() < 24 then return tree:add_proto_expert_info(e.cut) end
    tree:add(f.seq, tvb(20, 4))
    if tvb:len() >= 32 then
        tree:add(f.reliability, tvb(24, 8))
    elseif tvb:len() > 24 and tvb:reported_len() == tvb:len() then
        fault(tree, tvb(24), "null packet too small for its header")
    end
end

local function dissect_by_type(tree, tvb, pinfo, packet)
    if packet.type == 1 or packet.type == 6 then return dissect_data(tree, tvb, pinfo, packet) end
    if packet.type == 3 then return dissect_request(tree, tvb, pinfo) end
    if packet.type == 4 then return dissect_null(tree, tvb) end
    if TYPES[packet.type] == nil then fault(tree, tvb(16, 2), "invalid type " .. packet.type) end
    return nil
end

function pelmo.dissector(tvb, pinfo, root)
    if tvb:len() < 20 or tvb(0, 4):uint() ~= BUS_MAGIC then return 0 end
    pinfo.cols.protocol = "PELMO"
    local tree = root:add(pelmo, tvb())
    local epoch = tvb(8, 4):uint()
    local packet = {
        type = tvb(16, 2):int(), epoch = epoch, scid = epoch >= 0x80000000 and pinfo.src_port or 0,
        fragment = 0, seq = 0,
    }
    tree:add(f.magic, tvb(0, 4))
    tree:add(f.src, tvb(4, 4))
    tree:add(f.epoch, tvb(8, 4))
    tree:add(f.dst, tvb(12, 4))
    tree:add(f.type, tvb(16, 2))
    if tostring(pinfo.src):find("^%d+%.%d+%.%d+%.%d+$") then
        tree:add(f.sender, Address.ip(tostring(pinfo.src))):set_generated()
    end
    if packet.scid ~= 0 then tree:add(f.scid, packet.scid):set_generated() end
    local words = TYPES[packet.type] or ("type " .. packet.type)
    local subjects = dissect_by_type(tree, tvb, pinfo, packet)
    local info = words
    if packet.type == 1 then info = info .. " " .. packet.seq end
    if type(subjects) == "string" and subjects ~= "" then info = info .. " " .. subjects end
    pinfo.cols.info = info
    tree:append_text(", " .. info)
    return tvb:len()
end

pelmo:register_heuristic("udp", function(tvb, pinfo, root)
    if tvb:len() < 20 or tvb(0, 4):uint() ~= BUS_MAGIC then return false end
    pelmo.dissector(tvb, pinfo, root)
    return true
end)
DissectorTable.get("udp.port"):add_for_decode_as(pelmo)

-- ---- The stream to the daemon ----

-- The unit at `at`: its kind and size, or nil where the bytes are none. Size nil: more is needed.
local function unit_of(tvb, at)
    if tvb:len() - at < 8 then return "short", nil end
    local first, second = tvb(at, 4):uint(), tvb(at + 4, 4):uint()
    if second == MESSAGE_MAGIC and first >= 8 and first <= MOST_MESSAGE_BYTES then
        return first == 8 and "keep-alive" or "message", first
    end
    if first == 0 and second == 0 then return "close notice", 8 end
    if first == 0 and (second == 3 or second == 4) then return "greeting", 12 end
    if first <= 3 and second == 2 then return "hello", 64 end
    return nil, nil
end

local function show_unit(tree, tvb, at, size, kind)
    local range = tvb(at, size)
    if kind == "message" then return show_message(tree, range) end
    local item = tree:add(pelmo_stream, range)
    item:set_text(kind:sub(1, 1):upper() .. kind:sub(2))
    if kind == "greeting" then
        item:add(s.version, range(4, 4))
        item:add(s.local_daemon, range(8, 4))
    elseif kind == "hello" then
        item:add(s.hello, range(0, 4))
        item:add(s.version, range(4, 4))
        item:add(s.queue_limit, range(12, 2))
        item:add(s.format, range(14, 2))
        item:add(s.limit_a, range(20, 4))
        item:add(s.limit_b, range(24, 4))
    end
    return nil
end

function pelmo_stream.dissector(tvb, pinfo, root)
    if tvb:len() < tvb:reported_len() then return 0 end
    pinfo.cols.protocol = "PELMO-STREAM"
    local tree = root:add(pelmo_stream, tvb())
    local words, at = {}, 0
    while at < tvb:len() do
        local kind, size = unit_of(tvb, at)
        if kind == nil then
            tree:add_tvb_expert_info(e.fault, tvb(at), "bad magic in the stream")
            break
        end
        if size == nil or at + size > tvb:len() then
            pinfo.desegment_offset = at
            pinfo.desegment_len = size and at + size - tvb:len() or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        words[#words + 1] = show_unit(tree, tvb, at, size, kind) or kind
        at = at + size
    end
    if #words > 0 then pinfo.cols.info = table.concat(words, ", ", 1, math.min(#words, 20)) end
    return tvb:len()
end

pelmo_stream:register_heuristic("tcp", function(tvb, pinfo, root)
    if tvb:len() < 8 or tvb(4, 4):uint() ~= MESSAGE_MAGIC then return false end
    local length = tvb(0, 4):uint()
    if length < 8 or length > MOST_MESSAGE_BYTES then return false end
    pelmo_stream.dissector(tvb, pinfo, root)
    pinfo.conversation = pelmo_stream
    return true
end)
DissectorTable.get("tcp.port"):add(7500, pelmo_stream)

-- ---- The direct road ----

local FLAGS = { { 1, "FIN" }, { 2, "SYN" }, { 4, "RST" }, { 8, "closing" } }

local function flag_words(flags)
    local words = {}
    for _, row in ipairs(FLAGS) do
        if bit.band(flags, row[1]) ~= 0 then words[#words + 1] = row[2] end
    end
    return table.concat(words, " ")
end

local function checksum_of(tvb)
    local sum = 0
    for at = 0, 15 do sum = sum + tvb(at, 1):uint() end
    return bit.band(bit.bnot(sum), 0xffff)
end

-- Parts may come in any order and more than once.
local function keep_part(pinfo, key, total, offset, payload)
    if pinfo.visited or total > MOST_MESSAGE_BYTES then return end
    local parts = state.direct[key] or { total = total, have = 0, bytes = {}, frames = {} }
    state.direct[key] = parts
    if parts.total ~= total or parts.bytes[offset] ~= nil then return end
    if offset + payload:len() > total then return end
    parts.bytes[offset] = payload:bytes()
    parts.frames[#parts.frames + 1] = pinfo.number
    parts.have = parts.have + payload:len()
    if parts.have < total then return end
    local offsets, whole = {}, ByteArray.new()
    for at in pairs(parts.bytes) do offsets[#offsets + 1] = at end
    table.sort(offsets)
    for _, at in ipairs(offsets) do
        if at ~= whole:len() then return end
        whole:append(parts.bytes[at])
    end
    state.direct_whole[pinfo.number] = { bytes = whole, frames = parts.frames }
    state.direct[key] = nil
end

local function dissect_part(tree, tvb, pinfo, payload)
    local option = tvb(32, 20)
    tree:add(d.total, option(4, 4))
    tree:add(d.first, option(8, 8))
    tree:add(d.offset, option(16, 4))
    local key = table.concat({ tostring(pinfo.src), tostring(pinfo.dst), tostring(tvb(0, 4):uint()),
        tostring(tvb(4, 4):uint()), tostring(option(8, 8):uint64()) }, " ")
    if payload then keep_part(pinfo, key, option(4, 4):uint(), option(16, 4):uint(), payload) end
    local whole = state.direct_whole[pinfo.number]
    if whole == nil then return nil end
    for _, frame in ipairs(whole.frames) do tree:add(f.parts, frame):set_generated() end
    local subjects = show_messages(tree, whole.bytes:tvb("Reassembled message")(), false)
    return table.concat(subjects, ", ")
end

function pelmo_direct.dissector(tvb, pinfo, root)
    if tvb:len() < 32 then return 0 end
    pinfo.cols.protocol = "PELMO-DIRECT"
    local tree = root:add(pelmo_direct, tvb())
    tree:add(d.source_id, tvb(0, 4))
    tree:add(d.dest_id, tvb(4, 4))
    tree:add(d.seq, tvb(8, 8))
    tree:add(d.ack, tvb(16, 8))
    local flags = tree:add(d.flags, tvb(24, 1))
    for _, field in ipairs({ d.fin, d.syn, d.rst, d.notice }) do flags:add(field, tvb(24, 1)) end
    local shift = tvb(25, 1):uint()
    if shift <= 16 then tree:add(d.window, tvb(25, 3), tvb(26, 2):uint() * 2 ^ shift) end
    tree:add(d.options, tvb(29, 1))
    tree:add(d.checksum, tvb(30, 2))
    if tvb(30, 2):uint() ~= checksum_of(tvb) then fault(tree, tvb(30, 2), "invalid checksum") end
    local options = tvb(29, 1):uint()
    local subjects
    if 32 + options > tvb:len() then
        fault(tree, tvb(29, 1), "options run past the end")
    else
        local payload = tvb:len() > 32 + options and tvb(32 + options) or nil
        local is_part = options == 20 and tvb(32, 1):uint() == 4 and tvb(33, 1):uint() == 20
        if is_part then
            subjects = dissect_part(tree, tvb, pinfo, payload)
        elseif payload then
            subjects = table.concat((show_messages(tree, payload, false)), ", ")
        end
    end
    local words = flag_words(tvb(24, 1):uint())
    pinfo.cols.info = (words ~= "" and words .. " " or "") .. "seq " .. tostring(tvb(8, 8):uint64())
        .. " ack " .. tostring(tvb(16, 8):uint64()) .. (subjects and " " .. subjects or "")
    return tvb:len()
end
DissectorTable.get("udp.port"):add_for_decode_as(pelmo_direct)
