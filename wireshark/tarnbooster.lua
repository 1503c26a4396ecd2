-- Dissectors for the performance service's protocol (docs/protocol.md): requests, replies and pushes, and the
-- reliable UDP transport that can carry them.
--
--   tshark    -r FILE -X lua_script:wireshark/tarnbooster.lua
--   wireshark -X lua_script:wireshark/tarnbooster.lua FILE      (or a copy in the folder of personal plugins)
--
-- "tarnbooster" takes what `tarnbooster record` writes: one packet per message, or consecutive pieces of a long
-- one. "tarnbooster_udp" takes datagrams, recorded or captured; it finds them on any port by their checksum.
--
-- Everything that depends on earlier packets is worked out once, when a packet is seen for the first time, and
-- kept by packet number; drawing a packet again only reads it. A capture is not to be trusted: each byte is
-- checked to be there before it is read, and what is kept or shown of one message, or of all, is bounded.

local message = Proto("tarnbooster", "TarnBooster performance service")
local datagram = Proto("tarnbooster_udp", "TarnBooster reliable UDP transport")

local bits = bit32 or bit

local HEADER = 32             -- bytes
local MAGIC = 0x48444352      -- the bytes "RCDH"
local VERSION = 4
local MAX_REQUEST_BODY = 16 * 1024 * 1024 -- what the reference service accepts
local UDP_HEADER = 28         -- bytes
local UDP_PAYLOAD = 1000      -- bytes at most
local UDP_SENDS = 6           -- of one packet, then it is given up
local MAX_SHOWN = 2000        -- fields of one message, messages of one packet
local MAX_KEPT = 256 * 1024 * 1024 -- bytes of messages put together, in all

-- ---- Names ------------------------------------------------------------------------------------------------

-- Kinds of fields: i32, i64, text, bytes; a trailing "*" says repeated, all others are required.
local REQUESTS = {
  [1001] = { "checkPermission" },
  [1002] = { "requestCpuHighFreq", "RequestCPUHighFreq",
    { "scene", "i32" }, { "level", "i32" }, { "timeoutms", "i32" }, { "action", "i64" } },
  [1003] = { "cancelCpuHighFreq" },
  [1004] = { "requestCpuCoreForThread", "RequestCPUCoreForThread",
    { "scene", "i32" }, { "bindtids", "i32*" }, { "timeout", "i32" }, { "action", "i64" } },
  [1005] = { "cancelCpuCoreForThread", "CancelCPUCoreForThread", { "bindtids", "i32*" } },
  [1006] = { "requestHighIOFreq", "RequestHighIOFreq",
    { "scene", "i32" }, { "level", "i32" }, { "timeoutms", "i32" }, { "action", "i64" } },
  [1007] = { "cancelHighIOFreq" },
  [1008] = { "requestScreenResolution", "RequestScreenResolution", { "level", "i32" }, { "uiName", "text" } },
  [1009] = { "resetScreenResolution" },
  [1010] = { "registerANRCallback" },
  [1011] = { "registerBootPreloadResource", "RequestBootPreLoadResource", { "files", "text*" } },
  [1012] = { "terminateApp" },
  [1013] = { "requestUnifyCpuIOThreadCore", "RequestUnifyCPUIOThreadCore",
    { "scene", "i32" }, { "cpulevel", "i32" }, { "iolevel", "i32" }, { "bindtids", "i32*" },
    { "timeout", "i32" }, { "action", "i64" } },
  [1014] = { "cancelUnifyCpuIOThreadCore", "CancelUnifyCPUIOThreadCore",
    { "cancelcpu", "i32" }, { "cancelio", "i32" }, { "cancelthread", "i32" }, { "bindtids", "i32*" } },
}
local PUSH = { "push", "DataCallback", { "code", "i32" }, { "data", "bytes" } }
local PUSH_FUNCID = 1010

local STATUS_NAMES = { -- the reference service's (shared/Status.cpp); another service may use any numbers
  [0] = "done", [1] = "partly done", [2] = "no such request", [3] = "bad argument",
  [4] = "not available, nothing to set", [5] = "no right", [6] = "not the process's own", [7] = "process unknown",
  [8] = "too many boosts", [9] = "failed",
}
local TYPE_NAMES = { [1] = "DATA", [2] = "ACK", [4] = "SYN", [5] = "FIN" }

local FUNCID_NAMES = {}
for funcid, request in pairs(REQUESTS) do FUNCID_NAMES[funcid] = request[1] end

local function funcName(funcid)
  return funcid .. " " .. (FUNCID_NAMES[funcid] or "unknown request")
end

-- ---- Fields -----------------------------------------------------------------------------------------------

local LABELS = {
  scene = "Scene", level = "Level", timeoutms = "Timeout (ms)", timeout = "Timeout", action = "Action",
  bindtids = "Thread id", cpulevel = "CPU level", iolevel = "I/O level", cancelcpu = "Cancel CPU",
  cancelio = "Cancel I/O", cancelthread = "Cancel thread binding", uiName = "User interface", files = "File",
  code = "Code", data = "Data",
}

local f = {
  kind = ProtoField.string("tarnbooster.kind", "Kind"),
  magic = ProtoField.uint32("tarnbooster.magic", "Magic", base.HEX),
  version = ProtoField.uint16("tarnbooster.version", "Version"),
  funcid = ProtoField.uint16("tarnbooster.funcid", "Function identifier", base.DEC, FUNCID_NAMES),
  status = ProtoField.int32("tarnbooster.status", "Status", base.DEC, STATUS_NAMES),
  dataLen = ProtoField.uint32("tarnbooster.data_len", "Body length"),
  sendTime = ProtoField.int64("tarnbooster.send_time", "Send time (us)"),
  callertid = ProtoField.uint32("tarnbooster.callertid", "Calling thread"),
  word16 = ProtoField.uint64("tarnbooster.word16", "Word at 16 (not used by the library)"),
  timestamp = ProtoField.int64("tarnbooster.timestamp", "Time stamp (ns)"),
  body = ProtoField.bytes("tarnbooster.body", "Body"),
  name = ProtoField.string("tarnbooster.message", "Message"),
  unknown = ProtoField.bytes("tarnbooster.unknown_field", "Unknown field"),
  unframed = ProtoField.bytes("tarnbooster.unframed", "Bytes that belong to no message"),
  piece = ProtoField.bytes("tarnbooster.piece", "Piece of a body"),
  pieceIn = ProtoField.framenum("tarnbooster.continues_in", "Message begins in"),
  repliedIn = ProtoField.framenum("tarnbooster.reply_in", "Reply in", base.NONE, frametype.RESPONSE),
  replyTo = ProtoField.framenum("tarnbooster.reply_to", "Reply to", base.NONE, frametype.REQUEST),
  replyTime = ProtoField.relative_time("tarnbooster.reply_time", "Time since the request"),
}
local kinds = { i32 = ProtoField.int32, i64 = ProtoField.int64, text = ProtoField.string, bytes = ProtoField.bytes }
for _, request in pairs(REQUESTS) do
  for i = 3, #request do
    local name, kind = request[i][1], request[i][2]:gsub("%*", "")
    f[name] = f[name] or kinds[kind]("tarnbooster." .. name, LABELS[name])
  end
end
for i = 3, #PUSH do f[PUSH[i][1]] = kinds[PUSH[i][2]]("tarnbooster." .. PUSH[i][1], LABELS[PUSH[i][1]]) end
local function listOf(fields)
  local list = {}
  for _, field in pairs(fields) do list[#list + 1] = field end
  return list
end
message.fields = listOf(f)

local u = {
  version = ProtoField.uint8("tarnbooster_udp.version", "Version"),
  type = ProtoField.uint8("tarnbooster_udp.type", "Type", base.DEC, TYPE_NAMES),
  dataLen = ProtoField.uint16("tarnbooster_udp.data_len", "Data length"),
  checksum = ProtoField.uint32("tarnbooster_udp.checksum", "Checksum", base.HEX),
  checksumGood = ProtoField.bool("tarnbooster_udp.checksum_good", "Checksum is right"),
  totalLen = ProtoField.uint32("tarnbooster_udp.total_len", "Total length"),
  offset = ProtoField.uint32("tarnbooster_udp.offset", "Offset"),
  sequence = ProtoField.uint32("tarnbooster_udp.sequence", "Sequence"),
  session = ProtoField.int64("tarnbooster_udp.session", "Session id"),
  payload = ProtoField.bytes("tarnbooster_udp.payload", "Payload"),
  ackIn = ProtoField.framenum("tarnbooster_udp.ack_in", "Acknowledged in", base.NONE, frametype.ACK),
  ackTo = ProtoField.framenum("tarnbooster_udp.ack_to", "Acknowledges", base.NONE, frametype.ACK),
  ackTime = ProtoField.relative_time("tarnbooster_udp.ack_time", "Time since the packet's last send"),
  retransmissionOf = ProtoField.framenum("tarnbooster_udp.retransmission_of", "First sent in", base.NONE,
    frametype.RETRANS_PREV),
  send = ProtoField.uint32("tarnbooster_udp.send", "Number of this send"),
  givenUp = ProtoField.bool("tarnbooster_udp.given_up", "Given up"),
  reassembledIn = ProtoField.framenum("tarnbooster_udp.reassembled_in", "Message is complete in"),
  pieces = ProtoField.uint32("tarnbooster_udp.pieces", "Pieces of the message"),
}
datagram.fields = listOf(u)

-- ---- Expert notes -----------------------------------------------------------------------------------------

local e = {}
do
  local lists = { tarnbooster = {}, tarnbooster_udp = {} }
  local function note(prefix, name, text, group, severity)
    local made = ProtoExpert.new(prefix .. "." .. name, text, group, severity)
    e[name] = made
    table.insert(lists[prefix], made)
  end
  local ERROR, WARN, NOTE = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE
  local g = expert.group
  local m, d = "tarnbooster", "tarnbooster_udp"
  note(m, "bad_magic", "No header: the magic is wrong", g.MALFORMED, ERROR)
  note(m, "cut_off", "The message is cut off", g.MALFORMED, WARN)
  note(m, "bad_version", "Another version than 4", g.PROTOCOL, WARN)
  note(m, "unknown_funcid", "Unknown function identifier", g.UNDECODED, WARN)
  note(m, "refused", "The status is not 0", g.RESPONSE_CODE, NOTE)
  note(m, "framing_rule", "A reply with a body directly behind another one with a body", g.PROTOCOL, ERROR)
  note(m, "bad_body", "The body is not its message", g.MALFORMED, ERROR)
  note(m, "missing_field", "A required field is missing", g.PROTOCOL, WARN)
  note(m, "unexpected_body", "A body where none belongs", g.PROTOCOL, WARN)
  note(m, "long_body", "A body longer than services accept", g.PROTOCOL, WARN)
  note(m, "unasked", "A reply whose request is not in the capture", g.SEQUENCE, NOTE)
  note(m, "out_of_order", "Answered behind a later request", g.SEQUENCE, WARN)
  note(m, "unanswered", "No reply in the capture", g.SEQUENCE, NOTE)
  note(m, "more", "More than is shown here", g.UNDECODED, NOTE)
  note(d, "bad_checksum", "The checksum is wrong; receivers drop this datagram", g.CHECKSUM, ERROR)
  note(d, "bad_length", "The stated length is not what is here; receivers drop this datagram", g.MALFORMED, ERROR)
  note(d, "bad_udp_version", "Another version than 1", g.PROTOCOL, NOTE)
  note(d, "unknown_type", "Unknown type of packet", g.UNDECODED, WARN)
  note(d, "retransmission", "Sent again", g.SEQUENCE, NOTE)
  note(d, "duplicate", "A duplicate", g.SEQUENCE, NOTE)
  note(d, "last_send", "Sent for the last time; given up unless it is acknowledged", g.SEQUENCE, WARN)
  note(d, "gave_up", "Given up: sent six times and never acknowledged", g.SEQUENCE, ERROR)
  note(d, "ack_unseen", "Acknowledges a packet that is not in the capture", g.SEQUENCE, NOTE)
  note(d, "ack_again", "Acknowledges a packet that was acknowledged before", g.SEQUENCE, NOTE)
  note(d, "bad_offset", "A piece that does not fit its message", g.PROTOCOL, WARN)
  message.experts, datagram.experts = lists.tarnbooster, lists.tarnbooster_udp
end

-- ---- What is known of earlier packets ---------------------------------------------------------------------

local frames      -- by packet number: what was worked out for it
local connections -- by key: pending requests, and for streams the state of both directions
local directions  -- by key: the UDP packets one way between two addresses
local kept        -- bytes of messages put together, in all

local function forget()
  frames, connections, directions, kept = {}, {}, {}, 0
end
forget()
message.init = forget -- before a capture is read

--- The notes of this packet, and whether this is the first time that it is seen.
local function notesOf(pinfo)
  local notes = frames[pinfo.number]
  if notes then return notes, false end
  notes = { messages = {} }
  frames[pinfo.number] = notes
  return notes, true
end

local function connectionOf(key)
  local connection = connections[key]
  if not connection then
    connection = { pending = {}, made = 0, answered = 0, lastBody = 0, streams = {} }
    connections[key] = connection
  end
  return connection
end

local function since(pinfo, earlier)
  local seconds = pinfo.rel_ts - earlier
  local whole = math.floor(seconds)
  return NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))
end

local function short(text)
  text = text:gsub("[^\32-\126]", "."):sub(1, 60)
  return text
end

-- ---- Bodies -----------------------------------------------------------------------------------------------

--- The varint at `at` (counted from 1) of a string: its low and high 32 bits, and where it ends. Nothing when
--- it is cut off or longer than ten bytes.
local function varint(raw, at)
  local low, high = 0, 0
  for i = 0, 9 do
    local byte = raw:byte(at + i)
    if not byte then return nil end
    local value = byte % 128
    if i < 4 then
      low = low + value * 2 ^ (7 * i)
    elseif i == 4 then
      low = low + value % 16 * 2 ^ 28
      high = math.floor(value / 16)
    elseif i < 9 then
      high = high + value * 2 ^ (7 * i - 32)
    else
      high = high + value % 2 * 2 ^ 31
    end
    if byte < 128 then return low, high % 2 ^ 32, at + i + 1 end
  end
  return nil
end

local function int32(low)
  return low >= 2 ^ 31 and low - 2 ^ 32 or low
end

--- Where the value of a field that starts at `at` ends: start and end (behind the last byte), or nothing.
local function valueEnd(raw, wire, at)
  if wire == 0 then
    local _, _, after = varint(raw, at)
    return at, after
  elseif wire == 2 then
    local length, high, after = varint(raw, at)
    if not length or high ~= 0 or length > #raw + 1 - after then return nil end
    return after, after + length
  end
  local length = wire == 1 and 8 or wire == 5 and 4
  if not length or at + length > #raw + 1 then return nil end
  return at, at + length
end

--- Draws one value; returns it as text.
local function drawValue(tree, field, kind, range, raw, from, to)
  local here = from < to and range(from - 1, to - from) or range(from - 2, 1)
  if kind == "i32" then
    local value = int32((varint(raw, from)))
    tree:add(f[field], here, value)
    return tostring(value)
  elseif kind == "i64" then
    local low, high = varint(raw, from)
    local value = Int64.new(low, high)
    tree:add(f[field], here, value)
    return tostring(value)
  elseif from == to then
    tree:add(f[field], here, kind == "text" and "" or ByteArray.new("")):set_text(LABELS[field] .. ": (empty)")
    return kind == "text" and '""' or "0 bytes"
  end
  tree:add(f[field], here)
  return kind == "text" and '"' .. short(raw:sub(from, to - 1)) .. '"' or (to - from) .. " bytes"
end

--- Draws a body as the message that `request` (of REQUESTS, or PUSH) names. Returns its fields as one line.
local function drawBody(range, tree, request)
  local raw = range and range:raw() or ""
  local item = range and tree:add(message, range, "amc." .. request[2]) or tree:add(message, "amc." .. request[2])
  item:add(f.name, "amc." .. request[2]):set_generated()
  local values, shown, at = {}, 0, 1
  local function draw(field, kind, from, to)
    shown = shown + 1
    if shown > MAX_SHOWN then return end
    local value = drawValue(item, field[1], kind, range, raw, from, to)
    local list = values[field[1]]
    if not list or field[2] == kind then
      values[field[1]] = { value }
    elseif #list < 8 then
      list[#list + 1] = value
    elseif #list == 8 then
      list[9] = "..."
    end
  end
  while at <= #raw do
    local start = at
    local tag, high, after = varint(raw, at)
    local from, to
    if tag and high == 0 and tag >= 8 then from, to = valueEnd(raw, tag % 8, after) end
    if not to then
      item:add_proto_expert_info(e.bad_body, "The body is not its message: byte " .. (start - 1))
      break
    end
    local wire, field = tag % 8, request[2 + math.floor(tag / 8)]
    local kind = field and field[2]:gsub("%*", "")
    if kind and (wire == 0) == (kind == "i32" or kind == "i64") and (wire == 0 or wire == 2) then
      draw(field, kind, from, to)
    elseif field and field[2] == "i32*" and wire == 2 then -- packed
      while from < to do
        local _, _, behind = varint(raw, from)
        if not behind or behind > to then
          item:add_proto_expert_info(e.bad_body, "The body is not its message: byte " .. (from - 1))
          break
        end
        draw(field, kind, from, behind)
        from = behind
      end
    elseif shown < MAX_SHOWN then
      shown = shown + 1
      item:add(f.unknown, range(start - 1, to - start))
    else
      shown = shown + 1
    end
    at = to
  end
  if shown > MAX_SHOWN then
    item:add_proto_expert_info(e.more, (shown - MAX_SHOWN) .. " more values")
  end
  local texts = {}
  for i = 3, #request do
    local name, kind = request[i][1], request[i][2]
    local repeated = kind:sub(-1) == "*"
    if repeated then
      texts[#texts + 1] = name .. "=[" .. table.concat(values[name] or {}, ",") .. "]"
    elseif values[name] then
      texts[#texts + 1] = name .. "=" .. values[name][1]
    elseif shown <= MAX_SHOWN then
      item:add_proto_expert_info(e.missing_field, "The required field " .. name .. " is missing")
    end
  end
  local line = table.concat(texts, " ")
  item:append_text(" " .. line)
  return line
end

-- ---- Messages ---------------------------------------------------------------------------------------------

--- The header's numbers, as far as they are needed to find one's way. `range` has 32 bytes.
local function readHeader(range, isRequest)
  local raw = range:raw(0, HEADER)
  return {
    magic = range(0, 4):le_uint(), funcid = range(6, 2):le_uint(), isRequest = isRequest,
    bodyLen = range(isRequest and 8 or 12, 4):le_uint(),
    status = isRequest and 0 or range(8, 4):le_int(), stamp = raw:sub(25, 32),
  }
end

--- Whether the message at the start of `range`, `length` bytes, is a request, when nothing else tells. In a
--- request the send time stands where a reply has its body length, and is no number of that size.
local function looksLikeRequest(range, length)
  local asReply, asRequest = range(12, 4):le_uint(), range(8, 4):le_uint()
  if asReply == length - HEADER then return false end
  if asRequest == length - HEADER then return true end
  return asReply > length - HEADER
end

--- First sight of a whole message: links it with the others of its connection.
local function analyse(header, pinfo, connection, isStream)
  local note = { header = header }
  local id = header.funcid .. header.stamp
  if header.isRequest then
    connection.made = connection.made + 1
    note.request = { frame = pinfo.number, time = pinfo.rel_ts, order = connection.made }
    connection.pending[id] = connection.pending[id] or {}
    table.insert(connection.pending[id], note.request)
    return note
  end
  if isStream then
    if header.bodyLen > 0 and connection.lastBody > 0 then note.behindBody = connection.lastBody end
    connection.lastBody = header.bodyLen
  end
  if header.funcid == PUSH_FUNCID and header.status == 0 and header.bodyLen > 0 then
    note.push = true
    return note
  end
  local waiting = connection.pending[id]
  local request = waiting and table.remove(waiting, 1)
  if request then
    note.answers, request.reply = request, pinfo.number
    note.late = request.order < connection.answered
    connection.answered = math.max(connection.answered, request.order)
    if #waiting == 0 then connection.pending[id] = nil end
  elseif header.funcid == PUSH_FUNCID and header.status == 0 and header.stamp == ("\0"):rep(8) then
    note.separator = true
  end
  return note
end

local function drawLinks(item, pinfo, note)
  local request = note.request
  if request and request.reply then item:add(f.repliedIn, request.reply):set_generated() end
  if request and not request.reply and pinfo.visited then item:add_proto_expert_info(e.unanswered) end
  if note.answers then
    item:add(f.replyTo, note.answers.frame):set_generated()
    item:add(f.replyTime, since(pinfo, note.answers.time)):set_generated()
    if note.late then item:add_proto_expert_info(e.out_of_order) end
  elseif not request and not note.push and not note.separator then
    item:add_proto_expert_info(e.unasked)
  end
  if note.behindBody then
    local length, before = note.header.bodyLen, note.behindBody
    local outcome = length == before and "takes it as complete and empty, and its body as the next header"
      or length > before and "puts its body " .. before .. " bytes too far back"
      or "reads it, but need not"
    item:add_proto_expert_info(e.framing_rule,
      "Between two replies with bodies one without must stand: the library " .. outcome)
  end
end

--- Draws a message: its header, and its body as far as it is in `range`. Returns its line.
local function drawMessage(range, pinfo, tree, note)
  local header = note.header
  local here = math.min(range:len() - HEADER, header.bodyLen)
  local kind = header.isRequest and "request" or note.push and "push" or "reply"
  local item = tree:add(message, range(0, HEADER + here))
  item:add(f.kind, kind):set_generated()
  item:add_le(f.magic, range(0, 4))
  local version = item:add_le(f.version, range(4, 2))
  local funcid = item:add_le(f.funcid, range(6, 2))
  local status
  if header.isRequest then
    item:add_le(f.dataLen, range(8, 4))
    item:add_le(f.sendTime, range(12, 8))
    item:add_le(f.callertid, range(20, 4))
    if range(4, 2):le_uint() ~= VERSION then version:add_proto_expert_info(e.bad_version) end
    if header.bodyLen > MAX_REQUEST_BODY then item:add_proto_expert_info(e.long_body) end
  else
    status = item:add_le(f.status, range(8, 4))
    item:add_le(f.dataLen, range(12, 4))
    item:add_le(f.word16, range(16, 8))
    if header.status ~= 0 then status:add_proto_expert_info(e.refused, "Status " .. header.status) end
  end
  item:add_le(f.timestamp, range(24, 8))
  drawLinks(item, pinfo, note)

  local line = funcName(header.funcid)
  if note.push then line = "push" end
  if note.separator then line = line .. " (empty, between pushes)" end
  if kind == "reply" and not note.separator then
    line = line .. " -> status " .. header.status
    if STATUS_NAMES[header.status] and header.status ~= 0 then
      line = line .. " (" .. STATUS_NAMES[header.status] .. ")"
    end
    if note.answers then line = line .. string.format(", %.3f ms", (pinfo.rel_ts - note.answers.time) * 1000) end
  end
  local request = note.push and PUSH or header.isRequest and REQUESTS[header.funcid]
  if not note.push and not REQUESTS[header.funcid] then funcid:add_proto_expert_info(e.unknown_funcid) end
  local body = here > 0 and range(HEADER, here) or nil
  if here < header.bodyLen then
    item:add_proto_expert_info(e.cut_off, header.bodyLen .. " body bytes announced, " .. here .. " are here")
    if body then item:add(f.piece, body) end
    line = line .. " [" .. header.bodyLen .. " body bytes]"
  elseif request and request[2] then
    local fields = drawBody(body, item, request)
    if fields ~= "" then line = line .. " " .. fields end
  elseif body then
    item:add(f.body, body)
    if REQUESTS[header.funcid] then item:add_proto_expert_info(e.unexpected_body) end
    line = line .. " [" .. here .. " body bytes]"
  end
  item:set_text("TarnBooster " .. kind .. ": " .. line)
  return line
end

--- Bytes that are no message.
local function drawUnframed(range, tree, note)
  local item = tree:add(message, range)
  item:add(f.unframed, range)
  item:add_proto_expert_info(note)
  item:set_text("TarnBooster: " .. range:len() .. " bytes that belong to no message")
  return range:len() .. " bytes that belong to no message"
end

--- Draws all messages in `tvb`. `way`: true to the service, false from it, nil when nothing tells. `keyOf(way)`
--- names the connection; `isStream` says whether it is one (else messages are independent of each other). A
--- message that a stream's packet leaves incomplete goes on in the next of the same direction.
local function drawMessages(tvb, pinfo, tree, way, keyOf, isStream)
  local notes, isNew = notesOf(pinfo)
  local index, offset, lines = 0, 0, {}
  local snapped = tvb:reported_len() > tvb:len()
  local stream
  if isStream and way ~= nil then
    local streams = connectionOf(keyOf(way)).streams
    streams[way] = streams[way] or { left = 0 }
    stream = streams[way]
  end

  if isNew and stream and stream.left > 0 then -- a piece of a message that began earlier
    local count = math.min(stream.left, tvb:len())
    stream.left = stream.left - (snapped and math.min(stream.left, tvb:reported_len()) or count)
    if stream.parts and not snapped and kept + count <= MAX_KEPT then
      kept = kept + count
      table.insert(stream.parts, tvb:raw(0, count))
    else
      stream.parts = nil
    end
    notes.piece = { count = count, first = stream.first }
    if stream.left == 0 and stream.parts then notes.piece.whole = table.concat(stream.parts) end
    if stream.left == 0 then stream.parts = nil end
  end
  local piece = notes.piece
  if piece then
    local range = tvb(0, piece.count)
    offset = piece.count
    local item = tree:add(message, range)
    item:add(f.piece, range)
    item:add(f.pieceIn, piece.first):set_generated()
    item:set_text("TarnBooster: a piece of " .. piece.count .. " bytes of the message in packet " .. piece.first)
    if piece.whole then
      local whole = ByteArray.new(piece.whole, true):tvb("Whole message")
      index = index + 1
      notes.messages[index] = notes.messages[index]
        or analyse(readHeader(whole(), way), pinfo, connectionOf(keyOf(way)), isStream)
      lines[#lines + 1] = drawMessage(whole(), pinfo, tree, notes.messages[index])
    else
      lines[#lines + 1] = "piece of " .. piece.count .. " bytes"
    end
  end

  while offset < tvb:len() do
    local rest = tvb(offset)
    if rest:len() >= 4 and rest(0, 4):le_uint() ~= MAGIC then
      lines[#lines + 1] = drawUnframed(rest, tree, e.bad_magic)
      break
    elseif rest:len() < HEADER then
      lines[#lines + 1] = drawUnframed(rest, tree, e.cut_off)
      break
    elseif index >= MAX_SHOWN then
      tree:add_proto_expert_info(e.more, "More messages than are shown here")
      break
    end
    local isRequest = way
    if isRequest == nil then isRequest = looksLikeRequest(rest, rest:len()) end
    local header = readHeader(rest, isRequest)
    local whole = HEADER + header.bodyLen <= rest:len()
    index = index + 1
    local note = notes.messages[index]
    if not note then
      if whole or not stream then
        note = analyse(header, pinfo, connectionOf(keyOf(isRequest)), isStream)
      else -- it counts where it is complete
        note = { header = header, begins = true }
        stream.left = snapped and 0 or header.bodyLen + HEADER - rest:len()
        stream.first = pinfo.number
        stream.parts = { rest:raw() }
      end
      notes.messages[index] = note
    end
    if note.begins then
      local item = tree:add(message, rest)
      item:add(f.piece, rest)
      item:set_text("TarnBooster: the first " .. rest:len() .. " of " .. HEADER + header.bodyLen .. " bytes of a message")
      lines[#lines + 1] = funcName(header.funcid) .. " (begins here)"
      break
    end
    lines[#lines + 1] = drawMessage(rest, pinfo, tree, note)
    offset = offset + HEADER + header.bodyLen
  end
  return table.concat(lines, "; ")
end

local function wayOf(pinfo)
  if pinfo.p2p_dir == 0 then return true end
  if pinfo.p2p_dir == 1 then return false end
  return nil
end

local function numberOf(field)
  return field and tostring(field) or ""
end

local interfaceId = Field.new("frame.interface_id")

--- `tarnbooster record` puts the connection's number in the place of the application's port.
function message.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "TarnBooster"
  local way = wayOf(pinfo)
  local number = way == false and pinfo.dst_port or pinfo.src_port
  local key = numberOf(interfaceId()) .. "/" .. tostring(number) .. "/" .. (way == nil and "?" or "")
  local line = drawMessages(tvb, pinfo, tree, way, function() return key end, true)
  if way ~= nil then
    local application = "application " .. number
    pinfo.cols.src = way and application or "service"
    pinfo.cols.dst = way and "service" or application
  end
  pinfo.cols.info = line
  return tvb:len()
end

-- ---- Datagrams --------------------------------------------------------------------------------------------

local crcTable = {}
for index = 0, 255 do
  local entry = index
  for _ = 1, 8 do
    entry = entry % 2 == 1 and bits.bxor(bits.rshift(entry, 1), 0xEDB88320) or bits.rshift(entry, 1)
  end
  crcTable[index] = entry
end

--- The checksum that a datagram ought to have: CRC-32, with the checksum's own bytes as 0.
local function checksum(raw)
  local crc = 0xFFFFFFFF
  for i = 1, #raw do
    local byte = (i < 5 or i > 8) and raw:byte(i) or 0
    crc = bits.bxor(crcTable[bits.band(bits.bxor(crc, byte), 0xFF)], bits.rshift(crc, 8))
  end
  return bits.bxor(crc, 0xFFFFFFFF) % 2 ^ 32
end

--- The header's numbers. `tvb` has 28 bytes at least.
local function readDatagram(tvb)
  local d = {
    version = tvb(0, 1):uint(), type = tvb(1, 1):uint(), dataLen = tvb(2, 2):le_uint(),
    checksum = tvb(4, 4):le_uint(), totalLen = tvb(8, 4):le_uint(), offset = tvb(12, 4):le_uint(),
    sequence = tvb(16, 4):le_uint(), session = tvb:raw(20, 8),
  }
  d.fits = d.dataLen <= UDP_PAYLOAD and UDP_HEADER + d.dataLen <= tvb:len()
  d.intact = d.fits and checksum(tvb:raw(0, UDP_HEADER + d.dataLen)) == d.checksum
  return d
end

local function endpoint(address, port)
  return tostring(address) .. ":" .. port
end

local function directionOf(from, to)
  local key = from .. ">" .. to
  directions[key] = directions[key] or { packets = {}, sessions = {} }
  return directions[key]
end

--- Adds a piece to its message. Returns the message's record; `record.whole` is set with its last piece.
local function addPiece(direction, d, payload, number)
  local record = direction.sessions[d.session]
  if d.offset == 0 and (not record or record.frame ~= number) then
    record = { parts = {}, bytes = 0, count = 0, frame = number, totalLen = d.totalLen }
    direction.sessions[d.session] = record
  end
  if not record or record.totalLen ~= d.totalLen or d.offset + d.dataLen > d.totalLen or record.parts[d.offset] then
    return nil
  end
  if kept + d.dataLen > MAX_KEPT then return nil end
  kept = kept + d.dataLen
  record.parts[d.offset], record.bytes, record.count = payload, record.bytes + d.dataLen, record.count + 1
  if record.bytes < record.totalLen then return record end
  direction.sessions[d.session] = nil
  local inOrder, at = {}, 0
  while at < record.totalLen do
    local part = record.parts[at]
    if not part or #part == 0 then return nil end
    inOrder[#inOrder + 1] = part
    at = at + #part
  end
  record.parts = nil
  record.whole, record.completeIn = table.concat(inOrder), number
  return record
end

--- First sight of a datagram: links it with its earlier sends, its acknowledgement and its message.
local function analyseDatagram(d, tvb, pinfo)
  local note = {}
  local from, to = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
  if d.type == 2 then
    note.acknowledges = directionOf(to, from).packets[d.sequence]
    if note.acknowledges then
      note.ackTo, note.ackTime = note.acknowledges.lastFrame, note.acknowledges.lastTime
      note.again = note.acknowledges.ackIn ~= nil
      note.acknowledges.ackIn = note.acknowledges.ackIn or pinfo.number
    end
    return note
  end
  if not TYPE_NAMES[d.type] then return note end
  local direction = directionOf(from, to)
  local packet = direction.packets[d.sequence]
  if packet and d.type == 4 and pinfo.rel_ts - packet.firstTime > 5 then -- another sender's
    direction.packets, direction.sessions, packet = {}, {}, nil
  end
  local same = packet and packet.type == d.type and packet.session == d.session and packet.offset == d.offset
  if same then
    note.duplicate = pinfo.rel_ts - packet.lastTime < 0.02
    note.first = packet.first
    if not note.duplicate then packet.sends = packet.sends + 1 end
  else
    packet = { type = d.type, session = d.session, offset = d.offset, sends = 1, first = pinfo.number,
      firstTime = pinfo.rel_ts }
    direction.packets[d.sequence] = packet
    if d.type == 1 and d.dataLen > 0 then
      note.message = addPiece(direction, d, tvb:raw(UDP_HEADER, d.dataLen), pinfo.number)
      note.misfit = note.message == nil
    end
  end
  packet.lastFrame, packet.lastTime = pinfo.number, pinfo.rel_ts
  note.packet, note.send = packet, packet.sends
  return note
end

local function drawDatagramLinks(item, pinfo, d, note)
  if d.type == 2 then
    if not note.acknowledges then
      item:add_proto_expert_info(e.ack_unseen)
    else
      item:add(u.ackTo, note.ackTo):set_generated()
      item:add(u.ackTime, since(pinfo, note.ackTime)):set_generated()
      if note.again then item:add_proto_expert_info(e.ack_again) end
    end
  end
  local packet = note.packet
  if not packet then return end
  item:add(u.send, note.send):set_generated()
  if packet.ackIn then item:add(u.ackIn, packet.ackIn):set_generated() end
  if note.first then
    item:add(u.retransmissionOf, note.first):set_generated()
    item:add_proto_expert_info(note.duplicate and e.duplicate or e.retransmission,
      note.duplicate and "A duplicate" or "Sent again: send " .. note.send)
  end
  if note.send < UDP_SENDS or packet.ackIn then return end
  -- Whether an acknowledgement still comes is known only when the capture was read once.
  item:add_proto_expert_info(pinfo.visited and e.gave_up or e.last_send)
  if pinfo.visited then item:add(u.givenUp, true):set_generated() end
end

local function drawDatagramHeader(tvb, tree, d)
  local item = tree:add(datagram, tvb(0, math.min(tvb:len(), UDP_HEADER + d.dataLen)))
  item:set_text("TarnBooster UDP " .. (TYPE_NAMES[d.type] or "unknown") .. ", sequence " .. d.sequence)
  local version = item:add(u.version, tvb(0, 1))
  local kind = item:add(u.type, tvb(1, 1))
  local length = item:add_le(u.dataLen, tvb(2, 2))
  local sum = item:add_le(u.checksum, tvb(4, 4))
  item:add(u.checksumGood, d.intact):set_generated()
  item:add_le(u.totalLen, tvb(8, 4))
  item:add_le(u.offset, tvb(12, 4))
  item:add_le(u.sequence, tvb(16, 4))
  item:add_le(u.session, tvb(20, 8))
  if d.version ~= 1 then version:add_proto_expert_info(e.bad_udp_version) end
  if not TYPE_NAMES[d.type] then kind:add_proto_expert_info(e.unknown_type) end
  if not d.fits then
    length:add_proto_expert_info(e.bad_length)
  elseif not d.intact then
    sum:add_proto_expert_info(e.bad_checksum)
  end
  return item
end

function datagram.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "TarnBooster UDP"
  if tvb:len() < UDP_HEADER then
    local item = tree:add(datagram, tvb())
    item:add_proto_expert_info(e.bad_length)
    pinfo.cols.info = tvb:len() .. " bytes, no datagram"
    return tvb:len()
  end
  local d = readDatagram(tvb)
  local item = drawDatagramHeader(tvb, tree, d)
  local line = string.format("%s s=%d", TYPE_NAMES[d.type] or "type " .. d.type, d.sequence)
  if d.type == 1 or d.type == 2 then line = line .. string.format(" of=%.0f tl=%.0f", d.offset, d.totalLen) end
  if d.dataLen > 0 and d.fits then item:add(u.payload, tvb(UDP_HEADER, d.dataLen)) end
  if not d.intact then
    pinfo.cols.info = line .. " [damaged]"
    return tvb:len()
  end
  local notes, isNew = notesOf(pinfo)
  if isNew then notes.datagram = analyseDatagram(d, tvb, pinfo) end
  local note = notes.datagram or {}
  drawDatagramLinks(item, pinfo, d, note)
  if note.first then line = line .. (note.duplicate and " [duplicate]" or " [send " .. note.send .. "]") end
  if note.misfit then item:add_proto_expert_info(e.bad_offset) end
  local record = note.message
  if record and record.completeIn == pinfo.number then
    item:add(u.pieces, record.count):set_generated()
    local whole = record.count == 1 and tvb(UDP_HEADER, d.dataLen):tvb()
      or ByteArray.new(record.whole, true):tvb("Whole message")
    local keyOf = function(isRequest)
      return "udp " .. (isRequest and endpoint(pinfo.src, pinfo.src_port) or endpoint(pinfo.dst, pinfo.dst_port))
    end
    line = line .. " | " .. drawMessages(whole, pinfo, tree, wayOf(pinfo), keyOf, false)
  elseif record and record.completeIn then
    item:add(u.reassembledIn, record.completeIn):set_generated()
  end
  pinfo.cols.info = line
  return tvb:len()
end

--- Datagrams on any port: version, type and length must fit, then the checksum decides.
local function isOurs(tvb, pinfo, tree)
  if tvb:len() < UDP_HEADER or tvb(0, 1):uint() ~= 1 or not TYPE_NAMES[tvb(1, 1):uint()] then return false end
  if tvb(2, 2):le_uint() + UDP_HEADER ~= tvb:len() or not readDatagram(tvb).intact then return false end
  datagram.dissector(tvb, pinfo, tree)
  return true
end
datagram:register_heuristic("udp", isOurs)
DissectorTable.get("udp.port"):add_for_decode_as(datagram)
