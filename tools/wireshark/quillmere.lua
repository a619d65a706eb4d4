-- SPDX-FileCopyrightText: 2026 The Quillmere developers
-- SPDX-License-Identifier: MIT

-- Shows both protocols of Quillmere in Wireshark: QMRS of the radios over UDP, QMRA of the applications over TCP.
-- docs/protocols.md explains them, docs/tools.md how to use this file. A message that the server would reject shows the
-- record that the server writes. For Wireshark 3.6 and later, whose Lua may be 5.1 to 5.4.

local REGISTRATION, ACKNOWLEDGEMENT, DEREGISTRATION, DISCOVERY, EXTENDED_REGISTRATION = 1, 2, 3, 4, 5
local NOTICE, REPORT, IGNORED = 1, 2, 3
local RADIO_HEADER, RADIO_PAYLOAD = 16, 264 -- the payload at most
local APPLICATION_HEADER, APPLICATION_PAYLOAD, APPLICATION_VERSION = 8, 277, 4
local NO_ESN, NOT_WHOLE = string.rep("00", 8), "Not whole in this capture"
local qmrs = Proto("qmrs", "Quillmere, radios")
local qmra = Proto("qmra", "Quillmere, applications")
local opcodes =
    { "basic registration", "acknowledgement", "deregistration", "discovery request", "extended registration" }
local types = { "radio notice", "radio report", "ignored" }
local availabilities = { [0] = "gone", "unreachable", "unconfirmed", "registered" }

local function shared_fields(protocol)
    return {
        magic = ProtoField.string(protocol .. ".magic", "Magic"),
        version = ProtoField.uint8(protocol .. ".version", "Protocol version"),
        length = ProtoField.uint16(protocol .. ".length", "Payload length"),
        esn = ProtoField.bytes(protocol .. ".esn", "ESN"),
        suid = ProtoField.bytes(protocol .. ".suid", "SUID"),
        wacn = ProtoField.uint24(protocol .. ".wacn", "WACN", base.HEX, nil, 0xFFFFF0),
        system = ProtoField.uint16(protocol .. ".system", "System", base.HEX, nil, 0x0FFF),
        unit = ProtoField.uint24(protocol .. ".unit", "Unit", base.HEX),
        pending = ProtoField.uint8(protocol .. ".pending", "Pending"),
        service_count = ProtoField.uint8(protocol .. ".service_count", "Service count"),
        services = ProtoField.uint8(protocol .. ".services", "Service"),
        reject = ProtoField.string(protocol .. ".reject", "Record that the server writes"),
    }
end

local radio = shared_fields("qmrs")
radio.opcode = ProtoField.uint8("qmrs.opcode", "Opcode", base.DEC, opcodes)
radio.result = ProtoField.uint8("qmrs.result", "Result")
radio.made_esn = ProtoField.bytes("qmrs.made_esn", "ESN that the server makes")
radio.response_in = ProtoField.framenum("qmrs.response_in", "Acknowledged in", base.NONE, frametype.RESPONSE)
radio.response_to = ProtoField.framenum("qmrs.response_to", "Acknowledges", base.NONE, frametype.REQUEST)
radio.response_time = ProtoField.relative_time("qmrs.response_time", "Time from the registration")
radio.resent_of = ProtoField.framenum("qmrs.resent_of", "Sent again, first in", base.NONE, frametype.RETRANS_PREV)
radio.answered_in = ProtoField.framenum("qmrs.answered_in", "Answered in", base.NONE, frametype.RESPONSE)
radio.answer_to = ProtoField.framenum("qmrs.answer_to", "Answers the request", base.NONE, frametype.REQUEST)
qmrs.fields = radio

local application = shared_fields("qmra")
application.type = ProtoField.uint8("qmra.type", "Type", base.DEC, types)
application.address = ProtoField.ipv4("qmra.address", "Address")
application.availability = ProtoField.uint8("qmra.availability", "Availability", base.DEC, availabilities)
application.ignored = ProtoField.bytes("qmra.ignored", "Ignored")
qmra.fields = application

local failure, warning, note = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE

-- Gives a function that puts an expert into the tree, below the record where it is a reject, and returns its text.
local function define_experts(protocol, record, list)
    local experts = {}
    for name, entry in pairs(list) do
        experts[name] = ProtoExpert.new(protocol.name:lower() .. "." .. name, entry[2], expert.group.PROTOCOL, entry[1])
    end
    protocol.experts = experts
    return function(tree, name)
        local text = list[name][2]
        if name:find("^reject") then
            tree, text = tree:add(record, text):set_generated(), "Rejected: " .. text
        end
        tree:add_proto_expert_info(experts[name])
        return text
    end
end

local tell_of_radio = define_experts(qmrs, radio.reject, {
    ["reject.header"] = { warning, "QMRS Protocol error: invalid message received (1)" },
    ["reject.version"] = { warning, "QMRS Protocol error: invalid opcode for protocol version" },
    ["reject.opcode"] = { warning, "QMRS Protocol error: invalid message (2)" },
    ["reject.deregistration_length"] = { warning, "Protocol error: invalid length" },
    ["reject.registration_length"] = { warning, "Protocol error: invalid length" },
    invalid = { note, "Invalid: no server sends this" },
    dropped_service = { expert.severity.CHAT, "The server drops this service" },
    length_differs = { note, "The server goes by the datagram's size" },
    beyond = { note, "The server cuts off what is beyond 280 bytes" },
})
local tell_of_application = define_experts(qmra, application.reject, {
    ["reject.header"] = { warning, "QMRA Protocol error: invalid message (2)" },
    ["reject.version"] = { failure, "QMRA protocol version not supported.  Update connected applications" },
    ["reject.length"] = { warning, "QMRA protocol error detected: invalid payload length" },
    ["reject.type"] = { warning, "QMRA protocol error detected: invalid message (1)" },
    invalid = { note, "Invalid: no server sends this" },
})

local function hex(range)
    return range:bytes():tohex()
end

local function title(name, esn)
    return name:gsub("^%l", string.upper) .. ", ESN " .. esn
end

local function add_suid(tree, fields, range)
    local digits = hex(range)
    local text = digits:sub(1, 5) .. "/" .. digits:sub(6, 8) .. "/" .. digits:sub(9)
    local item = tree:add(fields.suid, range):append_text(" (" .. text .. ")")
    item:add(fields.wacn, range(0, 3))
    item:add(fields.system, range(2, 2))
    item:add(fields.unit, range(4, 3))
    return ", SUID " .. text
end

-- The count, and a field for each code that is there, whatever the count says.
local function add_services(tree, fields, range)
    tree:add(fields.service_count, range(0, 1))
    for at = 1, range:len() - 1 do
        local item, code = tree:add(fields.services, range(at, 1)), range(at, 1):uint()
        if fields == radio and (code < 1 or code > 3) and range(0, 1):uint() == range:len() - 1 then
            tell_of_radio(item, "dropped_service")
        end
    end
    local count = range(0, 1):uint()
    return ", " .. count .. (count == 1 and " service" or " services")
end

-- Server and radio may have the same port: discovery requests go from the server's to the same number at the radio, and
-- a radio may register from it. Where the ports do not tell, the message does: what servers say is taken for theirs,
-- since a radio that said the same could not be told from them, and all else for a radio's. So with applications.
local function goes_to_server(protocol, pinfo, says_server)
    local port = protocol.prefs.port
    if (pinfo.dst_port == port) ~= (pinfo.src_port == port) then
        return pinfo.dst_port == port
    end
    return not says_server
end

-- Found on the first pass, shown on each: the links of a frame, by its number. The others: what waits on the first.
local links, registrations, requests

function qmrs.init()
    links, registrations, requests = {}, {}, {}
end

local function link(frame, name, value)
    links[frame] = links[frame] or {}
    links[frame][name] = value
end

-- Each registration is acknowledged, repeats too, in order. Which one was lost nobody knows: the first acknowledgement
-- goes to the first that was sent.
local function note_registration(pinfo, esn, bytes)
    local from, to = tostring(pinfo.src), tostring(pinfo.dst)
    local key = table.concat({ from, pinfo.src_port, to, pinfo.dst_port, esn }, " ")
    local sent = registrations[key]
    if not sent or sent.acknowledged > 0 then
        sent = { acknowledged = 0, bytes = bytes }
        registrations[key] = sent
    elseif sent.bytes == bytes then
        link(pinfo.number, "resent_of", sent[1].frame)
    end
    sent[#sent + 1] = { frame = pinfo.number, time = pinfo.rel_ts }

    local asked = table.concat({ from, to, esn }, " ")
    if requests[asked] then
        link(requests[asked], "answered_in", pinfo.number)
        link(pinfo.number, "answer_to", requests[asked])
        requests[asked] = nil
    end
end

local function note_acknowledgement(pinfo, esn)
    local key = table.concat({ tostring(pinfo.dst), pinfo.dst_port, tostring(pinfo.src), pinfo.src_port, esn }, " ")
    local sent = registrations[key]
    local registration = sent and sent[sent.acknowledged + 1]
    if registration then
        sent.acknowledged = sent.acknowledged + 1
        local nanoseconds = math.floor((pinfo.rel_ts - registration.time) * 1e9 + 0.5)
        link(registration.frame, "response_in", pinfo.number)
        link(pinfo.number, "response_to", registration.frame)
        link(pinfo.number, "response_time", NSTime.new(math.floor(nanoseconds / 1e9), nanoseconds % 1e9))
    end
end

local function note_request(pinfo, esn)
    requests[table.concat({ tostring(pinfo.dst), tostring(pinfo.src), esn }, " ")] = pinfo.number
end

local function add_links(tree, known)
    for _, name in ipairs({ "resent_of", "response_in", "response_to", "response_time", "answered_in", "answer_to" }) do
        if known[name] then
            tree:add(radio[name], known[name]):set_generated()
        end
    end
    return known.resent_of and ", sent again" or ""
end

-- Not for the copy in an ICMP message that says that it did not arrive.
local function first_pass(pinfo, take_note, ...)
    if not pinfo.visited and not pinfo.in_error_pkt then
        take_note(pinfo, ...)
    end
end

-- What is there of a registration's payload; no text where its size and its service count disagree.
local function add_registration(tree, tvb, size, opcode)
    local count, text = opcode == EXTENDED_REGISTRATION and RADIO_HEADER + 8 or RADIO_HEADER, ""
    if opcode == EXTENDED_REGISTRATION and size >= count then
        text = add_suid(tree, radio, tvb(RADIO_HEADER, 7))
        tree:add(radio.pending, tvb(RADIO_HEADER + 7, 1))
        if tvb(4, 1):uint() == 3 and tvb(RADIO_HEADER + 7, 1):uint() ~= 0 then
            text = text .. ", pending"
        end
    end
    if size > count then
        text = text .. add_services(tree, radio, tvb(count, size - count))
        return size - count - 1 == tvb(count, 1):uint() and text
    end
end

-- In the order of the server's checks.
local function from_radio(tvb, pinfo, tree, size, opcode)
    local esn, text = hex(tvb(5, 8)), nil
    if opcode == EXTENDED_REGISTRATION and tvb(4, 1):uint() == 1 then
        return tell_of_radio(tree, "reject.version")
    elseif opcode == REGISTRATION or opcode == EXTENDED_REGISTRATION then
        text = add_registration(tree, tvb, size, opcode)
        if not text then
            return tell_of_radio(tree, "reject.registration_length")
        end
    elseif opcode ~= DEREGISTRATION then
        return tell_of_radio(tree, "reject.opcode")
    elseif size > RADIO_HEADER then
        return tell_of_radio(tree, "reject.deregistration_length")
    end
    if tvb(14, 2):le_uint() ~= size - RADIO_HEADER then
        tell_of_radio(tree, "length_differs")
    end
    if opcode == DEREGISTRATION then
        return esn == NO_ESN and "Deregistration by address" or title(opcodes[opcode], esn)
    end
    if esn == NO_ESN and opcode == EXTENDED_REGISTRATION then
        tree:add(radio.made_esn, tvb(5, 8), string.char(0xF1) .. tvb(RADIO_HEADER, 7):raw()):set_generated()
        esn = "F1" .. hex(tvb(RADIO_HEADER, 7))
    end
    first_pass(pinfo, note_registration, esn, tvb(0, size):raw())
    return title(opcodes[opcode], esn) .. text
end

local function from_server(tvb, pinfo, tree, size, opcode)
    local esn = hex(tvb(5, 8))
    local is_answer = opcode == ACKNOWLEDGEMENT and size == RADIO_HEADER + 1 and tvb(RADIO_HEADER, 1):uint() == 0
    if not is_answer and (opcode ~= DISCOVERY or size > RADIO_HEADER) then
        return tell_of_radio(tree, "invalid")
    elseif is_answer then
        tree:add(radio.result, tvb(RADIO_HEADER, 1))
    end
    first_pass(pinfo, is_answer and note_acknowledgement or note_request, esn)
    return title(opcodes[opcode], esn)
end

local function radio_message(tvb, pinfo, tree, size)
    local whole = size >= RADIO_HEADER and tvb(0, 4):raw() == "QMRS"
    local opcode = whole and tvb(13, 1):uint()
    local to_server = goes_to_server(qmrs, pinfo, opcode == ACKNOWLEDGEMENT or opcode == DISCOVERY)
    if whole then
        tree:add(radio.magic, tvb(0, 4))
        tree:add(radio.version, tvb(4, 1))
        tree:add(radio.esn, tvb(5, 8))
        tree:add(radio.opcode, tvb(13, 1))
        tree:add_le(radio.length, tvb(14, 2))
        local version, length = tvb(4, 1):uint(), tvb(14, 2):le_uint()
        if version >= 1 and version <= 3 and length <= RADIO_PAYLOAD then
            return (to_server and from_radio or from_server)(tvb, pinfo, tree, size, opcode)
        end
    end
    return tell_of_radio(tree, to_server and "reject.header" or "invalid")
end

function qmrs.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "QMRS"
    local tree, text = root:add(qmrs, tvb()), NOT_WHOLE
    local size = math.min(tvb:reported_len(), RADIO_HEADER + RADIO_PAYLOAD)
    if tvb:len() >= size then
        text = radio_message(tvb, pinfo, tree, size)
        text = text .. add_links(tree, links[pinfo.number] or {})
    end
    if tvb:reported_len() > size then
        tell_of_radio(tree, "beyond")
    end
    pinfo.cols.info = text
    tree:append_text(": " .. text)
    return tvb:len()
end

local function sound_size(tvb, offset, to_server)
    local version, length = tvb(offset + 4, 1):uint(), tvb(offset + 6, 2):le_uint()
    local is_known = version == APPLICATION_VERSION or (to_server and version < APPLICATION_VERSION)
    local is_sound = tvb(offset, 4):raw() == "QMRA" and is_known and length <= APPLICATION_PAYLOAD
    return is_sound and APPLICATION_HEADER + length
end

-- Behind a header that it rejects the server takes the next bytes for another header, deliberately; so does this. An
-- application reads nothing behind a header that no server sends: the rest of the segment is then shown with it.
local function message_size(tvb, pinfo, offset)
    local to_server = goes_to_server(qmra, pinfo, tvb(offset + 5, 1):uint() == NOTICE)
    return sound_size(tvb, offset, to_server) or (to_server and APPLICATION_HEADER or tvb:len() - offset)
end

local function add_notice(tree, payload)
    tree:add(application.esn, payload(0, 8))
    local text = title(types[NOTICE], hex(payload(0, 8))) .. add_suid(tree, application, payload(8, 7))
    tree:add(application.pending, payload(15, 1))
    tree:add_le(application.address, payload(16, 4))
    tree:add(application.availability, payload(20, 1))
    local state = payload(20, 1):uint()
    state = payload(15, 1):uint() ~= 0 and "pending" or availabilities[state] or state
    text = ("%s, %s, %s"):format(text, tostring(payload(16, 4):le_ipv4()), state)
    return text .. add_services(tree, application, payload(21))
end

local function to_application(tvb, tree, kind, length)
    if not sound_size(tvb, 0, false) or kind == NOTICE and (length < 22 or length - 22 ~= tvb(29, 1):uint()) then
        return tell_of_application(tree, "invalid")
    end
    return kind == NOTICE and add_notice(tree, tvb(APPLICATION_HEADER)) or "Message of type " .. kind
end

local function from_application(tvb, tree, kind, length)
    if not sound_size(tvb, 0, true) then
        return tell_of_application(tree, "reject.header")
    elseif tvb(4, 1):uint() < APPLICATION_VERSION then
        return tell_of_application(tree, "reject.version")
    elseif kind == IGNORED then
        if length > 0 then
            tree:add(application.ignored, tvb(APPLICATION_HEADER, length))
        end
        return "Ignored"
    elseif kind ~= REPORT then
        return tell_of_application(tree, "reject.type")
    elseif length ~= 12 then
        return tell_of_application(tree, "reject.length")
    end
    tree:add(application.esn, tvb(8, 8))
    tree:add_le(application.address, tvb(16, 4))
    return title(types[REPORT], hex(tvb(8, 8))) .. ", " .. tostring(tvb(16, 4):le_ipv4())
end

local function application_message(tvb, pinfo, root)
    local tree, kind, length = root:add(qmra, tvb()), tvb(5, 1):uint(), tvb(6, 2):le_uint()
    if tvb(0, 4):raw() == "QMRA" then
        tree:add(application.magic, tvb(0, 4))
        tree:add(application.version, tvb(4, 1))
        tree:add(application.type, tvb(5, 1))
        tree:add_le(application.length, tvb(6, 2))
    end
    local judge = goes_to_server(qmra, pinfo, kind == NOTICE) and from_application or to_application
    local text = judge(tvb, tree, kind, length)
    tree:append_text(": " .. text)
    -- A frame tells of all its messages.
    pinfo.cols.info:append((pinfo.private.qmra and "; " or "") .. text)
    pinfo.private.qmra = "told"
    return tvb:len()
end

function qmra.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "QMRA"
    pinfo.cols.info:clear()
    if tvb:len() < tvb:reported_len() then
        root:add(qmra, tvb()):append_text(": " .. NOT_WHOLE)
        pinfo.cols.info:append(NOT_WHOLE)
    else
        dissect_tcp_pdus(tvb, root, APPLICATION_HEADER, message_size, application_message)
    end
    return tvb:len()
end

-- At the server's port, which is a preference; at any other what can be nothing else.
local function attend(protocol, transport, setting, magic, header)
    local dissectors, port = DissectorTable.get(transport .. ".port"), 9361
    protocol.prefs.port = Pref.uint("Port of the server", port, setting .. " in the server's qmr.cfg")
    dissectors:add(port, protocol)

    function protocol.prefs_changed()
        dissectors:remove(port, protocol)
        port = protocol.prefs.port
        dissectors:add(port, protocol)
    end

    protocol:register_heuristic(transport, function(tvb, pinfo, root)
        if tvb:len() >= header and tvb(0, 4):raw() == magic then
            pinfo.conversation = protocol
            protocol.dissector(tvb, pinfo, root)
            return true
        end
    end)
end

attend(qmrs, "udp", "radioRegistrationPort", "QMRS", RADIO_HEADER)
attend(qmra, "tcp", "applicationPort", "QMRA", APPLICATION_HEADER)
