-- Wireshark/tshark dissector for what the agent and a TCP node say to each other.
--
--   tshark -X lua_script:dissector/lumo.lua -r FILE
--   tshark -X lua_script:dissector/lumo.lua -i lo -f 'tcp port 1060' -Y 'lumo.cod_err != 0'
--   wireshark: copy this file into the folder of personal Lua plugins (Help, About, Folders)
--
-- Preferences (-o lumo.ports:1060,1061 and so on):
--   ports       the ports of nodes (1060)
--   big_endian  the agent runs on a big-endian machine (off): integers travel as it has them
-- Another port for once: -d tcp.port==5000,lumo
--
-- Every field of a packet has a filter name: lumo.length, lumo.task_name, lumo.cod_err, lumo.node,
-- lumo.string1 to lumo.string4, lumo.trailer.ast_ind, lumo.control.type and so on;
-- `tshark -G fields -X lua_script:dissector/lumo.lua` lists them. An answer is matched to its request by the task name and the tag
-- (AstInd) in its trailer, on the same connection, as the agent does it: lumo.response_in,
-- lumo.request_in, lumo.response_time. Faults are expert notes (lumo.expert): errors break the
-- connection, warnings lose an answer or part of a packet, notes are only unusual.
--
-- The fields are explained in docs/protocol.md.

local lumo = Proto("lumo", "Tavrin SQL network agent")

local kPort = 1060
local kControlLength = 8 -- what follows the length word of a control packet
local kLengthMax = 8188
local kMessageMax = 8192 -- with the length word
local kStringsAt = 52
local kTrailerSize = 48

lumo.prefs.ports = Pref.range("TCP ports", tostring(kPort), "Ports on which nodes listen", 65535)
lumo.prefs.big_endian = Pref.bool("Big-endian", false, "Integers have the high byte first")

-- Fields -----------------------------------------------------------------------------------------

local controlTypes = {
  [0] = "ReceiveTimeout",
  [1] = "SendTimeout or alive",
  [2] = "CKIL (client has died)",
}

local f = {
  length = ProtoField.uint32("lumo.length", "Length", base.DEC, nil, nil, "Bytes that follow"),
  task = ProtoField.int32("lumo.task_name", "TaskName", base.DEC, nil, nil, "Client's process id"),
  cbl = ProtoField.none("lumo.cbl", "Control block (CBL)"),
  codErr = ProtoField.int32("lumo.cod_err", "CodErr"),
  prior = ProtoField.uint16("lumo.prior", "Prior"),
  numChan = ProtoField.uint16("lumo.num_chan", "NumChan"),
  cblBytes = ProtoField.bytes("lumo.cbl.uninterpreted", "Uninterpreted"),
  command = ProtoField.string("lumo.command", "Command"),
  node = ProtoField.string("lumo.node", "Node"),
  rowId = ProtoField.int32("lumo.row_id", "RowId"),
  rowCount = ProtoField.int32("lumo.row_count", "RowCount"),
  przExe = ProtoField.uint32("lumo.prz_exe", "PrzExe", base.HEX),
  sysErr = ProtoField.int32("lumo.sys_err", "SysErr"),
  lnBufRow = ProtoField.uint16("lumo.ln_buf_row", "LnBufRow"),
  apiCode = ProtoField.uint16("lumo.dbc_api_code", "DbcApiCode"),
  trailer = ProtoField.none("lumo.trailer", "Trailer"),
  trailerTask = ProtoField.int32("lumo.trailer.task_name", "TaskName"),
  linkSocket = ProtoField.uint32("lumo.trailer.link_socket", "Link's descriptor"),
  trailer8 = ProtoField.bytes("lumo.trailer.uninterpreted8", "Uninterpreted"),
  astInd = ProtoField.uint16("lumo.trailer.ast_ind", "AstInd"),
  trailer14 = ProtoField.bytes("lumo.trailer.uninterpreted14", "Uninterpreted"),
  mark = ProtoField.uint8("lumo.trailer.mark", "Mark", base.DEC, nil, nil, "3 in requests"),
  trailer47 = ProtoField.bytes("lumo.trailer.uninterpreted47", "Uninterpreted"),
  rest = ProtoField.bytes("lumo.rest", "Bytes behind the trailer"),
  controlType = ProtoField.uint32("lumo.control.type", "btPktType", base.DEC, controlTypes),
  controlParam = ProtoField.uint32("lumo.control.parameter", "dwParam", base.HEX_DEC),
  receiveTimeout = ProtoField.uint32("lumo.control.receive_timeout", "Receive time-out (of 20 s)"),
  sendTimeout = ProtoField.uint32("lumo.control.send_timeout", "Send time-out (s)"),
  alive = ProtoField.bool("lumo.control.alive", "Alive"),
  deadPid = ProtoField.int32("lumo.control.dead_pid", "Process that has died"),
  isRequest = ProtoField.bool("lumo.request", "From the agent"),
  responseIn = ProtoField.framenum("lumo.response_in", "Answer in", base.NONE, frametype.RESPONSE),
  requestIn = ProtoField.framenum("lumo.request_in", "Request in", base.NONE, frametype.REQUEST),
  responseTime = ProtoField.relative_time("lumo.response_time", "Time since the request"),
}
local stringFields = {}
for i = 1, 4 do
  local name = "lumo.string" .. i
  stringFields[i] = {
    count = ProtoField.uint16(name .. ".count", "Count"),
    text = ProtoField.string(name, "String " .. i),
    pad = ProtoField.bytes(name .. ".pad", "Pad byte"),
  }
end

local fieldList = {}
for _, field in pairs(f) do
  fieldList[#fieldList + 1] = field
end
for _, fields in ipairs(stringFields) do
  for _, field in pairs(fields) do
    fieldList[#fieldList + 1] = field
  end
end
lumo.fields = fieldList

local function Expert(name, text, group, severity)
  return ProtoExpert.new("lumo.expert." .. name, text, group, severity)
end
local e = {
  tooLong = Expert("too_long", "Length above 8188: the agent breaks the connection with 4008",
    expert.group.MALFORMED, expert.severity.ERROR),
  zero = Expert("zero_length", "Length 0: the agent breaks the connection with 4009",
    expert.group.MALFORMED, expert.severity.ERROR),
  strings = Expert("strings_too_long",
    "The strings make more than 8192 bytes: the agent breaks the connection with 4008",
    expert.group.MALFORMED, expert.severity.ERROR),
  short = Expert("short", "The packet ends before its trailer does: what is missing counts as zero",
    expert.group.MALFORMED, expert.severity.WARN),
  rest = Expert("rest", "Bytes behind the trailer are dropped", expert.group.MALFORMED,
    expert.severity.WARN),
  task = Expert("task_names_differ",
    "TaskName and the trailer's TaskName differ: the answer will not be found",
    expert.group.PROTOCOL, expert.severity.WARN),
  mark = Expert("mark", "A request of the agent has 3 as its mark", expert.group.PROTOCOL,
    expert.severity.WARN),
  stranger = Expert("no_request",
    "No request for this answer on this connection: dropped, unless it was before the capture",
    expert.group.SEQUENCE, expert.severity.WARN),
  second = Expert("second_answer", "The request had its answer already: dropped",
    expert.group.SEQUENCE, expert.severity.WARN),
  reused = Expert("tag_reused", "TaskName and AstInd of a request that is not answered yet",
    expert.group.SEQUENCE, expert.severity.WARN),
  controlType = Expert("control_type", "Control packet of an unknown type", expert.group.PROTOCOL,
    expert.severity.NOTE),
  controlParam = Expert("control_parameter",
    "The parameter is neither 0 (alive) nor a time-out above 0x5555", expert.group.PROTOCOL,
    expert.severity.NOTE),
  unanswered = Expert("unanswered", "No answer in this capture", expert.group.SEQUENCE,
    expert.severity.NOTE),
}
local expertList = {}
for _, item in pairs(e) do
  expertList[#expertList + 1] = item
end
lumo.experts = expertList

-- Bytes ------------------------------------------------------------------------------------------

local function U32(range) return lumo.prefs.big_endian and range:uint() or range:le_uint() end
local function I32(range) return lumo.prefs.big_endian and range:int() or range:le_int() end
local U16 = U32

-- Adds the field if the packet reaches that far. What is missing is told once, by the caller.
local function Add(tree, field, tvb, offset, size)
  if offset + size > tvb:len() then return nil end
  local range = tvb(offset, size)
  return lumo.prefs.big_endian and tree:add(field, range) or tree:add_le(field, range)
end

local function Word16(tvb, offset) return offset + 2 <= tvb:len() and U16(tvb(offset, 2)) or 0 end
local function Word32(tvb, offset) return offset + 4 <= tvb:len() and I32(tvb(offset, 4)) or 0 end

-- A text of the range without the bytes that fill it up.
local function Unpadded(range) return (range:raw():gsub("[%z ]+$", "")) end

-- Requests and answers ---------------------------------------------------------------------------

-- open: "stream:task:tag" to the last request with that name; seen: the same with ":frame" to the
-- exchange {request, requestTime, answer} that the packet belongs to, and what it was found to be.
local open, seen = {}, {}
local streamField = Field.new("tcp.stream")

function lumo.init()
  open, seen = {}, {}
end

local function Record(pinfo, name, isRequest)
  local last, fault = open[name], nil
  if isRequest then
    if last and not last.answer then fault = e.reused end
    last = { request = pinfo.number, requestTime = pinfo.abs_ts }
    open[name] = last
  elseif not last then
    fault = e.stranger
  elseif last.answer then
    last, fault = nil, e.second
  else
    last.answer = pinfo.number
  end
  return { exchange = last, fault = fault }
end

-- The exchange of a message, from the first pass over the packets, in the order of capture.
local function Exchange(pinfo, isRequest, task, tag)
  local stream = streamField()
  local name = string.format("%d:%d:%d", stream and stream.value or -1, task, tag)
  -- A frame may hold several answers with one name.
  local key = string.format("%s:%d:%s", name, pinfo.number, tostring(isRequest))
  if not pinfo.visited then
    local record = Record(pinfo, name, isRequest)
    local before = seen[key]
    if before then
      record.fault = record.fault or before.fault
      record.exchange = record.exchange or before.exchange
    end
    seen[key] = record
  end
  return seen[key]
end

local function AddExchange(tree, pinfo, isRequest, task, tag)
  local found = Exchange(pinfo, isRequest, task, tag)
  if not found then return end
  local exchange = found.exchange
  if exchange and isRequest then
    if exchange.answer then
      tree:add(f.responseIn, exchange.answer):set_generated()
    elseif pinfo.visited then
      tree:add_proto_expert_info(e.unanswered)
    end
  elseif exchange then
    tree:add(f.requestIn, exchange.request):set_generated()
    local seconds = pinfo.abs_ts - exchange.requestTime
    local whole = math.floor(seconds)
    tree:add(f.responseTime, NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5)))
      :set_generated()
  end
  if found.fault then tree:add_proto_expert_info(found.fault) end
end

-- Packets ----------------------------------------------------------------------------------------

local function AddControlBlock(tree, tvb)
  if tvb:len() < 9 then return end
  local block = tree:add(f.cbl, tvb(8, math.min(44, tvb:len() - 8)))
  Add(block, f.codErr, tvb, 8, 4)
  Add(block, f.prior, tvb, 12, 2)
  Add(block, f.numChan, tvb, 14, 2)
  Add(block, f.cblBytes, tvb, 16, 4)
  Add(block, f.command, tvb, 20, 4)
  if tvb:len() >= 32 then
    local item = block:add(f.node, tvb(24, 8), Unpadded(tvb(24, 8)))
    if Unpadded(tvb(24, 1)) == "" then item:append_text(" (the default node)") end
  end
  Add(block, f.rowId, tvb, 32, 4)
  Add(block, f.rowCount, tvb, 36, 4)
  Add(block, f.przExe, tvb, 40, 4)
  Add(block, f.sysErr, tvb, 44, 4)
  Add(block, f.lnBufRow, tvb, 48, 2)
  Add(block, f.apiCode, tvb, 50, 2)
end

-- The four counted strings; returns where the trailer begins and the first string.
local function AddStrings(tree, tvb)
  local at, first = kStringsAt, ""
  for i, fields in ipairs(stringFields) do
    local count = Word16(tvb, at)
    local here = math.max(0, math.min(count, tvb:len() - at - 2))
    if here > 0 then
      local item = tree:add(fields.text, tvb(at + 2, here))
      Add(item, fields.count, tvb, at, 2)
      if count % 2 == 1 then Add(item, fields.pad, tvb, at + 2 + count, 1) end
      if i == 1 then first = tvb(at + 2, here):raw() end
    else
      Add(tree, fields.count, tvb, at, 2)
    end
    at = at + 2 + count + count % 2
    if at + kTrailerSize > kMessageMax then return nil, first end
  end
  return at, first
end

local function AddTrailer(tree, tvb, at)
  if at >= tvb:len() then return end
  local trailer = tree:add(f.trailer, tvb(at, math.min(kTrailerSize, tvb:len() - at)))
  Add(trailer, f.trailerTask, tvb, at, 4)
  Add(trailer, f.linkSocket, tvb, at + 4, 4)
  Add(trailer, f.trailer8, tvb, at + 8, 4)
  Add(trailer, f.astInd, tvb, at + 12, 2)
  Add(trailer, f.trailer14, tvb, at + 14, 32)
  Add(trailer, f.mark, tvb, at + 46, 1)
  Add(trailer, f.trailer47, tvb, at + 47, 1)
end

local function AddFaults(tree, tvb, at, isRequest)
  local stop = at + kTrailerSize
  if stop > tvb:len() then
    tree:add_proto_expert_info(e.short)
    return
  end
  if stop < tvb:len() then
    tree:add(f.rest, tvb(stop))
    tree:add_proto_expert_info(e.rest)
  end
  if not isRequest then return end
  if Word32(tvb, 4) ~= Word32(tvb, at) then tree:add_proto_expert_info(e.task) end
  if tvb(at + 46, 1):uint() ~= 3 then tree:add_proto_expert_info(e.mark) end
end

-- Returns the words for the list of packets.
local function Message(tree, tvb, pinfo, isRequest)
  Add(tree, f.task, tvb, 4, 4)
  AddControlBlock(tree, tvb)
  local at, first = AddStrings(tree, tvb)
  if not at then
    tree:add_proto_expert_info(e.strings)
    return "malformed message"
  end
  AddTrailer(tree, tvb, at)
  AddFaults(tree, tvb, at, isRequest)
  local task, tag = Word32(tvb, isRequest and 4 or at), Word16(tvb, at + 12)
  AddExchange(tree, pinfo, isRequest, task, tag)
  if not isRequest then
    return string.format("answer to %d tag %d code %d", task, tag, Word32(tvb, 8))
  end
  local node = tvb:len() >= 32 and Unpadded(tvb(24, 8)) or ""
  local text = first:sub(1, 40):gsub("[^\32-\126]", ".")
  return string.format("request %s %d tag %d: %s", node, task, tag, text)
end

local function ControlWords(tree, tvb, kind, parameter)
  local range = tvb(8, 4)
  if kind == 0 then
    tree:add(f.receiveTimeout, range, parameter):set_generated()
    return "receive time-out " .. parameter
  elseif kind == 1 and parameter == 0 then
    tree:add(f.alive, range, true):set_generated()
    return "alive"
  elseif kind == 1 and parameter % 65536 == 0x5555 then
    tree:add(f.sendTimeout, range, math.floor(parameter / 65536)):set_generated()
    return "send time-out " .. math.floor(parameter / 65536)
  elseif kind == 1 then
    tree:add_proto_expert_info(e.controlParam)
    return "send time-out or alive?"
  elseif kind == 2 then
    tree:add(f.deadPid, range, I32(range)):set_generated()
    return "client " .. I32(range) .. " has died"
  end
  tree:add_proto_expert_info(e.controlType)
  return "control " .. kind
end

-- The content of a node's control packet means nothing: it is a sign of life.
local function Control(tree, tvb, isRequest)
  local kind = Add(tree, f.controlType, tvb, 4, 4)
  Add(tree, f.controlParam, tvb, 8, 4)
  if not isRequest then
    kind:append_text(" (from a node: a sign of life, whatever it says)")
    return "sign of life"
  end
  return ControlWords(tree, tvb, U32(tvb(4, 4)), U32(tvb(8, 4)))
end

-- Bytes of the packet at the offset. One that is too long is not waited for: it is what there is.
local function PacketSize(tvb, _, offset)
  local length = U32(tvb(offset, 4))
  return length > kLengthMax and tvb:len() - offset or length + 4
end

local function Packet(tvb, pinfo, root)
  local isRequest = pinfo.dst_port == pinfo.match_uint
  local tree = root:add(lumo, tvb())
  local length = U32(tvb(0, 4))
  Add(tree, f.length, tvb, 0, 4)
  tree:add(f.isRequest, isRequest):set_generated()
  local words
  if length > kLengthMax then
    tree:add_proto_expert_info(e.tooLong)
    words = "malformed packet"
  elseif length == 0 then
    tree:add_proto_expert_info(e.zero)
    words = "empty packet"
  elseif length == kControlLength then
    words = Control(tree, tvb, isRequest)
  else
    words = Message(tree, tvb, pinfo, isRequest)
  end
  tree:append_text(", " .. words)
  pinfo.cols.info:append(words .. "; ")
  return tvb:len()
end

function lumo.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "LUMO"
  pinfo.cols.info = ""
  dissect_tcp_pdus(tvb, tree, 4, PacketSize, Packet)
  return tvb:len()
end

-- Ports ------------------------------------------------------------------------------------------

local tcpPorts = DissectorTable.get("tcp.port")
local registered = ""

local function Register()
  if registered ~= "" then tcpPorts:remove(registered, lumo) end
  registered = tostring(lumo.prefs.ports)
  if registered ~= "" then tcpPorts:add(registered, lumo) end
end

function lumo.prefs_changed() Register() end
Register()
