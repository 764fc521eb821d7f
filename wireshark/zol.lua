-- Wireshark dissector for the ZOL protocol, version 40 (docs/protocol.md).
--
--   wireshark -X lua_script:wireshark/zol.lua
--   tshark -X lua_script:wireshark/zol.lua -o zol.port:16309 -r capture.pcapng
--
-- In ~/.local/lib/wireshark/plugins it is loaded by itself. Other servers in the same capture are
-- shown by "Decode As", or with -d udp.port==PORT,zol.
-- Who sent a datagram is told by its ports: what goes to the server's port comes from a client.
-- Where a client uses the server's port number too, its datagrams cannot be told apart.

-- Every layout as it lies on the wire, written by script/checks/protocol from server/protocol.h. A
-- field is {offset, width, name, kind}; byte 0, the command, stands in no row.
-- BEGIN
local RECEIVE_BUFFER_SIZE = 256
local NOBODY = 100
local PORT = 16309

-- {name, size, fields}
local BLOCKS = {
  {"PlayerState", 28, {
    {0, 12, "position", "position"},
    {12, 4, "state_f1", "float"},
    {16, 1, "state_b", "u8"},
    {17, 3, "unused", "bytes"},
    {20, 4, "state_f2", "float"},
    {24, 4, "state_f3", "float"},
  }},
  {"CarState", 64, {
    {0, 1, "car_type", "u8"},
    {1, 1, "car_color1", "u8"},
    {2, 1, "car_color2", "u8"},
    {3, 1, "unused", "bytes"},
    {4, 28, "car_block_a", "bytes"},
    {32, 24, "car_block_b", "bytes"},
    {56, 1, "car_byte", "u8"},
    {57, 3, "unused", "bytes"},
    {60, 4, "car_float", "float"},
  }},
}

-- {sender, code, name, least size, fields}
local LAYOUTS = {
  {"client", 2, "CMD_PING_REPLY", 1, {
  }},
  {"client", 10, "CMD_JOIN", 68, {
    {1, 64, "name", "text"},
    {65, 1, "unused", "bytes"},
    {66, 2, "version", "u16"},
  }},
  {"client", 15, "CMD_ENTER_GAME", 100, {
    {1, 3, "unused", "bytes"},
    {4, 28, "state", "PlayerState"},
    {32, 1, "in_car", "u8"},
    {33, 3, "unused", "bytes"},
    {36, 64, "car", "CarState"},
  }},
  {"client", 31, "CMD_CHAT", 1, {
    {1, 255, "text", "text"},
  }},
  {"client", 40, "CMD_GET_PLAYER_INFO", 2, {
    {1, 1, "slot", "u8"},
  }},
  {"client", 41, "CMD_GET_PLAYER_STATE", 2, {
    {1, 1, "slot", "u8"},
  }},
  {"client", 43, "CMD_VEHICLE", 80, {
    {1, 1, "got_in", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 12, "position", "position"},
    {16, 64, "car", "CarState"},
  }},
  {"client", 60, "CMD_PLAYER_LEFT", 1, {
  }},
  {"client", 100, "CMD_POSITION_UPDATE", 16, {
    {1, 3, "unused", "bytes"},
    {4, 12, "position", "position"},
  }},
  {"client", 101, "CMD_CAR_STATE", 80, {
    {1, 3, "unused", "bytes"},
    {4, 12, "position", "position"},
    {16, 64, "car", "CarState"},
  }},
  {"client", 102, "CMD_LEAVE_CAR", 1, {
  }},
  {"client", 103, "CMD_DIED", 2, {
    {1, 1, "death_count", "u8"},
  }},
  {"client", 110, "CMD_FOOT_UPDATE", 8, {
    {1, 3, "unused", "bytes"},
    {4, 4, "state_f1", "float"},
  }},
  {"client", 120, "CMD_CAR_BLOCK_A", 32, {
    {1, 3, "unused", "bytes"},
    {4, 28, "car_block_a", "bytes"},
  }},
  {"client", 121, "CMD_CAR_BLOCK_B", 28, {
    {1, 3, "unused", "bytes"},
    {4, 24, "car_block_b", "bytes"},
  }},
  {"client", 122, "CMD_WEAPON", 2, {
    {1, 1, "state_b", "u8"},
  }},
  {"client", 123, "CMD_STATE_FLOATS", 12, {
    {1, 3, "unused", "bytes"},
    {4, 4, "state_f2", "float"},
    {8, 4, "state_f3", "float"},
  }},
  {"client", 124, "CMD_CAR_STATUS", 8, {
    {1, 1, "car_byte", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 4, "car_float", "float"},
  }},
  {"server", 1, "CMD_PING", 1, {
  }},
  {"server", 12, "CMD_JOIN_REFUSED_FULL", 65, {
    {1, 64, "text", "text"},
  }},
  {"server", 14, "CMD_JOIN_REFUSED_VERSION", 65, {
    {1, 64, "text", "text"},
  }},
  {"server", 16, "CMD_ENTER_GAME_REPLY", 4, {
    {1, 1, "last_join_slot", "u8"},
    {2, 1, "hour", "u8"},
    {3, 1, "minute", "u8"},
  }},
  {"server", 17, "CMD_JOIN_ACCEPTED", 67, {
    {1, 1, "slot", "u8"},
    {2, 1, "game_type", "u8"},
    {3, 64, "welcome_message", "text"},
  }},
  {"server", 19, "CMD_SERVER_SHUTDOWN", 1, {
  }},
  {"server", 30, "CMD_CHAT_LINE", 65, {
    {1, 64, "text", "text"},
  }},
  {"server", 41, "CMD_NOT_IN_CAR", 2, {
    {1, 1, "slot", "u8"},
  }},
  {"server", 42, "CMD_PLAYER_INFO", 164, {
    {1, 1, "slot", "u8"},
    {2, 1, "just_entered", "u8"},
    {3, 65, "name", "text"},
    {68, 28, "state", "PlayerState"},
    {96, 1, "in_car", "u8"},
    {97, 3, "unused", "bytes"},
    {100, 64, "car", "CarState"},
  }},
  {"server", 43, "CMD_PLAYER_STATE", 80, {
    {1, 1, "slot", "u8"},
    {2, 1, "in_car", "u8"},
    {3, 1, "unused", "bytes"},
    {4, 12, "position", "position"},
    {16, 64, "car", "CarState"},
  }},
  {"server", 60, "CMD_PLAYER_LEFT", 2, {
    {1, 1, "slot", "u8"},
  }},
  {"server", 72, "CMD_GAME_CLOCK", 3, {
    {1, 1, "hour", "u8"},
    {2, 1, "minute", "u8"},
  }},
  {"server", 200, "CMD_PLAYER_POSITION", 16, {
    {1, 1, "slot", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 12, "position", "position"},
  }},
  {"server", 201, "CMD_PLAYER_FOOT_UPDATE", 8, {
    {1, 1, "slot", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 4, "state_f1", "float"},
  }},
  {"server", 202, "CMD_PLAYER_CAR_BLOCK_A", 32, {
    {1, 1, "slot", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 28, "car_block_a", "bytes"},
  }},
  {"server", 203, "CMD_PLAYER_CAR_BLOCK_B", 28, {
    {1, 1, "slot", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 24, "car_block_b", "bytes"},
  }},
  {"server", 204, "CMD_PLAYER_GOT_CAR", 80, {
    {1, 1, "slot", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 12, "position", "position"},
    {16, 64, "car", "CarState"},
  }},
  {"server", 205, "CMD_PLAYER_LEFT_CAR", 20, {
    {1, 1, "slot", "u8"},
    {2, 2, "unused", "bytes"},
    {4, 12, "position", "position"},
    {16, 4, "state_f1", "float"},
  }},
  {"server", 206, "CMD_PLAYER_WEAPON", 3, {
    {1, 1, "slot", "u8"},
    {2, 1, "state_b", "u8"},
  }},
  {"server", 207, "CMD_PLAYER_STATE_FLOATS", 12, {
    {1, 3, "unused", "bytes"},
    {4, 4, "state_f2", "float"},
    {8, 4, "state_f3", "float"},
  }},
  {"server", 208, "CMD_PLAYER_CAR_STATUS", 8, {
    {1, 1, "unused", "bytes"},
    {2, 1, "car_byte", "u8"},
    {3, 1, "unused", "bytes"},
    {4, 4, "car_float", "float"},
  }},
  {"server", 209, "CMD_PINKPANTHER", 2, {
    {1, 1, "slot", "u8"},
  }},
  {"server", 220, "CMD_PLAYER_DIED", 3, {
    {1, 1, "slot", "u8"},
    {2, 1, "death_count", "u8"},
  }},
}
-- END

local zol = Proto("zol", "ZOL game protocol")
zol.prefs.port = Pref.uint("Server port", PORT, "UDP port of the server")

local VALUE_NAMES = {game_type = {[0] = "Deathmatch", [1] = "CatchPinkPanther"}}

-- One filter field a name, whatever datagrams carry it: zol.slot, zol.state_f1, ...
local fields = {
  sender = ProtoField.string("zol.sender", "Sender"),
  datagram = ProtoField.string("zol.datagram", "Datagram"),
  command = ProtoField.uint8("zol.command", "command"),
  ignored = ProtoField.bytes("zol.ignored", "behind the record, not read"),
}

local function declare_field(name, kind)
  local abbreviation = "zol." .. name
  if kind == "u8" then
    return ProtoField.uint8(abbreviation, name, base.DEC, VALUE_NAMES[name])
  elseif kind == "u16" then
    return ProtoField.uint16(abbreviation, name)
  elseif kind == "float" then
    return ProtoField.float(abbreviation, name)
  elseif kind == "text" then
    return ProtoField.string(abbreviation, name)
  elseif kind == "position" then
    -- Three 32-bit patterns; their meaning is the clients' own.
    for i = 1, 3 do
      fields[name .. i] = ProtoField.uint32(abbreviation .. "." .. i, name .. " " .. i, base.HEX)
    end
  end
  return ProtoField.bytes(abbreviation, name)
end

local function declare_fields(rows)
  for _, row in ipairs(rows) do
    local name, kind = row[3], row[4]
    if not fields[name] then fields[name] = declare_field(name, kind) end
  end
end

local blocks = {}   -- by name
local layouts = {client = {}, server = {}}  -- by code

for _, block in ipairs(BLOCKS) do
  blocks[block[1]] = block[3]
  declare_fields(block[3])
end
for _, layout in ipairs(LAYOUTS) do
  local sender, code, name, size, rows = table.unpack(layout)
  layouts[sender][code] = {name = name, size = size, rows = rows}
  declare_fields(rows)
end
zol.fields = fields

local malformed = ProtoExpert.new("zol.malformed", "malformed", expert.group.MALFORMED,
                                  expert.severity.ERROR)
local unknown_command = ProtoExpert.new("zol.unknown_command", "unknown command",
                                        expert.group.UNDECODED, expert.severity.WARN)
zol.experts = {malformed, unknown_command}

-- Up to the NUL or the end of the field. No encoding is laid down; Latin-1 shows every byte. Lua's
-- own texts are UTF-8 to Wireshark, and its string(ENC_ISO_8859_1) loses the end of what grows.
local function read_text(range)
  local text = range:raw():match("^%Z*")
  return (text:gsub("[\128-\255]", function(character)
    local code = character:byte()
    return string.char(0xC0 + math.floor(code / 64), 0x80 + code % 64)
  end))
end

-- For the Info column, which is one line.
local function quote(text)
  local escaped = text:gsub('[%c"\\]', function(character)
    return string.format("\\x%02x", character:byte())
  end)
  return '"' .. escaped .. '"'
end

local function add_position(tree, name, range, notes)
  local subtree = tree:add(fields[name], range)
  local places = {}
  for i = 1, 3 do
    local part = range:range(4 * (i - 1), 4)
    places[i] = string.format("%g", part:le_float())
    subtree:add_le(fields[name .. i], part):append_text(
        string.format(" (as a float: %g)", part:le_float()))
  end
  notes[#notes + 1] = name .. "=(" .. table.concat(places, ", ") .. ")"
end

-- What is worth a place in the Info column goes to notes.
local function add_rows(tree, tvb, start, rows, notes)
  local has_car = true
  for _, row in ipairs(rows) do
    local offset, width, name, kind = start + row[1], row[2], row[3], row[4]
    if offset >= tvb:len() then return end
    if offset + width > tvb:len() and kind ~= "text" then return end
    local range = tvb:range(offset, math.min(width, tvb:len() - offset))
    if kind == "CarState" and not has_car then
      tree:add(fields[name], range):set_text(name .. ": none")
    elseif blocks[kind] then
      add_rows(tree:add(fields[name], range):set_text(name .. ": " .. kind), tvb, offset,
               blocks[kind], {})
    elseif kind == "position" then
      add_position(tree, name, range, notes)
    elseif kind == "text" then
      local text = read_text(range)
      tree:add(fields[name], range, text)
      notes[#notes + 1] = name .. "=" .. quote(text)
    else
      tree:add_le(fields[name], range)
      if kind == "u8" or kind == "u16" then
        notes[#notes + 1] = string.format("%s=%d", name, range:le_uint())
      elseif kind == "float" then
        notes[#notes + 1] = string.format("%s=%g", name, range:le_float())
      end
      -- Without a car its bytes are not read.
      if name == "in_car" or name == "got_in" then has_car = range:uint() ~= 0 end
    end
  end
end

-- False when it is malformed: too short, or from the server too long.
local function check_length(tree, tvb, sender, layout)
  local length, size = tvb:len(), layout.size
  local is_chat = layout.name == "CMD_CHAT"
  if length > size and not is_chat then
    tree:add(fields.ignored, tvb:range(size))
  elseif length > RECEIVE_BUFFER_SIZE then
    tree:add(fields.ignored, tvb:range(RECEIVE_BUFFER_SIZE))
  end
  if length >= size and (length == size or is_chat or sender == "client") then return true end
  tree:add_proto_expert_info(malformed, string.format(
      "malformed: %d bytes, %s has %d", length, layout.name, size))
  return false
end

local function set_info(pinfo, text)
  pinfo.cols.info = string.format("%d → %d %s", pinfo.src_port, pinfo.dst_port, text)
end

-- By the port that is set, or else by the one for which "Decode As" has chosen ZOL.
local function find_sender(pinfo)
  for _, port in ipairs({zol.prefs.port, pinfo.match_uint}) do
    if pinfo.dst_port == port then return "client" end
    if pinfo.src_port == port then return "server" end
  end
  return nil
end

function zol.dissector(tvb, pinfo, root)
  local sender = find_sender(pinfo)
  if not sender or tvb:len() == 0 then return 0 end
  pinfo.cols.protocol = "ZOL"

  local code = tvb:range(0, 1):uint()
  local layout = layouts[sender][code]
  local tree = root:add(zol, tvb())
  tree:add(fields.sender, sender):set_generated()
  local command = tree:add(fields.command, tvb:range(0, 1))
  if not layout then
    tree:append_text(string.format(", unknown command %d", code))
    tree:add_proto_expert_info(unknown_command)
    set_info(pinfo, string.format("unknown command %d from %s", code, sender))
    return tvb:len()
  end

  command:append_text(" (" .. layout.name .. ")")
  tree:append_text(", " .. layout.name)
  tree:add(fields.datagram, layout.name):set_generated()
  local notes = {layout.name}
  add_rows(tree, tvb, 0, layout.rows, notes)
  if layout.name == "CMD_PINKPANTHER" and notes[2] == "slot=" .. NOBODY then
    notes[2] = notes[2] .. " (nobody)"
  end
  if not check_length(tree, tvb, sender, layout) then notes[#notes + 1] = "[malformed]" end
  set_info(pinfo, table.concat(notes, " "))
  return tvb:len()
end

-- Wireshark hands nothing empty to a dissector of a port, so this one looks at all that there is.
local empty = Proto("zol_empty", "ZOL game protocol, empty datagram")
local udp_length = Field.new("udp.length")

function empty.dissector(_, pinfo, root)
  local length = udp_length()
  if not length or length.value ~= 8 or pinfo.dst_port ~= zol.prefs.port then return end
  pinfo.cols.protocol = "ZOL"
  set_info(pinfo, "[malformed] empty: repeats the command that the server got last")
  local tree = root:add(zol):append_text(", empty")
  tree:add(fields.sender, "client"):set_generated()
  tree:add_proto_expert_info(malformed, "malformed: empty")
end

register_postdissector(empty)

local registered_port
local function register_port()
  local udp = DissectorTable.get("udp.port")
  if registered_port then udp:remove(registered_port, zol) end
  registered_port = zol.prefs.port
  udp:add(registered_port, zol)
end

zol.prefs_changed = register_port
register_port()
