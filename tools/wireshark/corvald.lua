-- Wireshark / tshark dissector for the corvald cluster datagrams (UDP, port
-- 8000 unless the "corvald.port" preference says otherwise).
--
--   tshark -X lua_script:tools/wireshark/corvald.lua -r capture.pcap -Y corvald -V
--
-- Every datagram is a 207-byte header followed by a payload chosen by its type:
--
--   PING (4)                 hdr | VDisk block | VDisk block | ...  (no count)
--   SINGLE_VDISK_PING (33)   hdr | VDisk block
--   DS_PING (16)             hdr [| ds]         (207 bytes: in no data store)
--   AUX_PING (35)            hdr | 00 | aux
--   HEARTBEAT (32)           hdr
--   VDISK_DELETED (34)       hdr | vdel
--   STORE_JSON (36), DELETE_JSON (37)
--                            hdr | json | <offset bytes> | JSON text to the end
--   VDisk block = vdisk | members x member | frontends x frontend
--
-- Fields, named after the wire records' fields (integers little-endian but
-- for vdisk.name.mshipgencnt; texts zero-padded and bounded by their width):
--
--   corvald.hdr.       major minor type nodestatus uid vendor model
--                      revision.freespace revision.utilization revision.rev
--                      serial hbtl size performance hostid
--                      backupchannel (generated: size as an address, nodestatus 1)
--   corvald.ds.        uuid name description sector_size replicas stripes overcommit
--   corvald.aux.       zero (the byte before the record) length allocatedspace
--                      curvdisks curvdisksforctrl maxvdisksforctrl memtotal memavail
--   corvald.vdisk.     transaction_id uuid name.old_mshipgencnt name.name
--                      name.mshipgencnt sector_size numkeys sectors seqno
--                      description.descr (plain VDisk) or description.snap.y .m .d
--                      .H .M .S .parent (snapshot), status port replicas st_mem
--                      st_mems st_size snapshot members frontends
--                      membership_gen_count (generated: the count a receiver takes)
--                      snaptime (generated: "%02d-%02d-%02d_%02d.%02d.%02d")
--   corvald.member.    node
--   corvald.frontend.  node (an IPv4 address)
--   corvald.vdel.      node uuid
--   corvald.json.      major minor nodeuuid path filename lastping jsonlen json
--                      offset text (the JSON text)
--   corvald.signed     (generated) whether the datagram ends in a trailer
--   corvald.auth.      magic key_id seq timestamp tag: the trailer of a signed
--                      datagram, the last 53 bytes (not checked here: the
--                      dissector has no keys); the rest is dissected without it
--
-- Datagrams the daemon refuses or trims carry expert info with the text it
-- logs for them ("Malformed packet? #2", "Malformed Node Ping?", ...).

local corvald = Proto("corvald", "corvald cluster protocol")

local HDR_SIZE = 207
local DS_PING_SIZE = HDR_SIZE + 87
local AUX_DATA_OFFSET = HDR_SIZE + 1 -- a zero byte sits between header and record
local AUX_PING_SIZE = AUX_DATA_OFFSET + 28
local VDE_SIZE = 125
local REF_SIZE = 4 -- MemberEntry, FrontendEntry
local VDISK_DELETED_SIZE = HDR_SIZE + 18
local JSON_TEXT_OFFSET = HDR_SIZE + 146

local PING, DS_PING, HEARTBEAT, SINGLE_VDISK_PING = 4, 16, 32, 33
local VDISK_DELETED, AUX_PING, STORE_JSON, DELETE_JSON = 34, 35, 36, 37

-- The protocol's type-name table; code 35 and every code above it are
-- "UNKNOWN" there, so the three newer kinds get their own names for display.
local Msg_Types = {
    [0] = "READ_REQ", "WRITE_REQ", "READ_RSP", "WRITE_RSP", "PING", "INFO_REQ", "INFO_RSP",
    "HASH_BROADCAST", "CREATE_REQ", "ACTIVATE_REQ", "DEACTIVATE_REQ", "DELETE_REQ",
    "SNAPSHOT_REQ", "SESSION_PING", "ACTIVATE_HEAD_REQ", "DEACTIVATE_HEAD_REQ", "DS_PING",
    "DSCREATE_REQ", "DSDELETE_REQ", "UPDATE_REQ", "START_VDISK_TXN_REQ", "END_VDISK_TXN_REQ",
    "FAIL_VDISK_TXN_REQ", "GET_VDISK_INFO_REQ", "ENABLE_VDISK_SYNC_MASTER",
    "ENABLE_VDISK_SYNC_SLAVE", "DISABLE_VDISK_SYNC", "PAUSE_VDISK_HEAD_REQ",
    "UNPAUSE_VDISK_HEAD_REQ", "SET_SEQNO", "SET_NODEMEMS", "SET_VDISK_SIZE", "HEARTBEAT",
    "SINGLE_VDISK_PING", "VDISK_DELETED", "UNKNOWN",
}
local kind_names = { [AUX_PING] = "AUX_PING", [STORE_JSON] = "STORE_JSON", [DELETE_JSON] = "DELETE_JSON" }
local function type_name(code)
    return kind_names[code] or Msg_Types[code] or Msg_Types[35]
end
local type_values = {}
for code = 0, 37 do type_values[code] = type_name(code) end

-- Record layouts: field, offset in the record, width, kind (u: little-endian
-- unsigned, be: big-endian unsigned, i: little-endian signed, text, ipv4).
local HDR = {
    { "major", 0, 1, "u" }, { "minor", 1, 1, "u" }, { "type", 2, 1, "u" },
    { "nodestatus", 3, 1, "u" }, { "uid", 4, 4, "u" }, { "vendor", 8, 32, "text" },
    { "model", 40, 32, "text" }, { "revision.freespace", 72, 4, "u" },
    { "revision.utilization", 76, 4, "u" }, { "revision.rev", 80, 24, "text" },
    { "serial", 104, 64, "text" }, { "hbtl", 168, 32, "text" }, { "size", 200, 4, "u" },
    { "performance", 204, 1, "u" }, { "hostid", 205, 2, "u" },
}
local DS = {
    { "uuid", 0, 14, "text" }, { "name", 14, 32, "text" }, { "description", 46, 32, "text" },
    { "sector_size", 78, 4, "u" }, { "replicas", 82, 2, "u" }, { "stripes", 84, 2, "u" },
    { "overcommit", 86, 1, "u" },
}
local AUX = {
    { "length", 0, 4, "u" }, { "allocatedspace", 4, 4, "u" }, { "curvdisks", 8, 4, "u" },
    { "curvdisksforctrl", 12, 4, "u" }, { "maxvdisksforctrl", 16, 4, "u" },
    { "memtotal", 20, 4, "u" }, { "memavail", 24, 4, "u" },
}
-- The VDisk entry in three parts: the 32 bytes at 78 are a description text
-- or, for a snapshot, its time and parent.
local VDE_HEAD = {
    { "transaction_id", 0, 4, "u" }, { "uuid", 4, 14, "text" },
    { "name.old_mshipgencnt", 18, 2, "text" }, { "name.name", 20, 28, "text" },
    { "name.mshipgencnt", 48, 2, "be" }, { "sector_size", 50, 4, "u" },
    { "numkeys", 54, 8, "u" }, { "sectors", 62, 8, "u" }, { "seqno", 70, 8, "u" },
}
local VDE_DESCR = { { "description.descr", 78, 32, "text" } }
local VDE_SNAP = {
    { "description.snap.y", 78, 1, "u" }, { "description.snap.m", 79, 1, "u" },
    { "description.snap.d", 80, 2, "u" }, { "description.snap.H", 82, 1, "u" },
    { "description.snap.M", 83, 1, "u" }, { "description.snap.S", 84, 1, "u" },
    { "description.snap.parent", 85, 14, "text" },
}
local VDE_TAIL = {
    { "status", 110, 1, "u" }, { "port", 111, 2, "u" }, { "replicas", 113, 2, "u" },
    { "st_mem", 115, 1, "u" }, { "st_mems", 116, 1, "u" }, { "st_size", 117, 2, "u" },
    { "snapshot", 119, 2, "u" }, { "members", 121, 2, "u" }, { "frontends", 123, 2, "u" },
}
local MEMBER = { { "node", 0, 4, "u" } }
local FRONTEND = { { "node", 0, 4, "ipv4" } }
local VDEL = { { "node", 0, 4, "u" }, { "uuid", 4, 14, "text" } }
local JSON = {
    { "major", 0, 1, "u" }, { "minor", 1, 1, "u" }, { "nodeuuid", 2, 16, "text" },
    { "path", 18, 64, "text" }, { "filename", 82, 32, "text" }, { "lastping", 114, 8, "i" },
    { "jsonlen", 122, 8, "u" }, { "json", 130, 8, "u" }, { "offset", 138, 8, "u" },
}

local uint_fields = { [1] = ProtoField.uint8, [2] = ProtoField.uint16, [4] = ProtoField.uint32, [8] = ProtoField.uint64 }

-- One ProtoField per layout entry, named corvald.<record>.<field>.
local function declare(record, layout)
    for _, e in ipairs(layout) do
        local abbr, kind = "corvald." .. record .. "." .. e[1], e[4]
        if kind == "text" then
            e.pf = ProtoField.string(abbr, e[1])
        elseif kind == "ipv4" then
            e.pf = ProtoField.ipv4(abbr, e[1])
        elseif kind == "i" then
            e.pf = ProtoField.int64(abbr, e[1])
        elseif abbr == "corvald.hdr.type" then
            e.pf = ProtoField.uint8(abbr, e[1], base.DEC, type_values)
        else
            e.pf = uint_fields[e[3]](abbr, e[1])
        end
        table.insert(corvald.fields, e.pf)
    end
end
declare("hdr", HDR)
declare("ds", DS)
declare("aux", AUX)
for _, layout in ipairs({ VDE_HEAD, VDE_DESCR, VDE_SNAP, VDE_TAIL }) do declare("vdisk", layout) end
declare("member", MEMBER)
declare("frontend", FRONTEND)
declare("vdel", VDEL)
declare("json", JSON)

local f_backupchannel = ProtoField.ipv4("corvald.hdr.backupchannel", "backup channel")
local f_aux_zero = ProtoField.uint8("corvald.aux.zero", "zero byte (not read)")
local f_gencnt = ProtoField.uint16("corvald.vdisk.membership_gen_count", "membership generation count")
local f_snaptime = ProtoField.string("corvald.vdisk.snaptime", "snapshot time")
local f_json_text = ProtoField.string("corvald.json.text", "JSON text")
local f_signed = ProtoField.uint8("corvald.signed", "signed (1) or not (0)")
local f_auth_magic = ProtoField.string("corvald.auth.magic", "magic")
local f_auth_key = ProtoField.uint8("corvald.auth.key_id", "key id")
local f_auth_seq = ProtoField.uint64("corvald.auth.seq", "sequence")
local f_auth_time = ProtoField.absolute_time("corvald.auth.timestamp", "timestamp", base.UTC)
local f_auth_tag = ProtoField.bytes("corvald.auth.tag", "HMAC-SHA-256 tag")
for _, pf in ipairs({ f_backupchannel, f_aux_zero, f_gencnt, f_snaptime, f_json_text, f_signed,
    f_auth_magic, f_auth_key, f_auth_seq, f_auth_time, f_auth_tag }) do
    table.insert(corvald.fields, pf)
end

-- Malformed: what the daemon drops with an error line. Refused: a uuid that
-- could not name a store directory. Ignored: bytes the daemon never reads.
local ex_malformed = ProtoExpert.new("corvald.malformed", "Malformed datagram",
    expert.group.MALFORMED, expert.severity.ERROR)
local ex_unknown = ProtoExpert.new("corvald.unknown_type", "Unknown type",
    expert.group.UNDECODED, expert.severity.WARN)
local ex_refused = ProtoExpert.new("corvald.refused", "Refused uuid",
    expert.group.PROTOCOL, expert.severity.ERROR)
local ex_suspect = ProtoExpert.new("corvald.suspect", "Datagram taken with a correction",
    expert.group.PROTOCOL, expert.severity.WARN)
local ex_ignored = ProtoExpert.new("corvald.ignored", "Bytes not read by the daemon",
    expert.group.UNDECODED, expert.severity.NOTE)
corvald.experts = { ex_malformed, ex_unknown, ex_refused, ex_suspect, ex_ignored }

-- The text of a field: up to its first zero byte, never beyond its width
-- (a text that fills the field has no terminating zero).
local function text_of(range)
    local z = range:raw():find("\0", 1, true)
    local n = z and z - 1 or range:len()
    return n > 0 and range:range(0, n):string(ENC_ASCII) or ""
end

-- Adds every field of a record at off under tree; returns the values by field name.
local function add_record(tree, tvb, off, layout)
    local v = {}
    for _, e in ipairs(layout) do
        local r = tvb(off + e[2], e[3])
        local kind = e[4]
        if kind == "text" then
            v[e[1]] = text_of(r)
            tree:add(e.pf, r, v[e[1]])
        elseif kind == "be" then
            tree:add(e.pf, r)
            v[e[1]] = r:uint()
        else
            tree:add_le(e.pf, r)
            if kind == "i" then
                v[e[1]] = r:le_int64()
            elseif e[3] == 8 then
                v[e[1]] = r:le_uint64()
            elseif kind == "u" then
                v[e[1]] = r:le_uint()
            end
        end
    end
    return v
end

-- The daemon's refusal of a uuid that cannot name a directory of its store.
local function uuid_unsafe(s)
    return s == "" or s == "." or s == ".." or s:find("/", 1, true) ~= nil
end

-- Expert info on item, also shown in brackets in the Info column.
local function problem(d, item, expert_info, text)
    item:add_proto_expert_info(expert_info, text)
    table.insert(d.problems, text)
end

-- The count a receiver takes: the big-endian field from version 1.8 on,
-- before that the two digits (each a character code minus that of "0",
-- kept to 16 bits as the daemon does for bytes that are no digits).
local function gencnt(hdr, range, be_value)
    if hdr.major > 1 or (hdr.major == 1 and hdr.minor >= 8) then return be_value, "name.mshipgencnt" end
    local function digit(b) return (b >= 128 and b - 256 or b) - 48 end
    return (digit(range:range(0, 1):uint()) * 10 + digit(range:range(1, 1):uint())) % 65536,
        "name.old_mshipgencnt, sender before 1.8"
end

-- One VDisk block at off; returns the offset after it, or nil when the
-- walk ends there (a member or frontend list that runs past the end).
local function dissect_block(d, off, seen)
    local tvb, len = d.tvb, d.len
    local nmem, nfe = tvb(off + 121, 2):le_uint(), tvb(off + 123, 2):le_uint()
    local block = math.min(VDE_SIZE + REF_SIZE * (nmem + nfe), len - off)
    local t = d.root:add(corvald, tvb(off, block), "VDisk")
    local v = add_record(t, tvb, off, VDE_HEAD)
    local count, from = gencnt(d.hdr, tvb(off + 18, 2), v["name.mshipgencnt"])
    t:add(f_gencnt, tvb(off + 18, 32), count):append_text(" (" .. from .. ")"):set_generated()
    t:append_text(" " .. v.uuid)
    local snap = tvb(off + 119, 2):le_uint() ~= 0
    local s = add_record(t, tvb, off, snap and VDE_SNAP or VDE_DESCR)
    if snap then
        local time = string.format("%02d-%02d-%02d_%02d.%02d.%02d", s["description.snap.y"],
            s["description.snap.m"], s["description.snap.d"], s["description.snap.H"],
            s["description.snap.M"], s["description.snap.S"])
        t:add(f_snaptime, tvb(off + 78, 7), time):set_generated()
        t:append_text(", snapshot of " .. s["description.snap.parent"] .. " at " .. time)
    end
    add_record(t, tvb, off, VDE_TAIL)
    -- A refused entry is skipped whole; one that overruns the datagram ends the walk.
    local refused = uuid_unsafe(v.uuid)
    if refused then
        problem(d, t, ex_refused, string.format('Refused VDisk uuid "%s"', v.uuid))
    elseif snap and uuid_unsafe(s["description.snap.parent"]) then
        refused = true
        problem(d, t, ex_refused, string.format('Refused parent uuid "%s" of VDisk %s',
            s["description.snap.parent"], v.uuid))
    end
    if refused then
        local next_off = off + VDE_SIZE + REF_SIZE * (nmem + nfe)
        return next_off <= len and next_off or nil
    end
    off = off + VDE_SIZE
    for _, list in ipairs({ { nmem, MEMBER, "Member", "#2" }, { nfe, FRONTEND, "Frontend", "#3" } }) do
        for _ = 1, list[1] do
            if off + REF_SIZE > len then
                problem(d, t, ex_malformed, "Malformed packet? " .. list[4])
                return nil
            end
            add_record(t:add(corvald, tvb(off, REF_SIZE), list[3]), tvb, off, list[2])
            off = off + REF_SIZE
        end
    end
    -- The daemon stores the entry again before it sees the duplicate.
    if seen[v.uuid] then problem(d, t, ex_suspect, "Duplicate VDisk Entry " .. v.uuid) end
    seen[v.uuid] = true
    return off
end

-- PING and SINGLE_VDISK_PING: VDisk blocks for as long as a whole entry remains.
local function dissect_vdisks(d)
    local off, n, seen = HDR_SIZE, 0, {}
    while off and off + VDE_SIZE <= d.len do
        n = n + 1
        off = dissect_block(d, off, seen)
    end
    if off and off < d.len then
        problem(d, d.root:add(d.tvb(off), "Trailing bytes"), ex_ignored,
            string.format("%d bytes after the last VDisk entry ignored", d.len - off))
    end
    return string.format(", %d VDisk%s", n, n == 1 and "" or "s")
end

local function dissect_ds_ping(d)
    if d.len < DS_PING_SIZE then
        if d.len > HDR_SIZE then
            problem(d, d.root:add(d.tvb(HDR_SIZE), "Trailing bytes"), ex_ignored,
                string.format("%d bytes after the header ignored: no whole data store", d.len - HDR_SIZE))
        end
        return ", no data store"
    end
    local t = d.root:add(corvald, d.tvb(HDR_SIZE, DS_PING_SIZE - HDR_SIZE), "Data store")
    local v = add_record(t, d.tvb, HDR_SIZE, DS)
    t:append_text(" " .. v.uuid)
    if uuid_unsafe(v.uuid) then
        problem(d, t, ex_refused, string.format('Refused Datastore uuid "%s"', v.uuid))
    end
    return ", data store " .. v.uuid
end

local function dissect_aux_ping(d)
    if d.len < AUX_PING_SIZE then
        problem(d, d.root, ex_malformed, "Malformed Node Ping?")
        return ""
    end
    d.root:add(f_aux_zero, d.tvb(HDR_SIZE, 1))
    local t = d.root:add(corvald, d.tvb(AUX_DATA_OFFSET, AUX_PING_SIZE - AUX_DATA_OFFSET), "Capacity")
    local v = add_record(t, d.tvb, AUX_DATA_OFFSET, AUX)
    return string.format(", %u VDisks", v.curvdisks)
end

local function dissect_vdisk_deleted(d)
    if d.len < VDISK_DELETED_SIZE then
        problem(d, d.root, ex_malformed, "Malformed packet? #4")
        return ""
    end
    local t = d.root:add(corvald, d.tvb(HDR_SIZE, VDISK_DELETED_SIZE - HDR_SIZE), "Deleted VDisk")
    local v = add_record(t, d.tvb, HDR_SIZE, VDEL)
    t:append_text(" " .. v.uuid)
    local uid = d.hdr.uid
    if v.node ~= uid then
        problem(d, t, ex_suspect, string.format("HASHREQ_VDISK_DELETED %u != %u, using %u", uid, v.node, uid))
    end
    if uuid_unsafe(v.uuid) then
        problem(d, t, ex_refused, string.format('Refused VDisk uuid "%s"', v.uuid))
    end
    return ", VDisk " .. v.uuid
end

-- Hands the text to the JSON dissector where this Wireshark has one.
local ok, json_dissector = pcall(Dissector.get, "json")
if not ok then json_dissector = nil end

local function dissect_json_ping(d)
    -- The record is required whole: its offset field lies in its last bytes.
    if d.len < JSON_TEXT_OFFSET then
        problem(d, d.root, ex_malformed, "Malformed JSON ping header")
        return ""
    end
    local t = d.root:add(corvald, d.tvb(HDR_SIZE, JSON_TEXT_OFFSET - HDR_SIZE), "JSON document")
    local v = add_record(t, d.tvb, HDR_SIZE, JSON)
    local name = v.path .. "/" .. v.filename
    t:append_text(" " .. name)
    if v.offset > UInt64(d.len - JSON_TEXT_OFFSET) then
        problem(d, t, ex_malformed, "Malformed JSON ping empty payload")
        return ", " .. name
    end
    local at = JSON_TEXT_OFFSET + v.offset:tonumber()
    if at < d.len then
        d.root:add(f_json_text, d.tvb(at), d.tvb(at):raw())
        if json_dissector then json_dissector:call(d.tvb(at):tvb(), d.pinfo, d.root) end
    else
        d.root:add(f_json_text, d.tvb(HDR_SIZE, 0), ""):set_generated()
    end
    return string.format(", %s, %d bytes", name, d.len - at)
end

local handlers = {
    [PING] = dissect_vdisks, [SINGLE_VDISK_PING] = dissect_vdisks, [DS_PING] = dissect_ds_ping,
    [AUX_PING] = dissect_aux_ping, [HEARTBEAT] = function() return "" end,
    [VDISK_DELETED] = dissect_vdisk_deleted, [STORE_JSON] = dissect_json_ping,
    [DELETE_JSON] = dissect_json_ping,
}

-- The trailer of a signed datagram: magic "CVA1", key id, sequence and
-- timestamp (little-endian), 32-byte tag; it follows at least a header.
local AUTH_TRAILER_SIZE = 53

function corvald.dissector(tvb, pinfo, tree)
    local root = tree:add(corvald, tvb())
    local signed = tvb:len() >= HDR_SIZE + AUTH_TRAILER_SIZE and
        tvb(tvb:len() - AUTH_TRAILER_SIZE, 4):string() == "CVA1"
    root:add(f_signed, tvb(0, 0), signed and 1 or 0):set_generated()
    local auth = ""
    if signed then
        local at = tvb:len() - AUTH_TRAILER_SIZE
        local t = root:add(corvald, tvb(at), "Trailer")
        t:add(f_auth_magic, tvb(at, 4))
        t:add(f_auth_key, tvb(at + 4, 1))
        t:add_le(f_auth_seq, tvb(at + 5, 8))
        t:add(f_auth_time, tvb(at + 13, 8), NSTime(tvb(at + 13, 8):le_int64():tonumber(), 0))
        t:add(f_auth_tag, tvb(at + 21, 32))
        auth = string.format(", signed by key %u", tvb(at + 4, 1):uint())
        tvb = tvb(0, at):tvb()
    end
    local len = tvb:len()
    local d = { tvb = tvb, pinfo = pinfo, len = len, problems = {}, root = root }
    local info
    if len < HDR_SIZE then
        problem(d, d.root, ex_malformed, "Malformed packet? #1")
        info = string.format("%d bytes", len)
    else
        local ht = d.root:add(corvald, tvb(0, HDR_SIZE), "Header")
        d.hdr = add_record(ht, tvb, 0, HDR)
        local hdr = d.hdr
        if hdr.nodestatus == 1 then
            ht:add_le(f_backupchannel, tvb(200, 4)):set_generated()
        end
        local kind = type_name(hdr.type)
        info = string.format("%s from node %u", kind, hdr.uid)
        local handler = handlers[hdr.type]
        if handler then
            info = info .. handler(d)
        else
            problem(d, d.root, ex_unknown, string.format("Received unknown header type %u", hdr.type))
        end
        d.root:append_text(", " .. kind)
    end
    pinfo.cols.protocol = "CORVALD"
    info = info .. auth
    for _, text in ipairs(d.problems) do info = info .. " [" .. text .. "]" end
    -- Texts from the wire may hold control characters; a column is one line.
    pinfo.cols.info = (info:gsub("%c", "."))
    return len + (signed and AUTH_TRAILER_SIZE or 0)
end

corvald.prefs.port = Pref.uint("UDP port", 8000, "UDP port of the cluster datagrams (bind_port)")

local registered_port
local function register_port()
    local udp = DissectorTable.get("udp.port")
    if registered_port then udp:remove(registered_port, corvald) end
    registered_port = corvald.prefs.port
    udp:add(registered_port, corvald)
end
corvald.prefs_changed = register_port
register_port()
