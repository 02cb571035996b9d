"""Finds what can be changed in the library's sources: one change at a time, each at a place that is code.

libclang parses every source of the library with the compiler's own arguments, so that an ampersand is known to be an
operator and a bracket a template's; what stands in comments, attributes and static assertions is left alone. A change
is a replacement of one piece of one file. Nothing is written here: build.py applies the changes, tools/mutate runs them.
"""
import ctypes
import hashlib
import pathlib
import re
from dataclasses import dataclass

import clang.cindex as cindex
from clang.cindex import CursorKind as Kind

FOLDERS = ("api", "common", "core", "tables")

COMPARISONS = {"==": ("!=",), "!=": ("==",), "<": ("<=", ">="), ">": (">=", "<="), "<=": ("<", ">"), ">=": (">", "<")}
ARITHMETIC = {"+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("*",),
              "+=": ("-=",), "-=": ("+=",), "*=": ("/=",), "/=": ("*=",), "%=": ("*=",)}
LOGIC = {"&&": ("||",), "||": ("&&",)}
BITS = {"&": ("|",), "|": ("&",), "^": ("&",), "<<": (">>",), ">>": ("<<",), "&=": ("|=",), "|=": ("&=",)}
BINARY = {**COMPARISONS, **ARITHMETIC, **LOGIC, **BITS}
UNARY = {"!": "", "~": "", "-": "", "++": "--", "--": "++"}

NOT_TEXT = re.compile(r"\\(?:x[0-9a-fA-F]+|[0-7]{1,3}|.)|%%|%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|j|z|t)?[a-zA-Z]?")
STRING = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
INTEGER = re.compile(r"(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlLzZ]*)$")


@dataclass(frozen=True)
class Mutant:
    path: str  # from the tree's top
    start: int
    end: int
    old: str
    new: str
    kind: str
    line: int
    source_hash: str

    @property
    def key(self):
        return hashlib.sha1(f"{self.path}:{self.source_hash}:{self.start}:{self.end}:{self.new}".encode()).hexdigest()[:16]


def compile_arguments(command):
    """What of a compiler's command line concerns the parser."""
    keep, words = [], command.split()
    for word in words:
        if word.startswith(("-I", "-D", "-std=")):
            keep.append(word)
    return keep


class Finder:
    """Collects the mutants of one translation unit and of those headers of the library that it includes."""

    def __init__(self, top, arguments):
        self.top = pathlib.Path(top).resolve()
        self.arguments = arguments
        self.index = cindex.Index.create()
        self.found = {}
        self.bytes = {}
        self.paths = {}
        self.skipped = {}
        self._file_location = cindex.conf.lib.clang_getFileLocation
        self._file_location.argtypes = [cindex.SourceLocation, ctypes.POINTER(cindex.c_object_p)] + \
            [ctypes.POINTER(ctypes.c_uint)] * 3

    # ---- places -------------------------------------------------------------------------------------------------

    def place(self, location):
        """The file and the offset at which a location was written, also where that is an argument of a macro."""
        file, line, column, offset = cindex.c_object_p(), ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
        self._file_location(location, ctypes.byref(file), ctypes.byref(line), ctypes.byref(column), ctypes.byref(offset))
        if not file:
            return None, 0
        return self.library_path(cindex.File(file).name), offset.value

    def library_path(self, name):
        if name not in self.paths:
            path = None
            try:
                path = pathlib.Path(name).resolve().relative_to(self.top).as_posix()
            except ValueError:
                pass
            self.paths[name] = path if path and path.split("/")[0] in FOLDERS else None
        return self.paths[name]

    def source(self, path):
        if path not in self.bytes:
            self.bytes[path] = (self.top / path).read_bytes()
            assert self.bytes[path].isascii(), path  # offsets are bytes here and characters elsewhere
        return self.bytes[path].decode("ascii")

    def extent(self, cursor):
        """Path, start and end of a node; no path when it does not lie in one piece in a file of the library."""
        path, start = self.place(cursor.extent.start)
        end_path, end = self.place(cursor.extent.end)
        if path is None or path != end_path or end <= start:
            return None, 0, 0
        return path, start, end

    # ---- collecting ---------------------------------------------------------------------------------------------

    def add(self, path, start, end, new, kind):
        text = self.source(path)
        if new == text[start:end] or any(a <= start < b for a, b in self.skipped.get(path, ())):
            return
        mutant = Mutant(path, start, end, text[start:end], new, kind, text.count("\n", 0, start) + 1,
                        hashlib.sha1(self.bytes[path]).hexdigest()[:12])
        self.found.setdefault((path, start, end, new), mutant)

    def collect(self, source):
        unit = self.index.parse(str(source), args=self.arguments,
                                options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [str(d) for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            raise RuntimeError(f"{source}: {errors[0]}")
        for child in unit.cursor.get_children():
            if self.place(child.location)[0] is not None:
                self.skip_assertions(child)
        self.visit(unit.cursor)

    def skip_assertions(self, cursor):
        for child in cursor.walk_preorder():
            if child.kind == Kind.STATIC_ASSERT or child.kind.is_attribute():
                path, start, end = self.extent(child)
                if path:
                    self.skipped.setdefault(path, set()).add((start, end))

    def visit(self, cursor):
        for child in cursor.get_children():
            if child.kind.is_preprocessing() and child.kind != Kind.MACRO_DEFINITION:
                continue
            if cursor.kind == Kind.TRANSLATION_UNIT and self.place(child.location)[0] is None:
                continue  # the system's and the platform's
            path, start, end = self.extent(child)
            if path:
                self.node(child, path, start, end)
            self.visit(child)

    def node(self, cursor, path, start, end):
        handler = {
            Kind.BINARY_OPERATOR: self.binary, Kind.COMPOUND_ASSIGNMENT_OPERATOR: self.binary,
            Kind.UNARY_OPERATOR: self.unary, Kind.INTEGER_LITERAL: self.integer, Kind.STRING_LITERAL: self.string,
            Kind.CXX_BOOL_LITERAL_EXPR: self.boolean, Kind.DECL_REF_EXPR: self.constant,
            Kind.IF_STMT: self.condition, Kind.WHILE_STMT: self.condition, Kind.FOR_STMT: self.condition,
            Kind.CONDITIONAL_OPERATOR: self.choice, Kind.COMPOUND_STMT: self.statements, Kind.CASE_STMT: self.last_of_case,
            Kind.INIT_LIST_EXPR: self.rows, Kind.MACRO_DEFINITION: self.macro,
        }.get(cursor.kind)
        if handler:
            handler(cursor, path, start, end)

    # ---- operators ----------------------------------------------------------------------------------------------

    def binary(self, cursor, path, _start, _end):
        sides = [self.extent(child) for child in cursor.get_children()]
        if len(sides) != 2 or any(side[0] != path for side in sides):
            return
        text = self.source(path)
        between = text[sides[0][2]:sides[1][1]]
        match = re.fullmatch(r"\s*([-+*/%&|^<>=!]+)\s*", between)
        if match is None:
            return
        operator, at = match.group(1), sides[0][2] + match.start(1)
        for new in BINARY.get(operator, ()):
            self.add(path, at, at + len(operator), new, "operator")

    def unary(self, _cursor, path, start, end):
        text = self.source(path)
        for operator, new in UNARY.items():
            if text.startswith(operator, start) and not (operator == "-" and text.startswith("--", start)):
                self.add(path, start, start + len(operator), new, "operator")
            elif len(operator) == 2 and text.endswith(operator, start, end):
                self.add(path, end - 2, end, new, "operator")

    # ---- constants and texts --------------------------------------------------------------------------------------

    def integer(self, _cursor, path, start, _end):
        token = re.compile(r"[0-9][0-9a-zA-Z']*").match(self.source(path), start)
        if token is None:
            return
        self.integer_token(path, start, token.group())

    def integer_token(self, path, start, token):
        match = INTEGER.match(token)
        if match is None:
            return
        digits, suffix = match.group(1).replace("'", ""), match.group(2)
        value = int(digits, 8) if re.fullmatch(r"0[0-7]+", digits) else int(digits, 0)
        for new in {value + 1, 0 if value else 1}:
            self.add(path, start, start + len(token), f"{new}{suffix}", "constant")

    def boolean(self, _cursor, path, start, end):
        text = self.source(path)[start:end]
        if text in ("true", "false"):
            self.add(path, start, end, "false" if text == "true" else "true", "constant")

    def constant(self, cursor, path, start, end):
        """An enumerator becomes its successor; a status that is none of success becomes success as well."""
        referenced = cursor.referenced
        if referenced is None or referenced.kind != Kind.ENUM_CONSTANT_DECL:
            return
        if not self.source(path)[start:end].endswith(referenced.spelling):
            return
        start = end - len(referenced.spelling)
        siblings = [c.spelling for c in referenced.semantic_parent.get_children() if c.kind == Kind.ENUM_CONSTANT_DECL]
        kind = "status" if "STATUS" in referenced.spelling or referenced.spelling.startswith("CL_") else "constant"
        if len(siblings) > 1:
            self.add(path, start, end, siblings[(siblings.index(referenced.spelling) + 1) % len(siblings)], kind)
        if kind == "status" and referenced.spelling != siblings[0]:
            self.add(path, start, end, siblings[0], kind)

    def string(self, _cursor, path, start, end):
        for match in STRING.finditer(self.source(path), start, end):
            self.text(path, match.start(1), match.group(1))

    def text(self, path, start, text):
        """The first letter in the other case, and the last character gone: what a careless edit would do."""
        fixed = [match.span() for match in NOT_TEXT.finditer(text)]
        free = [i for i in range(len(text)) if not any(a <= i < b for a, b in fixed)]
        letters = [i for i in free if text[i].isalpha()]
        if letters:
            at = start + letters[0]
            self.add(path, at, at + 1, text[letters[0]].swapcase(), "text")
        if free:
            at = start + free[-1]
            self.add(path, at, at + 1, "", "text")

    def macro(self, _cursor, path, start, end):
        """Constants, texts and comparisons of a definition."""
        text = self.source(path)
        name = re.compile(r"\w+(?:\([^)]*\))?").match(text, start)
        for match in STRING.finditer(text, name.end(), end):
            self.text(path, match.start(1), match.group(1))
        for match in re.compile(r" (==|!=|<=?|>=?|&&|\|\|) ").finditer(text, name.end(), end):
            for new in BINARY[match.group(1)]:
                self.add(path, match.start(1), match.end(1), new, "operator")
        for match in re.compile(r'"(?:[^"\\\n]|\\.)*"|/\*.*?\*/|\b[0-9][0-9a-zA-Z\']*\b', re.S).finditer(text, name.end(), end):
            if match.group()[0].isdigit():
                self.integer_token(path, match.start(), match.group())

    # ---- control flow ---------------------------------------------------------------------------------------------

    def condition(self, cursor, path, start, _end):
        """What stands in the brackets, or between the semicolons, is negated."""
        text = self.source(path)
        opening = re.compile(r"(?:if|while|for)\s*(?:constexpr\s*)?\(").match(text, start)
        if opening is None:
            return
        parts, depth, at = [opening.end()], 1, opening.end()
        while depth:
            quoted = STRING.match(text, at) or re.compile(r"'(?:[^'\\]|\\.)'").match(text, at)
            if quoted:
                at = quoted.end()
                continue
            depth += (text[at] in "([{") - (text[at] in ")]}")
            if depth == 0 or (depth == 1 and text[at] == ";"):
                parts.append(at)
            at += 1
        which = 1 if cursor.kind == Kind.FOR_STMT else len(parts) - 2
        if len(parts) < which + 2:
            return
        begin, stop = parts[which] + (1 if which else 0), parts[which + 1]
        self.negate(path, begin, stop)

    def choice(self, cursor, path, _start, _end):
        first = next(cursor.get_children(), None)
        if first is not None:
            child_path, begin, stop = self.extent(first)
            if child_path == path:
                self.negate(path, begin, stop)

    def negate(self, path, begin, stop):
        text = self.source(path)[begin:stop]
        inner = text.strip()
        if inner:
            begin += len(text) - len(text.lstrip())
            self.add(path, begin, begin + len(inner), f"!({inner})", "condition")

    def statements(self, cursor, path, _start, _end):
        whole = []
        for child in cursor.get_children():
            child_path, start, end = self.extent(child)
            whole.append((child, start, self.statement_end(path, child, end)) if child_path == path else None)
        for item in whole:
            if item and item[2] and self.is_removable(item[0]):
                self.add(path, item[1], item[2], ";", "statement gone")
        for first, second in zip(whole, whole[1:]):
            if first and second and first[2] and second[2] and self.is_movable(first[0]) and self.is_movable(second[0]):
                if self.commute(first[0], second[0]):
                    continue
                text = self.source(path)
                new = text[second[1]:second[2]] + text[first[2]:second[1]] + text[first[1]:first[2]]
                self.add(path, first[1], second[2], new, "statement order")

    @staticmethod
    def commute(first, second):
        """Two plain assignments of which neither reads what the other writes: the compiler may turn them round itself."""
        written, read = [], []
        for statement in (first, second):
            sides = list(statement.get_children())
            if statement.kind != Kind.BINARY_OPERATOR or len(sides) != 2 or \
                    sides[0].kind not in (Kind.MEMBER_REF_EXPR, Kind.DECL_REF_EXPR) or \
                    any(c.kind in (Kind.CALL_EXPR, Kind.UNARY_OPERATOR) for c in statement.walk_preorder()):
                return False
            written.append(sides[0].spelling)
            read.append({c.spelling for c in sides[1].walk_preorder() if c.spelling})
        return written[0] != written[1] and written[0] not in read[1] and written[1] not in read[0]

    def last_of_case(self, cursor, path, _start, _end):
        """The one statement that hangs on a case label; those behind it belong to the block."""
        children = list(cursor.get_children())
        child_path, start, end = self.extent(children[-1])
        if child_path == path and self.is_removable(children[-1]):
            stop = self.statement_end(path, children[-1], end)
            if stop:
                self.add(path, start, stop, ";", "statement gone")

    def statement_end(self, path, cursor, end):
        text = self.source(path)
        if cursor.kind in (Kind.COMPOUND_STMT, Kind.IF_STMT, Kind.WHILE_STMT, Kind.FOR_STMT, Kind.SWITCH_STMT,
                           Kind.CXX_FOR_RANGE_STMT):
            return end
        if text[end - 1] == ";":
            return end
        semicolon = re.compile(r"\s*;").match(text, end)
        return semicolon.end() if semicolon else 0

    @staticmethod
    def is_removable(cursor):
        if cursor.kind == Kind.DECL_STMT:  # a guard: an object that is there for what its making and its end do
            children = list(cursor.get_children())
            return len(children) == 1 and children[0].kind == Kind.VAR_DECL and \
                any(c.kind == Kind.CALL_EXPR and not list(c.get_arguments()) == [] for c in children[0].get_children())
        return cursor.kind.is_expression() or cursor.kind in (Kind.BREAK_STMT, Kind.CONTINUE_STMT) or \
            (cursor.kind == Kind.RETURN_STMT and not list(cursor.get_children()))

    @staticmethod
    def is_movable(cursor):
        if cursor.kind == Kind.DECL_STMT:
            return any(c.kind == Kind.CALL_EXPR for c in cursor.walk_preorder())
        return cursor.kind not in (Kind.CASE_STMT, Kind.DEFAULT_STMT, Kind.NULL_STMT, Kind.BREAK_STMT)

    def rows(self, cursor, path, _start, _end):
        """A table of steps or of operations: its rows change places."""
        children = list(cursor.get_children())
        if len(children) < 2 or any(c.kind != Kind.INIT_LIST_EXPR for c in children):
            return
        text = self.source(path)
        for first, second in zip(children, children[1:]):
            (path_1, start_1, end_1), (path_2, start_2, end_2) = self.extent(first), self.extent(second)
            if path_1 == path_2 == path and end_1 <= start_2:
                self.add(path, start_1, end_2, text[start_2:end_2] + text[end_1:start_2] + text[start_1:end_1],
                         "statement order")


def find_mutants(top, sources):
    """All mutants of the library; `sources` are pairs of a source's path and the command line that compiles it."""
    found = {}
    for source, command in sources:
        finder = Finder(top, compile_arguments(command))
        finder.collect(source)
        found.update(finder.found)
    return [found[key] for key in sorted(found)]
