-- Wireshark dissector for the ZOL protocol, version 40 (docs/protocol.md).
--
--   wireshark -X lua_script:wireshark/zol.lua
--   tshark -X lua_script:wireshark/zol.lua -o zol.port:16309 -r capture.pcap
--
-- Wireshark also loads this script from ~/.local/lib/wireshark/plugins. From version 4.4 on,
-- Wireshark silently ignores Lua scripts for root. For other servers in the same capture, use
-- "Decode As" or -d udp.port==PORT,zol.
--
-- The dissector identifies the sender by the ports: a datagram to the server's port comes from a
-- client. If a client uses the same port number, the dissector cannot identify its datagrams.

-- The layout of every datagram. script/checks/protocol writes it from server/protocol.h. A field is
-- {offset, width, name, kind}. Byte 0, the command, has no row.
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

-- The filter fields. Fields with the same name in different datagrams share one: zol.slot, ...
local fields = {
  sender = ProtoField.string("zol.sender", "Sender"),
  datagram = ProtoField.string("zol.datagram", "Datagram"),
  command = ProtoField.uint8("zol.command", "command"),
  ignored = ProtoField.bytes("zol.ignored", "ignored bytes after the record"),
  client = ProtoField.uint8("zol.client", "Client's slot"),
  player = ProtoField.uint8("zol.player", "Player"),
  player_name = ProtoField.string("zol.player_name", "Name"),
  response_in = ProtoField.framenum("zol.response_in", "Response in", base.NONE,
                                    frametype.RESPONSE),
  response_to = ProtoField.framenum("zol.response_to", "Response to", base.NONE,
                                    frametype.REQUEST),
  response_time = ProtoField.relative_time("zol.response_time", "Response time"),
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
    for i = 1, 3 do
      fields[name .. i] = ProtoField.float(abbreviation .. "." .. i, name .. " " .. i)
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

-- Returns the text up to the NUL or the end of the field, converted from Latin-1 to UTF-8. The
-- protocol defines no encoding, and Latin-1 can show every byte. Wireshark's own conversion,
-- string(ENC_ISO_8859_1), cuts a text that gets longer in UTF-8.
local function read_text(range)
  local text = range:raw():match("^%Z*")
  return (text:gsub("[\128-\255]", function(character)
    local code = character:byte()
    return string.char(0xC0 + math.floor(code / 64), 0x80 + code % 64)
  end))
end

-- Returns the text in quotes and on one line, for the Info column.
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
    -- Also shows the bits, because clients may send any NaN and the server relays it unchanged.
    subtree:add_le(fields[name .. i], part):append_text(
        string.format(" (0x%08x)", part:le_uint()))
  end
  notes[#notes + 1] = name .. "=(" .. table.concat(places, ", ") .. ")"
end

local function add_value(seen, name, kind, range)
  if kind == "u8" or kind == "u16" then
    seen.values[name] = range:le_uint()
    seen.notes[#seen.notes + 1] = string.format("%s=%d", name, range:le_uint())
  elseif kind == "float" then
    seen.notes[#seen.notes + 1] = string.format("%s=%g", name, range:le_float())
  end
end

-- Collects in `seen` the contents of the datagram: `notes` for the Info column, and `values` by the
-- names of the fields. Of a block, the notes contain only the position.
local function add_rows(tree, tvb, start, rows, seen)
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
               blocks[kind], {notes = seen.notes, in_block = true})
    elseif kind == "position" then
      add_position(tree, name, range, seen.notes)
    elseif kind == "text" then
      local text = read_text(range)
      tree:add(fields[name], range, text)
      seen.notes[#seen.notes + 1] = name .. "=" .. quote(text)
      seen.values[name] = text
    else
      tree:add_le(fields[name], range)
      if not seen.in_block then add_value(seen, name, kind, range) end
      -- Without a car, the server ignores the bytes of the car.
      if name == "in_car" or name == "got_in" then has_car = range:uint() ~= 0 end
    end
  end
end

-- Returns whether the datagram has a valid length. A client's datagram may be too long, because the
-- server ignores the rest.
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

-- Looks for the port of the preference, and then for the port of "Decode As".
local function find_sender(pinfo)
  for _, port in ipairs({zol.prefs.port, pinfo.match_uint}) do
    if pinfo.dst_port == port then return "client" end
    if pinfo.src_port == port then return "server" end
  end
  return nil
end

-- The rest of this file finds the request of each answer and the slot of each client. They depend on
-- earlier datagrams, so the first pass, which sees the frames in order, stores them by frame number.

-- The version that the server requires in a join, as in server/protocol.h.
local VERSION = 40
-- After this time, the dissector considers an answer to be lost.
local LATE_S = 2

-- The kinds of requests, by the command of the request and by the command of the answer.
local REQUESTS = {
  CMD_JOIN = "join", CMD_ENTER_GAME = "enter", CMD_GET_PLAYER_INFO = "info",
  CMD_GET_PLAYER_STATE = "state", CMD_CAR_STATE = "clock", CMD_LEAVE_CAR = "clock",
  CMD_STATE_FLOATS = "clock", CMD_CAR_BLOCK_A = "on_foot", CMD_CAR_BLOCK_B = "on_foot",
  CMD_CAR_STATUS = "on_foot",
}
local ANSWERS = {
  CMD_JOIN_ACCEPTED = "join", CMD_JOIN_REFUSED_FULL = "join", CMD_JOIN_REFUSED_VERSION = "join",
  CMD_ENTER_GAME_REPLY = "enter", CMD_PLAYER_INFO = "info", CMD_PLAYER_STATE = "state",
  CMD_GAME_CLOCK = "clock", CMD_NOT_IN_CAR = "on_foot",
}
-- Clients repeat these requests only without an answer, so an answer belongs to the latest request.
local REPEATABLE = {join = true, enter = true, info = true, state = true}

-- Whether the sender is in a car after the command. CMD_ENTER_GAME and CMD_VEHICLE contain a field
-- for this.
local IN_CAR_AFTER = {CMD_CAR_STATE = true, CMD_LEAVE_CAR = false, CMD_DIED = false,
                      CMD_FOOT_UPDATE = false}

-- Datagrams to one client about itself. The server relays or broadcasts all others.
local PERSONAL = {
  CMD_PING = true, CMD_JOIN_REFUSED_FULL = true, CMD_JOIN_REFUSED_VERSION = true,
  CMD_ENTER_GAME_REPLY = true, CMD_JOIN_ACCEPTED = true, CMD_SERVER_SHUTDOWN = true,
  CMD_NOT_IN_CAR = true, CMD_PLAYER_INFO = true, CMD_PLAYER_STATE = true, CMD_GAME_CLOCK = true,
}

local addresses      -- lists of {address, id}, by the text that Wireshark shows
local all_addresses  -- all {address, id}, by id
local servers        -- by address and port
local found          -- the results: tables by frame number

local function forget_all()
  addresses, all_addresses, servers = {}, {}, {}
  found = {response_in = {}, response_to = {}, response_time = {}, client = {}, client_name = {},
           slot_name = {}}
end
zol.init = forget_all
forget_all()

local function find_address(list, address)
  for _, entry in ipairs(list or {}) do
    if entry.address == address then return entry end
  end
  return nil
end

-- Returns a number that identifies the address. The text of the address cannot, because it changes
-- when Wireshark resolves the name, and two addresses may have the same name. The field ip.src
-- cannot, because the first pass of tshark -2 has no fields.
local function identify(address)
  local text = tostring(address)
  local entry = find_address(addresses[text], address)
  if entry then return entry.id end
  local is_name = text:find("[^%x.:]")
  entry = is_name and find_address(all_addresses, address)
  if not entry then
    entry = {address = address, id = #all_addresses + 1}
    all_addresses[entry.id] = entry
  end
  addresses[text] = addresses[text] or {}
  table.insert(addresses[text], entry)
  return entry.id
end

local function get_or_make(list, address, port, new)
  local key = identify(address) .. ":" .. port
  list[key] = list[key] or new
  return list[key]
end

-- Returns the states of the server and of the client of a datagram. The client's in_car and died are
-- nil until a datagram shows them.
local function find_peers(pinfo, sender)
  local client, client_port = pinfo.src, pinfo.src_port
  local server, server_port = pinfo.dst, pinfo.dst_port
  if sender == "server" then
    client, client_port, server, server_port = server, server_port, client, client_port
  end
  local server_state = get_or_make(servers, server, server_port,
                                   {clients = {}, holders = {}, names = {}})
  return server_state, get_or_make(server_state.clients, client, client_port, {open = {}})
end

-- Adds a request to the run of its kind: the requests that wait for answers, and the answers so far.
local function add_request(client, key, request, is_repeatable)
  local run = client.open[key]
  if is_repeatable or not run or request.time - run.time > LATE_S then
    run = {requests = {}, answers = {}}
    client.open[key] = run
  end
  run.time = request.time
  table.insert(run.requests, request)
end

-- Drops all requests up to this frame. The server answers the requests of a client in order, so after
-- an answer to a request, no earlier request gets one. If the dissector did not know whether the
-- server answers such a request, it now knows that the server does not.
local function drop_requests(client, frame)
  for key, run in pairs(client.open) do
    local first = run.requests[1]
    if first.frame <= frame then
      if first.is_unsure and #run.answers == 0 then
        if key == "clock" and client.died == nil then client.died = false end
        if key == "on_foot" and client.in_car == nil then client.in_car = true end
      end
      local newer = {}
      for _, request in ipairs(run.requests) do
        if request.frame > frame then newer[#newer + 1] = request end
      end
      run.requests, run.answers = newer, {}
      if #newer == 0 then client.open[key] = nil end
    end
  end
end

-- Answers contain no number. If all requests of a run have an answer, the dissector links them in
-- order. If an answer is lost, it links none of the run, because it cannot know which one is lost.
local function add_answer(client, key, frame, time)
  local run = client.open[key]
  if not run then return nil end
  table.insert(run.answers, {frame = frame, time = time})
  run.time = time
  if #run.answers < #run.requests then return nil end
  for i, request in ipairs(run.requests) do
    local answer = run.answers[i]
    found.response_in[request.frame] = answer.frame
    found.response_to[answer.frame] = request.frame
    found.response_time[answer.frame] = answer.time - request.time
  end
  local last = run.requests[#run.requests]
  client.open[key] = nil
  if key ~= "ping" then drop_requests(client, last.frame) end
  return last
end

local function give_slot(server, client, slot)
  if client.slot and server.holders[client.slot] == client then
    server.holders[client.slot] = nil
  end
  local holder = server.holders[slot]
  if holder then holder.slot = nil end
  server.holders[slot] = client
  client.slot = slot
end

local function free_slot(server, slot)
  local holder = server.holders[slot]
  if holder then holder.slot = nil end
  server.holders[slot] = nil
end

-- Returns whether the server answers the request: true, false, or nil if unknown.
local function is_answered(client, kind, name)
  if name == "CMD_STATE_FLOATS" then return client.died end
  if kind == "on_foot" and client.in_car ~= nil then return not client.in_car end
  if kind == "on_foot" then return nil end
  return true
end

local function see_request(client, name, values, frame, time)
  local kind = REQUESTS[name]
  local answered = kind and is_answered(client, kind, name)
  if not kind or answered == false then return end
  local key = kind
  if kind == "info" or kind == "state" then
    if not values.slot then return end
    key = kind .. values.slot
  end
  add_request(client, key, {frame = frame, time = time, is_unsure = answered == nil,
                            name = values.name, version = values.version}, REPEATABLE[kind])
end

local function see_from_client(server, client, name, values, frame, time)
  if name == "CMD_PING_REPLY" then add_answer(client, "ping", frame, time) end
  see_request(client, name, values, frame, time)
  if name == "CMD_DIED" then client.died = true end
  if IN_CAR_AFTER[name] ~= nil then client.in_car = IN_CAR_AFTER[name] end
  local reported = values.in_car or values.got_in
  if reported then client.in_car = reported ~= 0 end
  if name == "CMD_PLAYER_LEFT" and client.slot then free_slot(server, client.slot) end
end

-- Returns whether the datagram is one of the records that follow CMD_ENTER_GAME_REPLY. The server
-- sends them in the order of the slots. They look like answers to requests, but are not. The server's
-- ping thread may send other datagrams between them.
local function is_record_of_entering(client, name, values)
  if name == "CMD_PING" or name == "CMD_PLAYER_LEFT" then return false end
  local entering = client.entering
  client.entering = nil
  if name == "CMD_ENTER_GAME_REPLY" then
    client.entering = {slot = -1, left_out = values.last_join_slot}
  end
  if name ~= "CMD_PLAYER_INFO" or values.just_entered ~= 0 then return false end
  if client.open.enter then return true end  -- CMD_ENTER_GAME_REPLY is lost or late
  if not entering or values.slot <= entering.slot or values.slot == entering.left_out then
    return false
  end
  entering.slot = values.slot
  client.entering = entering
  return true
end

-- Returns whether the answer to a join agrees with the version in the join.
local function fits_join(client, name)
  local join = client.open.join and client.open.join.requests[1]
  if not join or not join.version then return true end
  return (name == "CMD_JOIN_REFUSED_VERSION") == (join.version ~= VERSION)
end

local function see_answer(client, name, values, frame, time)
  local kind = ANSWERS[name]
  local is_record = is_record_of_entering(client, name, values)
  if not kind or is_record or values.just_entered == 1 then return nil end
  if kind == "join" and not fits_join(client, name) then return nil end
  local key = (kind == "info" or kind == "state") and kind .. values.slot or kind
  -- An answer without a request: the capture may lack the death of the client.
  if kind == "clock" and not client.open.clock then client.died = nil end
  return add_answer(client, key, frame, time)
end

local function see_from_server(server, client, name, values, frame, time)
  local request = see_answer(client, name, values, frame, time)
  if name == "CMD_PING" then
    add_request(client, "ping", {frame = frame, time = time}, true)
  elseif name == "CMD_JOIN_ACCEPTED" then
    give_slot(server, client, values.slot)
    client.in_car, client.died = false, false
    server.names[values.slot] = request and request.name
    if request then
      found.client[request.frame] = found.client[request.frame] or values.slot
      found.client_name[request.frame] = found.client_name[request.frame] or request.name
    end
  elseif name == "CMD_NOT_IN_CAR" then
    client.in_car = false
    if client.slot ~= values.slot then give_slot(server, client, values.slot) end
  elseif name == "CMD_PLAYER_INFO" then
    server.names[values.slot] = values.name
  elseif name == "CMD_PLAYER_LEFT" then
    free_slot(server, values.slot)
  elseif name == "CMD_SERVER_SHUTDOWN" and client.slot then
    free_slot(server, client.slot)
  end
end

-- Updates the states with a datagram. A client that leaves is shown with its previous slot. A slot
-- keeps its name until the next join.
local function see(pinfo, sender, name, values)
  local server, client = find_peers(pinfo, sender)
  local frame, time = pinfo.number, pinfo.rel_ts
  local slot_before = client.slot
  if sender == "client" then
    see_from_client(server, client, name, values, frame, time)
  elseif name then
    see_from_server(server, client, name, values, frame, time)
  end
  local slot = client.slot or slot_before
  found.client[frame] = slot
  found.client_name[frame] = server.names[slot]
  found.slot_name[frame] = server.names[values.slot]
end

local function add_player(tree, slot, name)
  local item = tree:add(fields.player, slot):set_generated()
  if name then item:add(fields.player_name, name):set_generated() end
end

local function add_found(tree, pinfo, sender, name, values)
  local frame = pinfo.number
  local client, slot = found.client[frame], values.slot
  if client then
    tree:add(fields.client, client):set_generated()
    if sender == "client" or PERSONAL[name] and values.just_entered ~= 1 then
      add_player(tree, client, found.client_name[frame])
    else
      client = nil
    end
  end
  if slot and slot ~= client and not (name == "CMD_PINKPANTHER" and slot == NOBODY) then
    add_player(tree, slot, found.slot_name[frame])
  end
  for _, link in ipairs({"response_in", "response_to"}) do
    if found[link][frame] then tree:add(fields[link], found[link][frame]):set_generated() end
  end
  if found.response_time[frame] then
    local seconds, rest = math.modf(found.response_time[frame])
    local time = NSTime.new(seconds, math.floor(rest * 1e9 + 0.5))
    tree:add(fields.response_time, time):set_generated()
  end
end

-- Skips a datagram that an ICMP error quotes, because it is not sent again.
local function see_and_show(tree, pinfo, sender, name, values)
  if pinfo.in_error_pkt then return end
  if not pinfo.visited then see(pinfo, sender, name, values) end
  add_found(tree, pinfo, sender, name, values)
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
    see_and_show(tree, pinfo, sender, nil, {})
    return tvb:len()
  end

  command:append_text(" (" .. layout.name .. ")")
  tree:append_text(", " .. layout.name)
  tree:add(fields.datagram, layout.name):set_generated()
  local notes, values = {layout.name}, {}
  add_rows(tree, tvb, 0, layout.rows, {notes = notes, values = values})
  if layout.name == "CMD_PINKPANTHER" and notes[2] == "slot=" .. NOBODY then
    notes[2] = notes[2] .. " (nobody)"
  end
  local is_whole = check_length(tree, tvb, sender, layout)
  if not is_whole then notes[#notes + 1] = "[malformed]" end
  -- Clients ignore malformed datagrams. The server does not.
  see_and_show(tree, pinfo, sender, (is_whole or sender == "client") and layout.name or nil, values)
  set_info(pinfo, table.concat(notes, " "))
  return tvb:len()
end

-- Wireshark passes no empty datagram to the dissector of a port, so a postdissector handles these.
local empty = Proto("zol_empty", "ZOL game protocol, empty datagram")
local udp_length = Field.new("udp.length")

function empty.dissector(_, pinfo, root)
  local length = udp_length()
  if not length or length.value ~= 8 or pinfo.dst_port ~= zol.prefs.port then return end
  pinfo.cols.protocol = "ZOL"
  set_info(pinfo, "[malformed] empty: the server handles its previous command again")
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
