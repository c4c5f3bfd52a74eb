# SPDX-License-Identifier: MIT
"""Finds what could be wrong in C++ sources, one small change at a time, and rewrites them so that each
change is chosen while the program runs: see mutant.h."""
import concurrent.futures
import dataclasses
import functools
import json
import pathlib
import re
import shlex

from clang import cindex
from clang.cindex import CursorKind as Kind, TypeKind

NUMBERS_PER_FILE = 1000
COMPARISONS = {"==": ("equal", "!="), "!=": ("different", "=="), "<": ("less", "<="),
               "<=": ("lessOrEqual", "<"), ">": ("more", ">="), ">=": ("moreOrEqual", ">")}
ARITHMETIC = {"+": ("plus", "-"), "-": ("minus", "+"), "*": ("times", "+"), "/": ("over", "*"),
              "%": ("modulo", "*"), "&": ("both", "|"), "|": ("either", "&"),
              "^": ("exclusive", "&"), "<<": ("shiftLeft", ">>"), ">>": ("shiftRight", "<<")}
LOGIC = {"&&": "||", "||": "&&"}
ASSIGNMENTS = {"+=": ("add", "-="), "-=": ("subtract", "+="), "|=": ("addBits", "&="),
               "&=": ("keepBits", "|=")}
STEPS = {"++": ("increment", "--"), "--": ("decrement", "++")}
LITERALS = re.compile(r"\d[\w']*|'(\\.|\\x\w+|.)'|true|false")
LOCK = re.compile(r"(?:const )?std::(?:lock_guard|unique_lock) \w+\((?P<mutex>[^,]*?)(?:, .*)?\);")
FUNCTIONS = (Kind.LAMBDA_EXPR, Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR,
             Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE)
LOOPS = (Kind.WHILE_STMT, Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT, Kind.DO_STMT)


@dataclasses.dataclass
class Site:
    """A change, and the insertions that bring it in: (offset, is_end, extent, text)."""
    file: str
    start: int
    end: int
    kind: str
    change: str
    prefix: str  # with NUMBER for the number
    suffix: str = ")"
    operator: tuple = ()  # the range to replace, and what with
    runs: bool = True  # the program, or else only the compiler works it out
    number: int = -1
    line: int = 0
    text: str = ""


class Finder:
    def __init__(self, root, folders):
        self.root = root
        self.folders = folders
        self.sources = {}
        self.sites = {}
        self.runs = False

    def parse(self, command):
        words = shlex.split(command["command"])[1:]
        arguments = [word for i, word in enumerate(words)
                     if not word.startswith(("-W", "-f", "-o", "-c", "-g")) and
                     words[i - 1] not in ("-o", "-c")]
        index = cindex.Index.create()
        unit = index.parse(command["file"], arguments)
        errors = [str(d) for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            raise SystemExit("mutants: " + "\n".join(errors))
        for cursor in unit.cursor.get_children():
            if self.own(cursor):
                self.walk(cursor, [])

    def own(self, cursor):
        file = cursor.location.file
        return file and self.name(file.name) is not None

    def name(self, path):
        try:
            name = pathlib.Path(path).resolve().relative_to(self.root)
        except ValueError:
            return None
        return str(name) if name.parts[0] in self.folders else None

    def source(self, file):
        if file not in self.sources:
            self.sources[file] = (self.root / file).read_bytes().decode("latin-1")
        return self.sources[file]

    def place(self, cursor):
        """File, start and end; None for what a macro has made."""
        extent = cursor.extent
        if not extent.start.file or not extent.end.file or \
                extent.start.file.name != extent.end.file.name or \
                extent.end.offset <= extent.start.offset:
            return None
        file = self.name(extent.start.file.name)
        return (file, extent.start.offset, extent.end.offset) if file else None

    def add(self, place, kind, change, prefix, **more):
        site = Site(*place, kind, change, prefix, runs=self.runs, **more)
        source = self.source(site.file)
        site.line = source.count("\n", 0, site.start) + 1
        site.text = source.split("\n")[site.line - 1].strip()
        self.sites.setdefault((site.file, site.start, site.end, kind), site)

    # Each of these looks at one cursor.

    def two_sided(self, cursor, sides):
        whole = self.place(cursor)
        left, right = (self.place(side) for side in sides)
        if not whole or not left or not right or left[2] > right[1]:
            return
        between = self.source(whole[0])[left[2]:right[1]]
        operator = between.strip()
        at = left[2] + len(between) - len(between.lstrip())
        where = (at, at + len(operator))
        plain = is_plain(cursor.type) and all(is_plain(side.type) for side in sides)
        if operator in LOGIC:
            self.add(whole, "comparison", f"{operator} -> {LOGIC[operator]}",
                     "(mutant::is(NUMBER) != ((mutant::is(NUMBER) != bool(", suffix="))))",
                     operator=(*where, f")) {operator} (mutant::is(NUMBER) != bool("))
        is_moved = is_time(cursor.type) and operator in "+-" and \
            not all("time_point" in side.type.get_canonical().spelling for side in sides)
        for table, kind, allowed in ((COMPARISONS, "comparison", True),
                                     (ARITHMETIC, "step", plain or is_moved),
                                     (ASSIGNMENTS, "step", plain)):
            if operator in table and allowed:
                name, other = table[operator]
                self.add(whole, kind, f"{operator} -> {other}", f"mutant::{name}<NUMBER>(",
                         operator=(*where, ","))

    def one_sided(self, cursor):
        whole = self.place(cursor)
        if not whole:
            return
        text = self.source(whole[0])[whole[1]:whole[2]]
        if text.startswith("!"):
            self.add(whole, "comparison", "! dropped", "(mutant::is(NUMBER) != ")
        for operator, (name, other) in STEPS.items():
            if text.startswith(operator):
                self.add(whole, "step", f"{operator} -> {other}", f"mutant::{name}<NUMBER>(",
                         operator=(whole[1], whole[1] + 2, ""))

    def condition(self, cursor):
        whole = self.place(cursor)
        if whole and cursor.kind.is_expression() and not is_operation(cursor, self):
            self.add(whole, "comparison", "negated", "(mutant::is(NUMBER) != bool(", suffix="))")

    def constant(self, cursor, is_literal):
        whole = self.place(cursor)
        if not whole:
            return
        text = self.source(whole[0])[whole[1]:whole[2]]
        if is_literal and LITERALS.fullmatch(text):
            other = {"true": "false", "false": "true"}.get(text, f"{text} + 1")
            self.add(whole, "constant", f"{text} -> {other}", "mutant::constant<NUMBER>(")
        elif not is_literal and re.fullmatch(r"[\w:]+", text):
            is_long = is_time(cursor.type) or text.endswith("Ms")  # one more would not be noticed
            other = f"10 * {text}" if is_long else f"{text} + 1"
            self.add(whole, "constant", f"{text} -> {other}",
                     f"mutant::{'tenfold' if is_long else 'constant'}<NUMBER>(")

    def statement(self, cursor, parents):
        whole = self.place(cursor)
        if not whole:
            return
        file, start, end = whole
        source = self.source(file)
        text = source[start:end]
        if cursor.kind == Kind.DECL_STMT:
            lock = LOCK.fullmatch(text)
            if lock:
                self.add((file, start + lock.start("mutex"), start + lock.end("mutex")), "lock",
                         "dropped", "mutant::locked<NUMBER>(")
            return
        leaves = cursor.kind == Kind.RETURN_STMT
        is_nested = sum(parent.kind == Kind.COMPOUND_STMT for parent in since_function(parents)) > 1
        if cursor.kind.is_expression() or cursor.kind == Kind.CONTINUE_STMT or \
                (leaves and (is_nested or text == "return")) or \
                (cursor.kind == Kind.BREAK_STMT and nearest(parents, Kind.SWITCH_STMT) in LOOPS):
            semicolon = re.match(r"\s*;", source[end:])
            if semicolon and not re.match(r"qC?(Debug|Warning)\(|Q_ASSERT", text):
                self.add((file, start, end + semicolon.end()), "statement", "dropped",
                         "if (!mutant::is(NUMBER)) { ", suffix=" }")

    def walk(self, cursor, parents):
        kind = cursor.kind
        if kind in (Kind.STATIC_ASSERT, Kind.ENUM_DECL) or kind.is_attribute():
            return
        children = list(cursor.get_children())
        if kind in (Kind.VAR_DECL, Kind.FIELD_DECL):
            place = self.place(cursor)
            name_at = cursor.location.offset
            if not place or \
                    "constexpr" in self.source(place[0])[place[1]:name_at]:
                return
            after = self.source(place[0])[name_at + len(cursor.spelling):]
            if after.startswith("["):
                return
            children = [child for child in children if child.extent.start.offset > name_at]
        elif kind == Kind.CASE_STMT:
            children = children[1:]
        elif kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            self.two_sided(cursor, children)
        elif kind == Kind.UNARY_OPERATOR:
            self.one_sided(cursor)
            place = self.place(cursor)
            if place and self.source(place[0])[place[1]] == "&":
                return
        elif kind == Kind.CALL_EXPR and cursor.spelling.startswith("operator"):
            sides = list(cursor.get_arguments())
            if len(sides) == 2 and cursor.spelling not in ("operator=", "operator()", "operator[]"):
                self.two_sided(cursor, sides)
            elif len(sides) == 1 and cursor.spelling in ("operator++", "operator--"):
                self.one_sided(cursor)
        elif kind in (Kind.INTEGER_LITERAL, Kind.CHARACTER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR):
            self.constant(cursor, True)
        elif kind == Kind.DECL_REF_EXPR and is_named_constant(cursor):
            self.constant(cursor, False)
        elif kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.CONDITIONAL_OPERATOR) and children:
            place = self.place(cursor)
            if not place or not self.source(place[0])[place[1]:].startswith("if constexpr"):
                self.condition(children[0])
        elif kind == Kind.COMPOUND_STMT:
            for child in children:
                self.statement(child, parents + [cursor])
        runs = self.runs
        if kind in FUNCTIONS:
            place = self.place(cursor)
            self.runs = bool(place) and \
                "constexpr" not in self.source(place[0])[place[1]:cursor.location.offset]
        for child in children:
            place = self.place(child)
            if place and re.match(r"qC?(Debug|Warning)\(|Q_ASSERT", self.source(place[0])[place[1]:]):
                continue
            self.walk(child, parents + [cursor])
        self.runs = runs


def is_plain(clang_type):
    kind = clang_type.get_canonical().kind
    return TypeKind.BOOL.value <= kind.value <= TypeKind.LONGDOUBLE.value or \
        kind in (TypeKind.POINTER, TypeKind.ENUM)


def is_time(clang_type):
    return "std::chrono::" in clang_type.get_canonical().spelling


def is_named_constant(cursor):
    declared = cursor.referenced
    if not declared or declared.kind != Kind.VAR_DECL:
        return False
    words = [token.spelling for token, _ in zip(declared.get_tokens(), range(4))]
    return "constexpr" in words and not declared.location.file.name.startswith("/usr/") and \
        (is_plain(cursor.type) and cursor.type.get_canonical().kind != TypeKind.POINTER or
         "std::chrono::duration" in cursor.type.get_canonical().spelling)


def is_operation(cursor, finder):
    """Is looked at for itself."""
    while cursor.kind in (Kind.UNEXPOSED_EXPR, Kind.PAREN_EXPR):
        children = list(cursor.get_children())
        if len(children) != 1:
            return False
        cursor = children[0]
    place = finder.place(cursor)
    return cursor.kind == Kind.BINARY_OPERATOR or \
        cursor.kind == Kind.CALL_EXPR and cursor.spelling[8:] in COMPARISONS or \
        cursor.kind in (Kind.CXX_BOOL_LITERAL_EXPR, Kind.INTEGER_LITERAL) or \
        (cursor.kind == Kind.UNARY_OPERATOR and place is not None and
         finder.source(place[0])[place[1]] == "!")


def since_function(parents):
    for index in range(len(parents) - 1, -1, -1):
        if parents[index].kind in FUNCTIONS:
            return parents[index:]
    return parents


def nearest(parents, *others):
    for parent in reversed(parents):
        if parent.kind in LOOPS or parent.kind in others:
            return parent.kind
    return None


def find_in(root, folders, command):
    finder = Finder(root, folders)
    finder.parse(command)
    return finder.sites


def find(root, folders, commands):
    found = {}
    with concurrent.futures.ProcessPoolExecutor() as pool:
        for sites in pool.map(functools.partial(find_in, root, folders), commands):
            found |= sites
    sites = sorted(found.values(), key=lambda site: (site.file, site.start, -site.end))
    files = sorted({site.file for site in sites})
    count = {}
    for site in sites:
        count[site.file] = count.get(site.file, -1) + 1
        site.number = files.index(site.file) * NUMBERS_PER_FILE + count[site.file]
    return sites


def rewrite(source, sites, header):
    """The source with all of its sites."""
    inserted = []
    replaced = {}
    for site in sites:
        number = str(site.number)
        # At one place, what ends there comes first, the innermost of it first; then what begins, the
        # outermost first. A statement is outside of the expression it consists of.
        rank = 0 if site.kind == "statement" else 1
        inserted.append(((site.end, 0, -site.start, -rank), site.suffix))
        inserted.append(((site.start, 1, -site.end, rank), site.prefix.replace("NUMBER", number)))
        if site.operator:
            start, end, text = site.operator
            replaced[start] = (end, text.replace("NUMBER", number))
    inserted.sort(key=lambda entry: entry[0])
    result = []
    at = 0
    pieces = [(key[0], text, None) for key, text in inserted]
    pieces += [(start, text, end) for start, (end, text) in replaced.items()]
    order = {id(piece): index for index, piece in enumerate(pieces)}
    for piece in sorted(pieces, key=lambda piece: (piece[0], piece[2] is not None, order[id(piece)])):
        offset, text, end = piece
        result.append(source[at:offset])
        result.append(text)
        at = offset if end is None else end
    result.append(source[at:])
    text = "".join(result)
    first = re.search(r"^(#pragma once\n|)(?=#include|\n#include)", text, re.MULTILINE)
    pragma = "#pragma GCC system_header\n" if "#pragma once" in text else ""
    if "#pragma once" in text:
        return text.replace("#pragma once", f'#pragma once\n{pragma}#include "{header}"', 1)
    return f'#include "{header}"\n' + text


def commands_of(build, scratch, root, folders):
    """The compile commands of the folders' sources, for the sources as they are."""
    commands = json.loads((build / "compile_commands.json").read_text().replace(
        f"{scratch}/build/", f"{scratch}/BUILD/").replace(str(scratch) + "/", str(root) + "/").replace(
        f"{root}/BUILD/", f"{scratch}/build/"))
    seen = {}
    for command in commands:
        file = pathlib.Path(command["file"])
        if file.is_relative_to(root) and file.relative_to(root).parts[0] in folders and \
                "core_manage_objects" in command["command"]:
            seen[str(file)] = command
    return [seen[file] for file in sorted(seen)]
