#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A line for each source of a compilation database: a name for all that clang-tidy sees of it, which is its content and
that of every header of ours that it includes, how it is compiled, the settings; a blank; its path."""

import hashlib
import json
import os
import pathlib
import re
import sys


def with_headers(path, known):
    """Adds to known, by path, the content of the file and of what it includes, directly or not."""
    if path not in known:
        known[path] = path.read_text()
        for name in re.findall(r'^#include "(.+)"', known[path], re.MULTILINE):
            if pathlib.Path(name).exists():
                with_headers(pathlib.Path(name), known)
            elif not name.endswith(".moc"):  # these are made of the file itself
                raise SystemExit(f"{path}: {name} is not a path from the top of the tree")
    return known


def main():
    database, version = pathlib.Path(sys.argv[1]), sys.argv[2]
    here = os.getcwd()
    files = {}
    for entry in json.loads(database.read_text()):
        path = os.path.relpath(os.path.join(entry["directory"], entry["file"]))
        if not path.startswith(("build", "..")):
            files[path] = entry["command"].replace(here, "")
    for path, command in sorted(files.items()):
        settings = [parent / ".clang-tidy" for parent in pathlib.Path(path).parents]
        texts = [setting.read_text() for setting in settings if setting.exists()]
        known = with_headers(pathlib.Path(path), {})
        texts += [f"{name}\n{content}" for name, content in sorted(known.items())]
        print(hashlib.sha256("\0".join([version, command, *texts]).encode()).hexdigest(), path)


if __name__ == "__main__":
    main()
