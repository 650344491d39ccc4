"""Finds what can be mutated in a source file, and writes the file with all its mutants, each behind a switch.

A mutant takes out a statement, swaps two, negates a condition or a result, or changes an operator or a number. The
compiler's own syntax tree says where; nothing in a macro's expansion is changed but as a whole statement.
"""

import collections
import dataclasses
import itertools
import re

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

OPERATORS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&"}
OPERATORS |= {"+": "-", "-": "+", "&": "|", "|": "&", "*": "+"}
STATEMENTS = (
    Kind.CALL_EXPR,
    Kind.UNEXPOSED_EXPR,
    Kind.BINARY_OPERATOR,
    Kind.COMPOUND_ASSIGNMENT_OPERATOR,
    Kind.UNARY_OPERATOR,
    Kind.CXX_STATIC_CAST_EXPR,
    Kind.CXX_THROW_EXPR,
)
CONSTANT_CONTEXTS = (Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.TYPE_ALIAS_DECL)
INTEGERS = {
    getattr(TypeKind, name) for name in ("INT", "UINT", "LONG", "ULONG", "LONGLONG", "ULONGLONG", "SHORT", "USHORT")
}
# What an updater stands on: every such mutant must be found.
VITAL = re.compile(
    r"[Ss]ync(?!_file_range)|[Rr]ename|(?<![BbCc])[Ll]ock|(?<!with_)[Dd]igest|[Ss]ignature|[Vv]erify|CheckFileChecksum"
)


@dataclasses.dataclass(frozen=True)
class Site:
    """One mutant: the bytes [begin, end) of the file, what kind of change, and how to write it."""

    begin: int
    end: int
    kind: str
    function: str
    write: object  # (condition, original, rewritten) -> text


@dataclasses.dataclass(frozen=True)
class Mutant:
    """A site with its lasting name: file, function, change and the text that it changes; not the line, which moves."""

    name: str
    file: str
    line: int
    kind: str
    is_vital: bool


class File:
    """The sites of one source file."""

    def __init__(self, path, name, arguments):
        self.bytes = path.read_bytes()
        self.name = name
        self.path = str(path)
        self.sites = []
        options = cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
        unit = cindex.Index.create().parse(self.path, args=arguments, options=options)
        errors = [str(problem) for problem in unit.diagnostics if problem.severity >= cindex.Diagnostic.Error]
        if errors:
            raise ValueError(f"{path}: {errors[0]}")
        self.macros = [
            (cursor.extent.start.offset, cursor.extent.end.offset)
            for cursor in unit.cursor.get_children()
            if cursor.kind == Kind.MACRO_INSTANTIATION and self._is_here(cursor)
        ]
        for cursor in unit.cursor.get_children():
            if self._is_here(cursor):
                self._walk(cursor, "")
        self._keep_nested()

    def mutants(self):
        """The mutants in order; of those with the same text, all but the first have a number behind it."""
        seen = collections.Counter()
        for site in self.sites:
            text = " ".join(self._text(site.begin, site.end).split())
            name = f"{self.name}: {site.function}: {site.kind}: {text[:120]}"
            seen[name] += 1
            line = self.bytes.count(b"\n", 0, site.begin) + 1
            vital = site.kind != "number" and VITAL.search(text) is not None
            yield Mutant(name if seen[name] == 1 else f"{name} #{seen[name]}", self.name, line, site.kind, vital)

    def rewritten(self, numbers):
        """The whole file with the mutants that have a number in `numbers`, by place in `sites`."""
        chosen = sorted(
            ((site, numbers[place]) for place, site in enumerate(self.sites) if place in numbers),
            key=lambda pair: (pair[0].begin, -pair[0].end),
        )
        return self._rewrite(0, len(self.bytes), collections.deque(chosen))

    def _rewrite(self, begin, end, chosen):
        pieces, at = [], begin
        while chosen and chosen[0][0].begin < end:
            site, number = chosen.popleft()
            pieces.append(self._text(at, site.begin))
            inner = self._rewrite(site.begin, site.end, chosen)
            condition = f"::orbamira_mutation::On({number})"
            pieces.append(site.write(condition, self._text(site.begin, site.end), inner))
            at = site.end
        return "".join((*pieces, self._text(at, end)))

    def _text(self, begin, end):
        return self.bytes[begin:end].decode()

    def _is_here(self, cursor):
        return cursor.location.file is not None and cursor.location.file.name == self.path

    def _is_in_macro(self, cursor):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        return any(first <= begin < last or first < end <= last for first, last in self.macros)

    def _keep_nested(self):
        """Leaves out what overlaps another site without lying in it, as macros may make it."""
        self.sites.sort(key=lambda site: (site.begin, -site.end))
        kept, open_ends = [], []
        for site in self.sites:
            while open_ends and open_ends[-1] <= site.begin:
                open_ends.pop()
            if not open_ends or site.end <= open_ends[-1]:
                kept.append(site)
                open_ends.append(site.end)
        self.sites = kept

    def _add(self, begin, end, kind, function, write):
        self.sites.append(Site(begin, end, kind, function, write))

    def _walk(self, cursor, function):
        if cursor.kind in (
            Kind.FUNCTION_DECL,
            Kind.CXX_METHOD,
            Kind.CONSTRUCTOR,
            Kind.DESTRUCTOR,
            Kind.FUNCTION_TEMPLATE,
        ):
            function = cursor.spelling
        if cursor.kind == Kind.COMPOUND_STMT:
            self._statements(cursor, function)
        if cursor.kind in (Kind.IF_STMT, Kind.WHILE_STMT):
            self._condition(cursor, function)
        if cursor.kind == Kind.RETURN_STMT:
            self._result(cursor, function)
        if not self._is_in_macro(cursor):
            self._expression(cursor, function)
        is_constant = cursor.kind == Kind.VAR_DECL and any(
            t.spelling == "constexpr" for t in self._first_tokens(cursor)
        )
        if is_constant or cursor.kind in CONSTANT_CONTEXTS[:2]:
            return
        children = list(cursor.get_children())
        if cursor.kind == Kind.CASE_STMT:
            children = children[1:]
        for child in children:
            if self._is_here(child):
                self._walk(child, function)

    @staticmethod
    def _first_tokens(cursor):
        return itertools.islice(cursor.get_tokens(), 3)

    def _statements(self, block, function):
        ends = []
        for cursor in block.get_children():
            begin, end = cursor.extent.start.offset, cursor.extent.end.offset
            semicolon = re.compile(rb"\s*;").match(self.bytes, end)
            if cursor.kind not in STATEMENTS or semicolon is None or end <= begin:
                ends.append(None)
                continue
            end = semicolon.end()
            self._add(begin, end, "statement", function, lambda on, _, inner: f"if (!{on}) {{ {inner} }}")
            ends.append((begin, end, cursor.kind))
        calls = (Kind.CALL_EXPR, Kind.UNEXPOSED_EXPR)
        place = 0
        while place + 1 < len(ends):
            first, second = ends[place], ends[place + 1]
            if first and second and first[2] in calls and second[2] in calls:
                a = self._text(first[0], first[1])
                b = self._text(second[0], second[1])
                self._add(
                    first[0],
                    second[1],
                    "order",
                    function,
                    lambda on, _, inner, a=a, b=b: f"if ({on}) {{ {b} {a} }} else {{ {inner} }}",
                )
                place += 1
            place += 1

    def _condition(self, cursor, function):
        children = list(cursor.get_children())
        blocks = [place for place, child in enumerate(children) if child.kind == Kind.COMPOUND_STMT]
        if not blocks or blocks[0] == 0 or any(child.kind == Kind.VAR_DECL for child in children):
            return
        if any(token.spelling == "constexpr" for token in itertools.islice(cursor.get_tokens(), 2)):
            return
        condition = children[blocks[0] - 1]
        if condition.kind != Kind.DECL_STMT and not self._is_in_macro(condition):
            self._negate(condition, "condition", function)

    def _negate(self, cursor, kind, function):
        if self._operator_of(cursor)[0] in ("==", "!="):
            return  # the operator's own mutant is the same
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        self._add(begin, end, kind, function, lambda on, _, inner: f"({on} != static_cast<bool>({inner}))")

    def _result(self, cursor, function):
        values = list(cursor.get_children())
        if len(values) != 1 or self._is_in_macro(values[0]):
            return
        value = values[0]
        if value.type.get_canonical().kind == TypeKind.BOOL and value.kind != Kind.CXX_BOOL_LITERAL_EXPR:
            self._negate(value, "result", function)

    def _expression(self, cursor, function):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        text = self._text(begin, end)
        if cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            no = "!" if text == "true" else ""
            self._add(begin, end, "result", function, lambda on, _, __, no=no: f"{no}{on}")
        elif cursor.kind == Kind.INTEGER_LITERAL and re.fullmatch(r"[0-9A-Fa-fxX']+[UuLl]*", text):
            self._add(begin, end, "number", function, lambda on, old, _: f"({on} ? {old} + 1 : {old})")
        elif self._is_integer_constant(cursor, text):
            kind = "static_cast<std::remove_cv_t<decltype({0})>>({0} + 1)"
            self._add(begin, end, "number", function, lambda on, old, _: f"({on} ? {kind.format(old)} : {old})")
        elif cursor.kind == Kind.BINARY_OPERATOR:
            self._operator(cursor, function)

    @staticmethod
    def _is_integer_constant(cursor, text):
        if cursor.kind != Kind.DECL_REF_EXPR or not re.fullmatch(r"k[A-Z]\w*", text):
            return False
        kind = cursor.type.get_canonical()
        return kind.kind in INTEGERS and kind.is_const_qualified()

    def _operator_of(self, cursor):
        """The built-in operator between two operands, where the left one ends and the right one begins."""
        sides = list(cursor.get_children()) if cursor.kind == Kind.BINARY_OPERATOR else []
        if len(sides) != 2:
            return "", 0, 0
        left, right = sides[0].extent.end.offset, sides[1].extent.start.offset
        return self._text(left, right).strip(), left, right

    def _operator(self, cursor, function):
        operator, left, right = self._operator_of(cursor)
        if operator not in OPERATORS:
            return
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        changed = f"{self._text(begin, left)} {OPERATORS[operator]} {self._text(right, end)}"
        self._add(
            begin, end, "operator", function, lambda on, _, inner, changed=changed: f"({on} ? ({changed}) : ({inner}))"
        )
