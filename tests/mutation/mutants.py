# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Where a source can be changed, and the source with all of these changes in it, each asleep until it is asked for.

The places come from clang's syntax tree. Each is written as a question (see mutant.h), so that one build serves for
all mutants."""

import dataclasses

from clang.cindex import CursorKind, Index, TypeKind

COMPARISONS = {"<": ("less", "<="), "<=": ("lessOrEqual", "<"), ">": ("greater", ">="), ">=": ("greaterOrEqual", ">"),
               "==": ("equal", "!="), "!=": ("unequal", "==")}
ARITHMETIC = {"+": ("plus", "-"), "-": ("minus", "+")}
ASSIGNMENTS = {"=", "+=", "-=", "|=", "&=", "^=", "<<=", ">>="}
NUMBERS = {TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.UCHAR, TypeKind.SHORT, TypeKind.USHORT, TypeKind.INT,
           TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG, TypeKind.ULONGLONG}
SIMPLE = {CursorKind.DECL_REF_EXPR, CursorKind.MEMBER_REF_EXPR}
CONDITIONAL = {CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR}
FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.FUNCTION_TEMPLATE, CursorKind.CONVERSION_FUNCTION}
# The operands of what these hold are constants for the compiler.
CONSTANT = {CursorKind.CASE_STMT, CursorKind.STATIC_ASSERT, CursorKind.TEMPLATE_REF, CursorKind.ENUM_CONSTANT_DECL,
            CursorKind.FIELD_DECL}


@dataclasses.dataclass
class Mutant:
    number: int
    file: str
    line: int
    function: str
    change: str  # what is done to which text, on one line: it names the mutant wherever its line moves to
    edits: list  # (offset, length, text, rank): what is at one place is written in the order of the ranks

    def name(self):
        return f"{self.file}: {self.function}: {self.change}"


class Source:
    """One source. number: of its first mutant."""

    def __init__(self, path, arguments, number):
        self.path, self.number = path, number
        self.text = path.read_bytes()
        self.mutants = []
        unit = Index.create().parse(str(path), args=arguments)
        problems = [str(problem) for problem in unit.diagnostics if problem.severity >= 3]
        if problems:
            raise SystemExit("\n".join(problems))
        self.walk(unit.cursor, "", 0)

    def shown(self, begin, end):
        return " ".join(self.text[begin:end].decode().split())

    def add(self, cursor, function, change, edits):
        self.mutants.append(Mutant(self.number, str(self.path), cursor.location.line, function, change, edits))
        self.number += 1

    def walk(self, cursor, function, depth):
        for child in cursor.get_children():
            if child.location.file is None or child.location.file.name != str(self.path):
                continue
            inside = function
            if child.kind in FUNCTIONS and child.is_definition():
                inside = child.spelling
            if child.kind == CursorKind.VAR_DECL and not function:
                self.constant_of_file(child)
                continue
            if child.kind in CONSTANT or (child.kind == CursorKind.VAR_DECL and self.starts_with(child, b"constexpr")):
                continue
            if inside and function:
                self.look_at(child, cursor, function, depth)
            self.walk(child, inside, depth + 1)

    def starts_with(self, cursor, word):
        return word in self.text[cursor.extent.start.offset:cursor.extent.end.offset].split(b"=")[0].split()

    def constant_of_file(self, declaration):
        """A number that the file names: it is read at the start of the process instead of compiled in."""
        begin, end = declaration.extent.start.offset, declaration.extent.end.offset
        value = self.text.find(b"= ", begin, end) + 2
        if not self.starts_with(declaration, b"constexpr") or value < 2:
            return
        if declaration.type.get_canonical().kind not in NUMBERS:
            return
        word = self.text.find(b"constexpr", begin, end)
        self.add(declaration, "", f"change {declaration.spelling}", [
            (word, len("constexpr"), "const", 0),
            (value, 0, f"Mutation::constant(@, static_cast<std::decay_t<decltype({self.shown(value, end)})>>(", depth_of(0)),
            (end, 0, "))", -depth_of(0))])

    def look_at(self, cursor, parent, function, depth):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        around = lambda before, after: [(begin, 0, before, depth_of(depth)), (end, 0, after, -depth_of(depth))]  # noqa: E731
        children = list(cursor.get_children())
        operator, place = self.operator_of(cursor, children)
        whole = self.shown(begin, end)
        if parent.kind == CursorKind.COMPOUND_STMT and self.is_droppable(cursor, operator):
            self.add(cursor, function, f"drop {whole}", [(begin, 0, "if (!Mutation::is(@)) ", depth_of(depth) - 1)])
        if operator in COMPARISONS or (operator in ARITHMETIC and self.is_number(cursor)):
            called, instead = (COMPARISONS | ARITHMETIC)[operator]
            self.add(cursor, function, f"{instead} in {whole}",
                     around(f"Mutation::{called}(@, ", ")") + [(place, len(operator), ",", 0)])
        elif operator in ("&&", "||"):
            before = "(Mutation::is(@) || (" if operator == "&&" else "(!Mutation::is(@) && ("
            for side in children:
                first, last = side.extent.start.offset, side.extent.end.offset
                rank = depth_of(depth + 1) - 1
                self.add(cursor, function, f"without {self.shown(first, last)} in {whole}",
                         [(first, 0, before, rank), (last, 0, "))", -rank)])
        elif cursor.kind == CursorKind.UNARY_OPERATOR and self.is_negation(begin):
            self.add(cursor, function, f"negate {whole}", around("(Mutation::is(@) != ", ")"))
        elif cursor.kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
            self.add(cursor, function, f"negate {whole} of {self.line_of(begin)}", around("Mutation::constant(@, ", ")"))
        elif cursor.kind == CursorKind.INTEGER_LITERAL and self.is_number(cursor) and whole[0].isdigit():
            self.add(cursor, function, f"change {whole} of {self.line_of(begin)}", around("Mutation::constant(@, ", ")"))
        if cursor.kind in CONDITIONAL and children and children[0].kind != CursorKind.VAR_DECL:
            self.condition(children[0], function, depth + 1)
        if cursor.kind == CursorKind.CALL_EXPR and operator is None:
            self.swap(cursor, function, depth)

    def condition(self, cursor, function, depth):
        operator, _ = self.operator_of(cursor, list(cursor.get_children()))
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        if operator is None and not self.is_negation(begin) and cursor.kind.is_expression():
            rank = depth_of(depth) - 1
            self.add(cursor, function, f"negate {self.shown(begin, end)}",
                     [(begin, 0, "(Mutation::is(@) != static_cast<bool>(", rank), (end, 0, "))", -rank)])

    def swap(self, cursor, function, depth):
        arguments = list(cursor.get_arguments())
        for a, b in zip(arguments, arguments[1:]):
            if a is None or b is None or a.type.get_canonical().spelling != b.type.get_canonical().spelling:
                continue
            (first, first_end), (second, second_end) = [(one.extent.start.offset, one.extent.end.offset) for one in (a, b)]
            if self.base(a).kind not in SIMPLE or self.base(b).kind not in SIMPLE:
                continue
            one, other = self.shown(first, first_end), self.shown(second, second_end)
            rank = depth_of(depth + 1) - 1
            self.add(cursor, function, f"swap {one} and {other} of {cursor.spelling}", [
                (first, 0, f"(Mutation::is(@) ? {other} : ", rank), (first_end, 0, ")", -rank),
                (second, 0, f"(Mutation::is(@) ? {one} : ", rank), (second_end, 0, ")", -rank)])

    def base(self, cursor):
        while cursor.kind == CursorKind.UNEXPOSED_EXPR and len(list(cursor.get_children())) == 1:
            cursor = next(cursor.get_children())
        return cursor

    def is_negation(self, offset):
        return self.text[offset:offset + 1] == b"!" and self.text[offset + 1:offset + 2] != b"="

    def is_number(self, cursor):
        return cursor.type.get_canonical().kind in NUMBERS

    def is_droppable(self, cursor, operator):
        begin = cursor.extent.start.offset
        if self.text[begin:begin + 2] in (b"++", b"--") or operator in ASSIGNMENTS:
            return True
        return cursor.kind == CursorKind.CALL_EXPR or (cursor.kind == CursorKind.UNEXPOSED_EXPR and
                                                       self.base(cursor).kind == CursorKind.CALL_EXPR)

    def operator_of(self, cursor, children):
        """The binary operator of an expression, built in or not, and where it is."""
        if cursor.kind not in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR) and not (
                cursor.kind == CursorKind.CALL_EXPR and cursor.spelling.startswith("operator")):
            return None, 0
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        operands = [child for child in children if not child.spelling.startswith("operator")
                    or child.kind not in (CursorKind.UNEXPOSED_EXPR, CursorKind.DECL_REF_EXPR)]
        if len(operands) != 2 or operands[0].extent.start.offset != begin or operands[1].extent.end.offset != end:
            return None, 0
        after, before = operands[0].extent.end.offset, operands[1].extent.start.offset
        operator = self.text[after:before].strip().decode()
        return operator, self.text.find(operator.encode(), after, before)

    def line_of(self, offset):
        begin = self.text.rfind(b"\n", 0, offset) + 1
        return self.shown(begin, self.text.find(b"\n", offset))

    def mutated(self, left_out):
        """The text with all mutants but those, by number, that cannot be compiled."""
        edits = [(offset, rank, length, text.replace("@", str(mutant.number)))
                 for mutant in self.mutants if mutant.number not in left_out
                 for offset, length, text, rank in mutant.edits]
        # What closes at a place comes before what opens there; of what opens, the outermost first.
        edits.sort(key=lambda edit: (edit[0], edit[1] > 0, edit[1]))
        written, at = [], 0
        for offset, _, length, text in edits:
            written += [self.text[at:offset].decode(), text]
            at = offset + length
        written.append(self.text[at:].decode())
        return "".join(written)


def depth_of(depth):
    """A rank for what opens at this depth of the tree; what closes there has it negated."""
    return 2 * depth + 2
