-- SPDX-License-Identifier: MIT
-- What passes between a host and its device, or an on-screen-display endpoint. The table `library`
-- comes before this text in the built file: luatables.cpp takes it from the library.
--
-- What bytes are depends on those before them. So it is decided once, when a packet is seen for the
-- first time, and kept as items, which are shown as often as Wireshark asks.

local device = Proto("coremanage", "Core_Manage")
local endpoint = Proto("coremanage.osd", "Core_Manage on-screen display")
local hid = Proto("coremanage.usb", "Core_Manage USB report")
local link = Proto("coremanage.link", "Core_Manage link")

local BLOCK_WAIT = 0.6 -- seconds that the library's parsers wait for a block
local FULL_DATAGRAM = 540 -- bytes: the host goes on with the same command in the next datagram
local REPORT = 65 -- bytes of an output report with its number
local BINARY_MARK = "\xF1\x1F" -- replies begin with it
local BROADCAST = "255.255.255.255"

-- Fields, expert infos, preferences ----------------------------------------------------------------

local fields, field_list = {}, {}
local function field(kind, name, ...)
    if not fields[name] then
        fields[name] = ProtoField[kind]("coremanage." .. name, ...)
        table.insert(field_list, fields[name])
    end
end
local media = {[1] = "udp", [2] = "serial", [3] = "vela", [4] = "usb", [5] = "osd"}
local happenings = {[0] = "sent", [1] = "received", [2] = "failed to be sent", [3] = "opened",
                    [4] = "closed", [5] = "lost", [6] = "re-initialised"}
local judged = {[0] = "Bad", [1] = "Good"}
for _, layout in ipairs({library.command, library.reply, library.binary_command,
                         library.binary_reply, library.osd}) do
    for _, entry in ipairs(layout) do
        field(entry.size == 2 and "uint16" or "uint8", entry.name:lower(), entry.name, base.HEX)
    end
end
field("string", "form", "Form")
field("bool", "update", "Update frame")
field("uint8", "checksum.right", "Right checksum", base.HEX)
field("uint8", "checksum.status", "Checksum status", base.DEC, judged)
field("bytes", "block", "Block")
field("uint32", "block.length", "Block length", base.DEC)
field("uint32", "block.announced", "Announced block length", base.DEC)
field("uint8", "block.checksum.status", "Block checksum status", base.DEC, judged)
field("framenum", "block.in", "Block in", base.NONE)
field("framenum", "block.of", "Block of", base.NONE)
field("bytes", "data", "Data")
field("uint32", "data.length", "Data length", base.DEC)
field("uint8", "status", "Status", base.HEX)
field("framenum", "response.in", "Response in", base.NONE, frametype.RESPONSE)
field("framenum", "response.to", "Response to", base.NONE, frametype.REQUEST)
field("relative_time", "response.time", "Response time")
field("bytes", "skipped", "Skipped bytes")
field("bytes", "padding", "Padding")
field("bytes", "part", "Part")
field("uint8", "link.version", "Version", base.DEC)
field("uint8", "link.medium", "Medium", base.DEC, media)
field("uint8", "link.what", "What", base.DEC, happenings)
field("string", "link.name", "Link")
device.fields = field_list

local experts, expert_list = {}, {}
local function expert_info(name, title, group, severity)
    experts[name] = ProtoExpert.new("coremanage.expert." .. name, title, group, severity)
    table.insert(expert_list, experts[name])
end
local group, severity = expert.group, expert.severity
expert_info("checksum", "Wrong checksum", group.CHECKSUM, severity.ERROR)
expert_info("digits", "Its digits are not all hexadecimal", group.PROTOCOL, severity.WARN)
expert_info("ending", "It does not end with >", group.PROTOCOL, severity.NOTE)
expert_info("short", "Too short for a frame", group.PROTOCOL, severity.WARN)
expert_info("block.length", "The block has another length than announced", group.PROTOCOL, severity.WARN)
expert_info("block.checksum", "Wrong block checksum", group.CHECKSUM, severity.ERROR)
expert_info("block.lost", "The block did not come", group.SEQUENCE, severity.WARN)
expert_info("block.unexpected", "Bytes that belong to no reply", group.SEQUENCE, severity.WARN)
expert_info("skipped", "Skipped bytes", group.UNDECODED, severity.WARN)
expert_info("unanswered", "No reply in this capture", group.SEQUENCE, severity.NOTE)
expert_info("failed", "It failed to be sent", group.SEQUENCE, severity.ERROR)
device.experts = expert_list

device.prefs.udp_ports = Pref.range("UDP ports", "1000,3005,5104", "Ports of devices and hosts", 65535)
device.prefs.tcp_ports = Pref.range("TCP ports", "10001", "Ports of on-screen-display endpoints", 65535)
device.prefs.full_segments = Pref.string("Full TCP segments (bytes)", "1428,1440,1448,1460,65483",
                                         "A command goes on behind a segment of so many bytes")
device.prefs.usb_products = Pref.string("USB products", table.concat(library.usb_products, ","),
                                        "Vendor and product ids of devices")
device.prefs.reply_within = Pref.uint("Reply within (ms)", 2000, "Later replies belong to no command")
device.prefs.short_blocks = Pref.bool("Short blocks on serial lines", false,
                                      "The host has set device type 0x290200")

-- Frames ---------------------------------------------------------------------------------------------

local function sum(bytes, first, last)
    local total = 0
    for i = first, last do
        total = total + bytes:byte(i)
    end
    return total % 256
end

-- The library reads digits as text of the locale: as UTF-8, where a character is one place.
local function places(digits)
    local text, at = "", 1
    while at <= #digits do
        local found = digits:match("^[\xC2-\xDF][\x80-\xBF]", at) or
                      digits:match("^\xE0[\xA0-\xBF][\x80-\xBF]", at) or
                      digits:match("^[\xE1-\xEC\xEE\xEF][\x80-\xBF][\x80-\xBF]", at) or
                      digits:match("^\xED[\x80-\x9F][\x80-\xBF]", at) or
                      digits:match("^\xF0[\x90-\xBF][\x80-\xBF][\x80-\xBF]", at) or
                      digits:match("^[\xF1-\xF3][\x80-\xBF][\x80-\xBF][\x80-\xBF]", at) or
                      digits:match("^\xF4[\x80-\x8F][\x80-\xBF][\x80-\xBF]", at) or
                      digits:sub(at, at)
        local blank = found == "\xC2\x85" or found == "\xC2\xA0"
        text = text .. (blank and " " or found:byte() < 0x80 and found or #found == 4 and "??" or "?")
        at = at + #found
    end
    return text
end

-- A pair that is no number counts as 0.
local function number(pair)
    local sign, digits = pair:match("^%s*([+-]?)(%x+)%s*$")
    local value = tonumber(digits or "0", 16)
    return sign == "-" and -value or value
end

local function word(bytes, at)
    return bytes[at] * 256 + bytes[at + 1]
end

local function new_frame(form, at, layout, body)
    local frame = {kind = "frame", form = form, at = at, layout = layout, body = body, values = {},
                   problems = {}}
    for _, entry in ipairs(layout) do
        frame.values[entry.name] = entry.size == 2 and word(body, entry.at + 1) or body[entry.at + 1]
    end
    frame.title = form
    return frame
end

local function judge_sum(frame, sent, right)
    frame.right, frame.good = right, sent == right
    if not frame.good then
        frame.problems.checksum = string.format("Wrong checksum: it is %02x, and %02x would be right",
                                                sent % 256, right)
    end
end

-- The text frame at `at`, or nil.
local function text_frame(bytes, at)
    local text = library.text
    if #bytes - at + 1 < text.length or bytes:sub(at, at) ~= text.start then
        return nil
    end
    local mark = bytes:sub(at + 1, at + 1)
    if mark ~= text.command and mark ~= text.reply then
        return nil
    end
    local digits = bytes:sub(at + text.digits, at + text.length - 2)
    local whole = digits:match("^%x+$")
    local read = whole and digits or places(digits:match("^[^\0]*"))
    local body, right, sent = {}, 0, 0
    for i = 1, #digits / 2 do
        sent = whole and tonumber(digits:sub(2 * i - 1, 2 * i), 16) or number(read:sub(2 * i - 1, 2 * i))
        body[i] = sent % 256
        right = right + (i < #digits / 2 and body[i] or 0)
    end
    local is_reply = mark == text.reply
    local frame = new_frame(is_reply and "reply" or "command", at - 1,
                            is_reply and library.reply or library.command, body)
    frame.length, frame.offset, frame.scale = text.length, text.digits, 2
    judge_sum(frame, sent, right % 256)
    if not whole then
        frame.problems.digits = true
    end
    if bytes:sub(at + text.length - 1, at + text.length - 1) ~= text.finish then
        frame.problems.ending = true
    end
    frame.announced = frame.values[library.announced.high] * 256 + frame.values[library.announced.low]
    frame.update = not is_reply and library.updates[read:sub(5, 8):lower()]
    return frame
end

local function binary_frame(bytes, at, is_reply)
    local length = library.binary.length
    if #bytes - at + 1 < length then
        return nil
    end
    local frame = new_frame("binary", at - 1, is_reply and library.binary_reply or library.binary_command,
                            {bytes:byte(at, at + length - 1)})
    frame.length, frame.offset, frame.scale = length, 0, 1
    judge_sum(frame, frame.body[length], sum(bytes, at, at + length - 2))
    frame.announced = frame.values[library.binary.announced]
    return frame
end

local function reply_kind(frame)
    local of_command = library.kinds[frame.values.CMD] or {}
    return of_command[frame.values.DAT1] or of_command.others or library.standard
end

local function osd_command(bytes)
    local shortest = library.endpoint.head + library.endpoint.tail
    if #bytes < shortest then
        return {kind = "frame", title = "too short", at = 0, length = #bytes, values = {}, layout = {},
                problems = {short = "A command has at least " .. shortest .. " bytes"}}
    end
    local body, layout = {}, {}
    for _, entry in ipairs(library.osd) do
        local at = entry.at < 0 and #bytes + entry.at or entry.at
        body[at + 1] = bytes:byte(at + 1)
        table.insert(layout, {name = entry.name, at = at, size = entry.size})
    end
    local frame = new_frame("command", 0, layout, body)
    frame.length, frame.offset, frame.scale = #bytes, 0, 1
    frame.data = {at = library.endpoint.head, length = #bytes - shortest}
    return frame
end

-- Commands and their replies -------------------------------------------------------------------------

-- A queue of commands that nothing has answered, for each code and receiver of them.
local function queue_of(flow, code, to)
    local key = (code or "") .. "|" .. (to or "")
    flow.asked[key] = flow.asked[key] or {first = 1, last = 0}
    return flow.asked[key]
end

local function asked(flow, frame, to)
    local queue = queue_of(flow, frame.values.CMD, to)
    queue.last = queue.last + 1
    queue[queue.last] = frame
    frame.asks = true
end

local function answered(flow, frame, from)
    for _, to in ipairs({from or "", BROADCAST}) do
        local queue = queue_of(flow, frame.values.CMD, to)
        local function late(request)
            return request and (frame.time - request.time) * 1000 > device.prefs.reply_within
        end
        while late(queue[queue.first]) do
            queue[queue.first] = nil
            queue.first = queue.first + 1
        end
        local request = queue[queue.first]
        if request then
            queue[queue.first] = nil
            queue.first, queue.latest = queue.first + 1, request
            request.response = frame.number
        end
        request = request or queue.latest -- several replies to one command
        if request and not late(request) then
            frame.request = request
            return
        end
    end
end

-- Datagrams ------------------------------------------------------------------------------------------

local function has_other_length(frame, length)
    if frame.announced ~= length then
        frame.problems["block.length"] = string.format("It announces %d block bytes and has %d",
                                                       frame.announced, length)
    end
end

local function datagram_to_device(flow, bytes, packet)
    local frame = text_frame(bytes, 1)
    if frame and frame.form == "command" then
        local has = #bytes - frame.length
        flow.open = nil
        if #bytes == FULL_DATAGRAM and has < frame.announced then
            flow.open = {frame = frame, bytes = bytes:sub(frame.length + 1)}
        elseif has > 0 then
            has_other_length(frame, has)
        end
        if has > 0 then
            frame.block = {at = frame.length, length = has, whole = flow.open == nil}
        end
        packet:add(frame)
        asked(flow, frame, packet.to)
    elseif flow.open then
        local open = flow.open
        open.bytes = open.bytes .. bytes
        local item = {kind = "block", at = 0, length = #bytes, of = open.frame, problems = {},
                      bytes = open.bytes, title = "block, goes on"}
        if #bytes ~= FULL_DATAGRAM or #open.bytes >= open.frame.announced then
            item.whole, item.title = true, "block"
            has_other_length({announced = open.frame.announced, problems = item.problems}, #open.bytes)
            open.frame.block_in = packet.number
            flow.open = nil
        end
        packet:add(item)
    else
        packet:add({kind = "noise", at = 0, length = #bytes, problems = {skipped = "Not a command"}})
    end
end

-- As the library joins them: what is no reply is the block of the last reply that waits for one.
local function datagram_to_host(flow, bytes, packet)
    local frame = #bytes == library.text.length and text_frame(bytes, 1)
    local reply = flow.waiting
    if frame and frame.form == "reply" then
        local values = frame.values
        local is_valid = frame.good and (values.ADDR ~= 0 or values.CMD ~= 0 or values.CHKSUM ~= 0)
        packet:add(frame)
        if is_valid then
            answered(flow, frame, packet.from)
            local kind = reply_kind(frame)[1]
            if kind == "None" or kind == "Immediate" or
               (kind == "AnnouncedIfAny" and frame.announced == 0) then
                return
            end
            frame.fixed = library.lengths[kind]
            frame.wanted = frame.fixed or frame.announced
        end
        if reply then
            reply.problems["block.lost"] = "Its block did not come before frame " .. packet.number
        end
        flow.waiting = is_valid and frame or nil
        return
    end
    flow.waiting = nil
    local item = {kind = "block", at = 0, length = #bytes, of = reply, problems = {}, whole = true}
    if not reply then
        item.title = "no reply"
        item.problems["block.unexpected"] = #bytes .. " bytes that belong to no reply"
    else
        local wanted = reply.wanted
        if wanted ~= 0 and (reply.fixed or wanted < 0x8000) then
            item.length = math.min(#bytes, wanted)
        end
        if not reply.fixed and (wanted ~= item.length or wanted == 0) then
            item.problems["block.length"] =
                string.format("The reply announces %d block bytes, and %d came", wanted, #bytes)
        end
        reply.block_in = packet.number
    end
    packet:add(item)
    if item.length < #bytes then
        packet:add({kind = "noise", at = item.length, length = #bytes - item.length, problems = {skipped = true}})
    end
end

-- Streams --------------------------------------------------------------------------------------------

-- What stands at `at` of a stream of text frames: a frame, or how many bytes are none, or nil as long
-- as that cannot be known.
local function next_text(bytes, at, mark)
    local text = library.text
    local start = bytes:find(text.start, at, true)
    if start ~= at then
        return nil, (start or #bytes + 1) - at
    end
    if #bytes > at and bytes:sub(at + 1, at + 1) ~= mark then
        return nil, 1
    end
    if #bytes - at + 1 < text.length then
        return nil, nil
    end
    local frame = text_frame(bytes, at)
    if frame.problems.ending then
        return nil, 1
    end
    return frame
end

local function next_binary(bytes, at, is_reply)
    if is_reply then
        local start = bytes:find(BINARY_MARK, at, true)
        if not start then -- the mark's second byte may still come
            start = bytes:sub(-1) == BINARY_MARK:sub(1, 1) and #bytes or #bytes + 1
        end
        if start ~= at then
            return nil, start - at
        end
    end
    return binary_frame(bytes, at, is_reply), nil
end

local function block_length(frame, stream, packet)
    if stream.is_binary or not stream.is_reply then
        return frame.announced
    end
    local _, kind, may_be_short = table.unpack(reply_kind(frame))
    if may_be_short and packet.is_serial and device.prefs.short_blocks then
        return library.lengths.short
    end
    return kind == "Announced" and frame.announced or library.lengths[kind] or 0
end

-- Whether the bytes at `at` are the block of a waiting text command, or another command: one may
-- announce a block and send none. Nil as long as that cannot be known.
local function is_block(bytes, at)
    local frame, count = next_text(bytes, at, library.text.command)
    if frame or count and count > 0 then
        return not (frame and frame.good)
    end
end

local function take_block(stream, bytes, at, packet)
    local head = stream.waiting
    local block = {kind = "block", at = at - 1, length = head.wanted, of = head, problems = {}, whole = true}
    if stream.is_reply then
        local last = at + head.wanted - 1
        block.good = sum(bytes, at, last - 1) == bytes:byte(last)
        block.problems["block.checksum"] = not block.good or nil
    end
    if head.number == packet.number and head.at + head.length == block.at then
        head.block = block
    else
        head.block_in = packet.number
        packet:add(block)
    end
    stream.waiting = nil
end

local function give_up_block(stream, at, packet)
    local head = stream.waiting
    head.problems["block.lost"] = "Its block did not come"
    packet:add({kind = "lost", at = at - 1, length = 0, of = head, problems = {
        ["block.lost"] = "The block of frame " .. head.number .. " did not come in time"}})
    stream.waiting = nil
end

-- Cuts what can be cut, and returns the length of that.
local function cut_stream(stream, bytes, packet)
    local is_reply, is_binary = stream.is_reply, stream.is_binary
    local mark = is_reply and library.text.reply or library.text.command
    local at, shown = 1, 1
    local function skip(count)
        local from = math.max(at, shown) -- a damaged frame has been shown
        at = at + count
        if from < at then
            packet:skip(from - 1, at - from, packet.is_padded and not bytes:find("[^\0]", from))
            shown = at
        end
    end
    local function take_frame(frame)
        packet:add(frame)
        shown = math.max(shown, at + frame.length)
        if not frame.good then
            skip(1)
            return
        end
        at = at + frame.length
        frame.wanted = block_length(frame, stream, packet)
        stream.waiting = frame.wanted > 0 and frame or nil
        local note = is_reply and answered or asked
        note(packet.flow, frame)
        if packet.is_padded and frame.update and frame.length + frame.wanted >= REPORT - 1 and
           not bytes:find("[^\0]", at) then
            skip(#bytes - at + 1) -- the block begins in the next report
        end
    end
    while at <= #bytes do
        local waiting = stream.waiting
        if waiting and is_reply and packet.time - waiting.time > BLOCK_WAIT then
            give_up_block(stream, at, packet)
        elseif waiting and not is_reply and not is_binary and not waiting.has_block then
            local answer = is_block(bytes, at)
            if answer == nil then
                break
            end
            waiting.has_block = true
            stream.waiting = answer and waiting or nil
        elseif waiting then
            if #bytes - at + 1 < waiting.wanted then
                break
            end
            take_block(stream, bytes, at, packet)
            at = at + waiting.wanted
            shown = at
        else
            local frame, count
            if is_binary then
                frame, count = next_binary(bytes, at, is_reply)
            else
                frame, count = next_text(bytes, at, mark)
            end
            if count or frame and is_binary and not is_reply and not frame.good then
                skip(count or 1) -- a binary command has no mark: every byte may begin one
            elseif frame then
                take_frame(frame)
            else
                break
            end
        end
    end
    return at - 1
end

local function cut_acknowledgements(_, bytes, packet)
    local mark, length = library.endpoint.mark, library.endpoint.acknowledgement
    local at = 1
    while at <= #bytes do
        local start = bytes:find(mark, at, true)
        if not start then -- its last bytes may be where a mark begins
            start = bytes:sub(-1) == mark:sub(1, 1) and #bytes or #bytes + 1
        end
        if start > at then
            packet:skip(at - 1, start - at)
        end
        at = start
        if #bytes - at + 1 < length then
            break
        end
        local frame = new_frame("reply", at - 1, {}, {})
        frame.length, frame.status = length, bytes:byte(at + length - 1)
        packet:add(frame)
        answered(packet.flow, frame)
        at = at + length
    end
    return at - 1
end

local function whole_osd_command(_, bytes, packet)
    local frame = osd_command(bytes)
    packet:add(frame)
    asked(packet.flow, frame)
    return #bytes
end

-- What was decided -----------------------------------------------------------------------------------

local flows, decided, roles = {}, {}, {}

function device.init()
    flows, decided, roles = {}, {}, {}
end

local function flow_of(key)
    flows[key] = flows[key] or {asked = {}, streams = {}}
    return flows[key]
end

local Packet = {}
Packet.__index = Packet

local function packet_of(pinfo, flow)
    return setmetatable({number = pinfo.number, time = pinfo.rel_ts, items = {}, flow = flow}, Packet)
end

function Packet:add(item)
    item.number, item.time, item.body = self.number, self.time, nil
    table.insert(self.items, item)
end

function Packet:skip(at, length, is_padding)
    local last = self.items[#self.items]
    if last and last.kind == "noise" and last.at + last.length == at and last.is_padding == is_padding then
        last.length = last.length + length
    else
        self:add({kind = "noise", at = at, length = length, is_padding = is_padding,
                  problems = {skipped = not is_padding or nil}})
    end
end

-- What `decide` makes of a packet, once for each place in each packet.
local function once(pinfo, tvb, decide)
    local key = pinfo.number .. ":" .. tvb:offset()
    decided[key] = decided[key] or decide()
    return decided[key]
end

-- A stream's bytes come in any pieces: what is left of the last one goes before this one.
local function take_piece(stream, cut, bytes, packet)
    packet.prefix = stream.rest or ""
    local joined = packet.prefix .. bytes
    local used = cut(stream, joined, packet)
    stream.rest = joined:sub(used + 1)
    if #packet.items == 0 then -- long blocks come in many pieces: none keeps those before it
        packet.prefix = nil
        packet:add({kind = "part", at = 0, length = #bytes, has = #joined, of = stream.waiting, problems = {}})
    elseif #stream.rest > 0 then
        packet:add({kind = "part", at = used, length = #stream.rest, has = #stream.rest,
                    of = stream.waiting, problems = {}})
    end
    return packet
end

-- Showing --------------------------------------------------------------------------------------------

local function hexadecimal(value, size)
    return string.format(size == 2 and "%04x" or "%02x", value)
end

local function line_of(item)
    if item.kind == "noise" then
        return (item.is_padding and "padding" or "skipped") .. ", " .. item.length .. " bytes"
    elseif item.kind == "part" then
        return item.of and string.format("part of a block, %d of %d bytes", item.has, item.of.wanted) or
               "part of a frame"
    elseif item.kind == "lost" then
        return "block lost"
    elseif item.kind == "block" then
        return (item.title or "block") .. ", " .. (item.bytes and #item.bytes or item.length) .. " bytes"
    end
    local words = {item.update and "update" or item.title}
    for _, entry in ipairs(item.layout) do
        table.insert(words, entry.name .. " " .. hexadecimal(item.values[entry.name], entry.size))
    end
    if item.status then
        table.insert(words, "OK " .. hexadecimal(item.status, 1))
    end
    local attached = item.block or item.data
    if attached and attached.length > 0 then
        table.insert(words, (item.block and "block " or "data ") .. attached.length .. " bytes")
    end
    return table.concat(words, " ")
end

local function add_generated(tree, ...)
    tree:add(...):set_generated()
end

local function show_block(tree, tvb, block)
    if block.length > 0 then
        tree:add(fields.block, tvb(block.at, block.length))
    end
    if block.whole then
        add_generated(tree, fields["block.length"], block.length)
    end
    if block.good ~= nil then
        add_generated(tree, fields["block.checksum.status"], block.good and 1 or 0)
    end
end

local function show_frame(tree, tvb, item, pinfo)
    if item.title == item.form then
        add_generated(tree, fields.form, item.form)
    end
    for _, entry in ipairs(item.layout) do
        tree:add(fields[entry.name:lower()],
                 tvb(item.at + item.offset + item.scale * entry.at, item.scale * entry.size),
                 item.values[entry.name])
    end
    if item.good ~= nil then
        add_generated(tree, fields["checksum.right"], item.right)
        add_generated(tree, fields["checksum.status"], item.good and 1 or 0)
    end
    if item.update then
        add_generated(tree, fields.update, true)
    end
    if item.status then
        tree:add(fields.status, tvb(item.at + item.length - 1, 1))
    end
    if item.data then
        add_generated(tree, fields["data.length"], item.data.length)
        if item.data.length > 0 then
            tree:add(fields.data, tvb(item.data.at, item.data.length))
        end
    end
    if item.wanted then
        add_generated(tree, fields["block.announced"], item.wanted)
    end
    if item.block then
        show_block(tree, tvb, item.block)
    elseif item.block_in then
        add_generated(tree, fields["block.in"], item.block_in)
    end
    if item.request then
        add_generated(tree, fields["response.to"], item.request.number)
        local elapsed = math.max(item.time - item.request.time, 0)
        local seconds = math.floor(elapsed)
        add_generated(tree, fields["response.time"],
                      NSTime.new(seconds, math.floor((elapsed - seconds) * 1e9 + 0.5)))
    elseif item.response then
        add_generated(tree, fields["response.in"], item.response)
    elseif item.asks and pinfo.visited then -- by now all packets have been seen
        tree:add_proto_expert_info(experts.unanswered)
    end
end

local function show_problems(tree, problems)
    for name, text in pairs(problems) do
        if text == true then
            tree:add_proto_expert_info(experts[name])
        else
            tree:add_proto_expert_info(experts[name], text)
        end
    end
end

local function show(packet, tvb, pinfo, tree)
    if packet.prefix and #packet.prefix > 0 then
        local joined = ByteArray.new(packet.prefix, true)
        joined:append(tvb:bytes())
        tvb = joined:tvb("Joined pieces")
    end
    pinfo.cols.protocol = "Core_Manage"
    local lines = {}
    for _, item in ipairs(packet.items) do
        local line = line_of(item)
        local extent = item.length + (item.block and item.block.length or 0)
        if item.block and item.block.at == item.length and packet.is_whole then
            extent = tvb:len()
        end
        local branch = tree:add(device, tvb(item.at, math.min(extent, tvb:len() - item.at)), "Core_Manage, " .. line)
        local range = tvb(item.at, item.length)
        if item.kind == "frame" then
            show_frame(branch, tvb, item, pinfo)
        elseif item.kind == "noise" then
            branch:add(item.is_padding and fields.padding or fields.skipped, range)
        elseif item.kind == "part" then
            branch:add(fields.part, range)
        elseif item.kind == "block" then
            if item.bytes and item.whole then
                local joined = ByteArray.new(item.bytes, true):tvb("Joined block")
                show_block(branch, joined, {at = 0, length = #item.bytes, whole = true})
            elseif item.of then
                show_block(branch, tvb, item)
            end
        end
        if item.of and item.of.number ~= packet.number then
            add_generated(branch, fields["block.of"], item.of.number)
        end
        if packet.failed then
            branch:add_proto_expert_info(experts.failed)
        end
        show_problems(branch, item.problems)
        if not item.is_padding then
            table.insert(lines, line)
        end
    end
    if #lines > 0 then
        pinfo.cols.info = table.concat(lines, "; ")
    end
end

-- Where bytes come from ------------------------------------------------------------------------------

-- No field of another protocol may decide: in a first pass there are none.

-- Who sends a datagram is known from the frames that it sent, else from the ports.
local function is_from_host(pinfo, bytes, source)
    local text = library.text
    local mark = bytes:sub(text.digits, text.digits)
    if bytes:sub(1, 1) == text.start and (mark == text.command or mark == text.reply) and
       bytes:match("^%x+", text.digits + 1) == bytes:sub(text.digits + 1, text.length - 1) and
       (mark == text.command or #bytes == text.length) then
        roles[source] = mark
    end
    if roles[source] then
        return roles[source] == library.text.command
    end
    return pinfo.src_port == 5104 or pinfo.dst_port == 1000
end

function device.dissector(tvb, pinfo, tree)
    local packet = once(pinfo, tvb, function()
        local bytes = tvb:raw()
        local source, target = tostring(pinfo.src), tostring(pinfo.dst)
        local from_host = is_from_host(pinfo, bytes, source .. " " .. pinfo.src_port)
        local host = from_host and source .. " " .. pinfo.src_port or target .. " " .. pinfo.dst_port
        local made = packet_of(pinfo, pinfo.in_error_pkt and {asked = {}, streams = {}} or flow_of(host))
        made.from, made.to = source, target
        local take = from_host and datagram_to_device or datagram_to_host
        take(made.flow, bytes, made)
        return made
    end)
    show(packet, tvb, pinfo, tree)
    return tvb:len()
end

-- A command has no length, so it ends with the first segment that is not a full one.
local function goes_on(length)
    for size in device.prefs.full_segments:gmatch("%d+") do
        if length % tonumber(size) == 0 then
            return true
        end
    end
end

function endpoint.dissector(tvb, pinfo, tree)
    local to_endpoint = pinfo.match_uint == pinfo.dst_port
    if to_endpoint and pinfo.can_desegment > 0 and goes_on(tvb:len()) then
        pinfo.desegment_offset, pinfo.desegment_len = 0, DESEGMENT_ONE_MORE_SEGMENT
        return tvb:len()
    end
    local packet = once(pinfo, tvb, function()
        local source, target = tostring(pinfo.src) .. " " .. pinfo.src_port,
                               tostring(pinfo.dst) .. " " .. pinfo.dst_port
        local made = packet_of(pinfo, flow_of("tcp " .. (to_endpoint and source or target)))
        local take = to_endpoint and whole_osd_command or cut_acknowledgements
        made.used = take(nil, tvb:raw(), made)
        return made
    end)
    show(packet, tvb, pinfo, tree)
    if packet.used < tvb:len() and pinfo.can_desegment > 0 then
        pinfo.desegment_offset, pinfo.desegment_len = packet.used, DESEGMENT_ONE_MORE_SEGMENT
    end
    return tvb:len()
end

local function take_of_stream(flow, medium, from_host, bytes, packet)
    local stream = flow.streams[from_host]
    if not stream then
        stream = {is_reply = not from_host, is_binary = medium == "vela"}
        flow.streams[from_host] = stream
    end
    packet.is_serial, packet.is_padded = medium == "serial", medium == "usb"
    local cut = cut_stream
    if medium == "osd" then
        cut = from_host and whole_osd_command or cut_acknowledgements
    end
    return take_piece(stream, cut, bytes, packet)
end

-- A report without the number before it.
local function report_of(tvb, from_host)
    return from_host and tvb:len() == REPORT and tvb(0, 1):uint() == 0 and tvb(1):tvb() or tvb
end

function hid.dissector(tvb, pinfo, tree)
    local from_host = tostring(pinfo.src) == "host"
    local report = report_of(tvb, from_host)
    local packet = once(pinfo, tvb, function()
        local address = tostring(from_host and pinfo.dst or pinfo.src):match("^%d+%.%d+")
        local flow = flow_of("usb " .. (address or ""))
        return take_of_stream(flow, "usb", from_host, report:raw(), packet_of(pinfo, flow))
    end)
    show(packet, report, pinfo, tree)
    return tvb:len()
end

function link.dissector(tvb, pinfo, tree)
    local length = tvb:len() >= 4 and tvb(3, 1):uint()
    if not length or tvb:len() < 4 + length or tvb(0, 1):uint() ~= 1 or not media[tvb(1, 1):uint()] then
        return 0
    end
    local medium, what = media[tvb(1, 1):uint()], tvb(2, 1):uint()
    local branch = tree:add(link, tvb(0, 4 + length))
    branch:add(fields["link.version"], tvb(0, 1))
    branch:add(fields["link.medium"], tvb(1, 1))
    branch:add(fields["link.what"], tvb(2, 1))
    branch:add(fields["link.name"], tvb(4, length))
    if what > 2 or tvb:len() == 4 + length then
        pinfo.cols.protocol = "Core_Manage"
        pinfo.cols.info = (happenings[what] or "") .. " " .. tvb(4, length):string()
        if what > 2 and not pinfo.visited then
            flows[tvb(4, length):string()] = nil
        end
        return tvb:len()
    end
    local from_host = what ~= 1
    local rest = tvb(4 + length):tvb()
    if medium == "usb" then
        rest = report_of(rest, from_host)
    end
    local packet = once(pinfo, tvb, function()
        local flow = what == 2 and {asked = {}, streams = {}} or flow_of(tvb(4, length):string())
        local made = packet_of(pinfo, flow)
        made.failed = what == 2
        if medium == "udp" then
            local take = from_host and datagram_to_device or datagram_to_host
            take(flow, rest:raw(), made)
            return made
        end
        return take_of_stream(flow, medium, from_host, rest:raw(), made)
    end)
    show(packet, rest, pinfo, tree)
    return tvb:len()
end

-- Where Wireshark finds them -------------------------------------------------------------------------

local added = {}

local function add(name, pattern, dissector)
    DissectorTable.get(name):add(pattern, dissector)
    table.insert(added, {name, pattern, dissector})
end

local function take_preferences()
    for _, entry in ipairs(added) do
        DissectorTable.get(entry[1]):remove(entry[2], entry[3])
    end
    added = {}
    if device.prefs.udp_ports ~= "" then
        add("udp.port", device.prefs.udp_ports, device)
    end
    if device.prefs.tcp_ports ~= "" then
        add("tcp.port", device.prefs.tcp_ports, endpoint)
    end
    for vendor, product in device.prefs.usb_products:gmatch("(%x+):(%x+)") do
        add("usb.product", tonumber(vendor, 16) * 0x10000 + tonumber(product, 16), hid)
    end
end
device.prefs_changed = take_preferences
take_preferences()
DissectorTable.get("usb.device"):add_for_decode_as(hid)
