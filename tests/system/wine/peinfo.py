# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""What a Windows executable says of itself, read on this machine with the mingw binutils."""

import re
import subprocess

_TOOLS = "x86_64-w64-mingw32-"


def _headers(executable):
    return subprocess.run([_TOOLS + "objdump", "-p", executable], capture_output=True, text=True, check=True).stdout


def _resources(executable):
    """The resources as windres writes them back, as source text."""
    command = [_TOOLS + "windres", "--input-format=coff", "--output-format=rc", "--input", str(executable)]
    return subprocess.run(command, capture_output=True, encoding="utf-8", check=True).stdout


def symbols(executable):
    """The lines of the symbol table."""
    table = subprocess.run([_TOOLS + "objdump", "-t", executable], capture_output=True, text=True, check=True).stdout
    return [line for line in table.partition("SYMBOL TABLE:")[2].splitlines() if line and line != "no symbols"]


def imported_libraries(executable):
    """The names of the DLLs that Windows loads with the executable, in lower case."""
    return sorted({name.lower() for name in re.findall(r"DLL Name: (\S+)", _headers(executable))})


def hardening(executable):
    """The names of the loader's protections that are on; RELOC is there when the image really can be moved."""
    headers = _headers(executable)
    found = set(re.findall(r"^\s+(HIGH_ENTROPY_VA|DYNAMIC_BASE|NX_COMPAT|GUARD_CF)$", headers, re.MULTILINE))
    table = re.search(r"^Entry 5 [0-9a-f]+ ([0-9a-f]+) Base Relocation Directory", headers, re.MULTILINE)
    return found | ({"RELOC"} if table and int(table[1], 16) > 0 else set())


def has_timestamp(executable):
    """Whether the header holds the time of linking, which makes two builds differ."""
    return re.search(r"^Time/Date\s+Thu Jan\s+1 00:00:00 1970$", _headers(executable), re.MULTILINE) is None


def resource_ids(executable):
    """Each resource as (type, identifier, language), numbers all."""
    # objdump shows the three levels by two, four and six spaces before "Entry".
    found, path = [], {}
    for spaces, number in re.findall(r"^[0-9a-f]+ ( +)Entry: ID: 0x([0-9a-f]+),", _headers(executable), re.MULTILINE):
        path[len(spaces)] = int(number, 16)
        if len(spaces) == 6:
            found.append((path[2], path[4], path[6]))
    return found


def message_table(executable):
    """The bytes of the message table, or none."""
    match = re.search(r"RT_MESSAGETABLE \*/\s*BEGIN\s*(.*?)(?:/\*|END)", _resources(executable), re.DOTALL)
    words = re.findall(r"0x([0-9a-f]+)L", match[1]) if match else []
    return b"".join(int(word, 16).to_bytes(4, "little") for word in words)


def version(executable):
    """File version and product version, each as four numbers."""
    text = _resources(executable)
    return tuple(
        tuple(int(number) for number in re.search(rf"{name} ([\d, ]+)", text)[1].split(","))
        for name in ("FILEVERSION", "PRODUCTVERSION")
    )
