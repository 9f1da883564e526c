-- Wireshark dissector for kestil's two exchanges with a spacecraft's file service: the
-- transfer protocol on UDP port 3223 (requests, metadata, data blocks, vector
-- acknowledgements, error reports) and the file-manager requests on UDP port 3224.
-- Installed in Wireshark's global Lua plugin folder; for a one-off run:
--   tshark -X lua_script:kestil.lua -r capture.pcapng

local TRANSFER_PORT = 3223
local FILEMGR_PORT = 3224

local codes = {
  [1] = "PUT", [2] = "LS", [3] = "RM", [4] = "METADATA",
  [5] = "DATA1", [6] = "DATA2", [7] = "DATA3", [8] = "DATA4",
  [9] = "VECACK", [10] = "GET", [11] = "QREPORT", [13] = "PUT_FAILURE",
  [14] = "VECACK_FINAL", [15] = "ERROR",
}

local p = Proto("kestil", "kestil file transfer")
local f = {
  code = ProtoField.uint8("kestil.code", "Command", base.DEC, codes),
  ackcode = ProtoField.uint8("kestil.ack.code", "Acknowledgement command", base.DEC, codes),
  flags = ProtoField.uint8("kestil.flags", "Flags", base.HEX),
  blocksize = ProtoField.uint16("kestil.blocksize", "Block size", base.DEC),
  reqid = ProtoField.uint32("kestil.reqid", "Request id", base.DEC),
  name = ProtoField.stringz("kestil.name", "Name"),
  block = ProtoField.uint32("kestil.block", "Block number", base.DEC),
  offset = ProtoField.uint64("kestil.offset", "File offset", base.DEC),
  data = ProtoField.bytes("kestil.data", "Data"),
  datalen = ProtoField.uint16("kestil.data_len", "Data length", base.DEC),
  size = ProtoField.uint32("kestil.meta.size", "File size", base.DEC),
  mtime = ProtoField.absolute_time("kestil.meta.mtime", "Modification time", base.UTC),
  mtime_s = ProtoField.uint32("kestil.meta.mtime_s", "Modification time (s)", base.DEC),
  mtime_ns = ProtoField.uint32("kestil.meta.mtime_ns", "Modification time (ns)", base.DEC),
  md5 = ProtoField.bytes("kestil.meta.md5", "MD5"),
  base = ProtoField.uint32("kestil.ack.base", "Base", base.DEC),
  vector = ProtoField.bytes("kestil.ack.vector", "Vector"),
  received = ProtoField.string("kestil.ack.received", "Received at or above the base"),
  missing = ProtoField.uint32("kestil.ack.missing", "Missing below the highest received", base.DEC),
  err1 = ProtoField.int32("kestil.error.code1", "Error code 1", base.DEC),
  err2 = ProtoField.int32("kestil.error.code2", "Error code 2", base.DEC),
  err3 = ProtoField.int32("kestil.error.code3", "Error code 3", base.DEC),
  ngroups = ProtoField.uint8("kestil.qreport.groups", "Group limits", base.DEC),
  group = ProtoField.uint8("kestil.qreport.group", "Group", base.DEC),
  size_target = ProtoField.uint32("kestil.qreport.size_target", "Size target", base.DEC),
  entries_target = ProtoField.uint32("kestil.qreport.entries_target", "Entries target", base.DEC),
}
p.fields = f

local ef_short = ProtoExpert.new("kestil.short", "Datagram too short for its command",
                                 expert.group.MALFORMED, expert.severity.WARN)
local ef_base = ProtoExpert.new("kestil.base_unaligned", "Base is not a multiple of 8: the sender ignores the vector",
                                expert.group.PROTOCOL, expert.severity.WARN)
p.experts = { ef_short, ef_base }

-- Whether bit `bit` (0 = most significant) of `byte` is set; plain arithmetic, so the
-- script runs on every Lua that Wireshark has shipped with.
local function bit_set(byte, bit)
  return math.floor(byte / 2 ^ (7 - bit)) % 2 == 1
end

-- The received blocks of a vector as ranges, "16-23, 25", and the holes: blocks missing
-- below the highest one received (the receiver does not say where the file ends).
local function received_ranges(base_blk, vec)
  local parts, first, last, set, highest = {}, nil, nil, 0, -1
  local function close()
    if first ~= nil then parts[#parts + 1] = first == last and tostring(first) or (first .. "-" .. last) end
  end
  for i = 0, vec:len() - 1 do
    local byte = vec:get_index(i)
    for bit = 0, 7 do
      if bit_set(byte, bit) then
        local blk = base_blk + i * 8 + bit
        set = set + 1
        highest = i * 8 + bit
        if last ~= nil and blk == last + 1 then
          last = blk
        else
          close()
          first, last = blk, blk
        end
      end
    end
  end
  close()
  return table.concat(parts, ", "), highest + 1 - set
end

-- The base and vector of an acknowledgement (buf starts at its code byte); returns the
-- base and the number of blocks the vector shows missing.
local function add_vecack(buf, tree)
  local base_blk = buf(1, 4):uint()
  local bi = tree:add(f.base, buf(1, 4))
  if base_blk % 8 ~= 0 then bi:add_proto_expert_info(ef_base) end
  local text, missing = "", 0
  if buf:len() > 5 then
    tree:add(f.vector, buf(5))
    text, missing = received_ranges(base_blk, buf(5):bytes())
    tree:add(f.missing, buf(5), missing):set_generated()
  end
  tree:add(f.received, buf(1), text):set_generated()
  return base_blk, missing
end

-- An acknowledgement piggy-backed on a request.
local function dissect_piggyback(buf, tree)
  local t = tree:add(p, buf, "Piggy-backed vector acknowledgement")
  t:add(f.ackcode, buf(0, 1))
  if buf:len() < 5 then
    t:add_proto_expert_info(ef_short)
    return "short acknowledgement"
  end
  local base_blk, missing = add_vecack(buf, t)
  return string.format("ack base %d, %d missing", base_blk, missing)
end

local function dissect_request(buf, tree, code)
  tree:add(f.flags, buf(1, 1))
  tree:add(f.blocksize, buf(2, 2))
  tree:add(f.reqid, buf(4, 4))
  local name = buf(8):stringz()
  tree:add(f.name, buf(8, math.min(#name + 1, buf:len() - 8)))
  local info = string.format("%s %s", codes[code], name)
  local rest = 8 + #name + 1
  if rest < buf:len() then info = info .. " [" .. dissect_piggyback(buf(rest), tree) .. "]" end
  return info
end

local function dissect_qreport(buf, tree)
  tree:add(f.flags, buf(1, 1))
  tree:add(f.blocksize, buf(2, 2))
  tree:add(f.reqid, buf(4, 4))
  local n = buf(8, 1):uint()
  tree:add(f.ngroups, buf(8, 1))
  local off = 9
  for _ = 1, n do
    if off + 9 > buf:len() then break end
    local g = tree:add(p, buf(off, 9), string.format("Group %d", buf(off, 1):uint()))
    g:add(f.group, buf(off, 1))
    g:add(f.size_target, buf(off + 1, 4))
    g:add(f.entries_target, buf(off + 5, 4))
    off = off + 9
  end
  local info = string.format("QREPORT %d group limits", n)
  if off < buf:len() then info = info .. " [" .. dissect_piggyback(buf(off), tree) .. "]" end
  return info
end

local function dissect_rm(buf, tree)
  tree:add(f.flags, buf(1, 1))
  local off, names = 2, {}
  while off < buf:len() do
    local name = buf(off):stringz()
    tree:add(f.name, buf(off, math.min(#name + 1, buf:len() - off)))
    names[#names + 1] = name
    off = off + #name + 1
  end
  return "RM " .. table.concat(names, " ")
end

-- Minimum lengths by command, beyond which each record is read.
local min_len = { [1] = 9, [2] = 9, [3] = 2, [4] = 33, [9] = 5, [10] = 9, [11] = 9, [13] = 1, [14] = 5, [15] = 13 }

function p.dissector(buf, pinfo, tree)
  if buf:len() < 1 then return 0 end
  local code = buf(0, 1):uint()
  pinfo.cols.protocol = "KESTIL"
  local t = tree:add(p, buf(), "kestil file transfer")
  t:add(f.code, buf(0, 1))
  local info
  local need = min_len[code]
  if code >= 5 and code <= 8 then need = 1 + code - 4 end
  if need == nil then
    info = string.format("unknown command %d", code)
  elseif buf:len() < need then
    t:add_proto_expert_info(ef_short)
    info = string.format("%s (short, %d bytes)", codes[code], buf:len())
  elseif code >= 5 and code <= 8 then
    local w = code - 4
    local blk = buf(1, w):uint()
    t:add(f.block, buf(1, w))
    local n = buf:len() - 1 - w
    if n > 0 then t:add(f.data, buf(1 + w)) end
    t:add(f.datalen, n > 0 and buf(1 + w) or buf(), n):set_generated()
    info = string.format("DATA block %d, %d bytes", blk, n)
  elseif code == 4 then
    t:add(f.block, buf(0, 1), 0):set_generated()
    t:add(f.reqid, buf(1, 4))
    t:add(f.size, buf(5, 4))
    t:add(f.mtime, buf(9, 8), NSTime.new(buf(9, 4):uint(), buf(13, 4):uint()))
    t:add(f.mtime_s, buf(9, 4))
    t:add(f.mtime_ns, buf(13, 4))
    t:add(f.md5, buf(17, 16))
    info = string.format("METADATA size %d, md5 %s", buf(5, 4):uint(), tostring(buf(17, 16):bytes()):lower())
  elseif code == 9 or code == 14 then
    local base_blk, missing = add_vecack(buf, t)
    info = string.format("%s base %d, %d missing", codes[code], base_blk, missing)
  elseif code == 1 or code == 2 or code == 10 then
    info = dissect_request(buf, t, code)
  elseif code == 11 then
    info = dissect_qreport(buf, t)
  elseif code == 3 then
    info = dissect_rm(buf, t)
  elseif code == 13 then
    info = "PUT_FAILURE"
  elseif code == 15 then
    t:add(f.err1, buf(1, 4))
    t:add(f.err2, buf(5, 4))
    t:add(f.err3, buf(9, 4))
    info = string.format("ERROR %d, %d, %d", buf(1, 4):int(), buf(5, 4):int(), buf(9, 4):int())
  end
  pinfo.cols.info = info
  return buf:len()
end

-- The file-manager exchange: one request, one answer, single-byte fields.
local fm_codes = {
  [0x01] = "STATUS", [0xF1] = "STATUS_RESP", [0x10] = "ADD", [0x11] = "ADD_RESP",
  [0x12] = "RM", [0x13] = "RM_RESP",
}
local fm = Proto("kestil_filemgr", "kestil file manager")
local g = {
  cmd = ProtoField.uint8("kestil_filemgr.cmd", "Command", base.HEX, fm_codes),
  group = ProtoField.uint8("kestil_filemgr.group", "Group", base.DEC),
  priority = ProtoField.uint8("kestil_filemgr.priority", "Priority", base.DEC),
  flags = ProtoField.uint8("kestil_filemgr.flags", "Flags", base.HEX),
  name = ProtoField.stringz("kestil_filemgr.name", "Name"),
  result = ProtoField.int8("kestil_filemgr.result", "Result", base.DEC),
}
fm.fields = g

function fm.dissector(buf, pinfo, tree)
  if buf:len() < 1 then return 0 end
  pinfo.cols.protocol = "KESTIL-FM"
  local t = tree:add(fm, buf(), "kestil file manager")
  local cmd = buf(0, 1):uint()
  t:add(g.cmd, buf(0, 1))
  local info = fm_codes[cmd] or string.format("unknown command 0x%02X", cmd)
  if (cmd == 0x10 or cmd == 0x12) and buf:len() >= 5 then
    t:add(g.group, buf(1, 1))
    t:add(g.priority, buf(2, 1))
    t:add(g.flags, buf(3, 1))
    local name = buf(4):stringz()
    t:add(g.name, buf(4, math.min(#name + 1, buf:len() - 4)))
    info = string.format("%s %s group %d priority %d", info, name, buf(1, 1):uint(), buf(2, 1):uint())
  elseif (cmd == 0x11 or cmd == 0x13) and buf:len() >= 2 then
    t:add(g.result, buf(1, 1))
    info = string.format("%s result %d", info, buf(1, 1):int())
  end
  pinfo.cols.info = info
  return buf:len()
end

local udp = DissectorTable.get("udp.port")
udp:add(TRANSFER_PORT, p)
udp:add(FILEMGR_PORT, fm)
