-- SPDX-FileCopyrightText: 2026 The Quillmere developers
-- SPDX-License-Identifier: MIT

std = "min" -- what Lua 5.1 to 5.4 have in common
max_line_length = 120
read_globals = {
    "DissectorTable", "NSTime", "Pref", "Proto", "ProtoExpert", "ProtoField", "base", "dissect_tcp_pdus", "expert", "frametype",
}
