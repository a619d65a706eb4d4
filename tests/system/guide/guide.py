# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The commands of a guide, as they stand there: each has to be taken by a test.

A command in the text is one whose first word a test has named; blocks are commands all of them.
"""

import re


class NotInTheGuide(Exception):
    """A test takes what is not there."""


class Guide:
    """What a reader would type: the indented blocks, and what begins with a program's name between backticks."""

    def __init__(self, path, programs):
        self.path = path
        with open(path, encoding="utf-8") as file:
            text = file.read()
        blocks = re.findall(r"(?:^    .*\n(?:\n+(?=    ))?)+", text, re.MULTILINE)
        self.blocks = [re.sub(r"^    ", "", block, flags=re.MULTILINE) for block in blocks]
        prose = re.sub(r"^    .*\n", "", text, flags=re.MULTILINE)
        spans = re.findall(r"`([^`\n]+)`", prose)
        self.spans = {span for span in spans if re.split(r"\s", span)[0] in programs}

    def block(self, *begins):
        """Takes the block with a line that begins so; with several, the one that has them all."""
        found = [block for block in self.blocks
                 if all(any(line.startswith(begin) for line in block.splitlines()) for begin in begins)]
        if len(found) != 1:
            raise NotInTheGuide(f"{len(found)} blocks of the guide have lines that begin with {begins}")
        self.blocks.remove(found[0])
        return found[0]

    def span(self, command):
        """Takes a command of the text; it may stand there more than once."""
        if command not in self.spans:
            raise NotInTheGuide(f"the guide does not tell of {command}")
        self.spans.remove(command)
        return command

    def left(self):
        return self.blocks + sorted(self.spans)
