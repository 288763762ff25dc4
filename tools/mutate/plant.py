#!/usr/bin/python3
"""Plants mutants in a copy of the tree: plant.py CLEAN PLANTED BUILD... -- FOLDER...

CLEAN and PLANTED: two copies. BUILD: build folders below CLEAN whose compile_commands.json say how files are compiled (the first
that has a file counts). Rewrites the product's sources of CLEAN into PLANTED so that each place holds all of its mutants (see
mutant.h), except on the lines (FILE:LINE) that PLANTED/build/not-compiling.txt names, and writes PLANTED/build/mutants.json: a list of
{id, file, line, last, column, kind, text}. What a macro writes, constants that the compiler computes, and logging are left alone.
"""
import json
import os
import re
import shlex
import subprocess
import sys

from clang import cindex
from clang.cindex import CursorKind as K
from clang.cindex import TypeKind as T

ARITHMETIC = {T.BOOL, T.CHAR_U, T.UCHAR, T.CHAR16, T.CHAR32, T.USHORT, T.UINT, T.ULONG, T.ULONGLONG, T.CHAR_S, T.SCHAR, T.WCHAR,
              T.SHORT, T.INT, T.LONG, T.LONGLONG, T.FLOAT, T.DOUBLE, T.LONGDOUBLE}
INTEGERS = ARITHMETIC - {T.FLOAT, T.DOUBLE, T.LONGDOUBLE}
COMPARES = {"<": ("less", ["<=", ">="]), "<=": ("lessEqual", ["<", ">"]), ">": ("greater", [">=", "<="]),
            ">=": ("greaterEqual", [">", "<"]), "==": ("equal", ["!="]), "!=": ("unequal", ["=="])}
COMPUTES = {"+": ("add", "-"), "-": ("subtract", "+"), "*": ("multiply", "+"), "/": ("divide", "*"), "%": ("modulo", "/"),
            "&": ("bitAnd", "|"), "|": ("bitOr", "&"), "^": ("bitXor", "&"), "<<": ("shiftLeft", ">>"), ">>": ("shiftRight", "<<")}
# Below these the compiler needs constants.
CONSTANT = {K.CASE_STMT, K.STATIC_ASSERT, K.ENUM_CONSTANT_DECL, K.TEMPLATE_NON_TYPE_PARAMETER, K.ALIGNED_ATTR}
CALLS = {K.CALL_EXPR, K.CXX_DELETE_EXPR}
BODIES = {K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.DO_STMT, K.CXX_FOR_RANGE_STMT, K.COMPOUND_STMT}


class Source:
    """A file with the changes that are to be made to it."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.text = file.read()
        self.edits = []  # (offset, order, depth, length, text)
        self.macros = [self.call(match) for match in re.finditer(rb"\b[A-Z][A-Z0-9_]{2,}\(", self.text)]

    def call(self, match):
        """Where a macro's call begins and ends: asking the compiler for all macros takes ten times as long as all the rest."""
        at, depth = match.end(), 1
        while depth and at < len(self.text):
            depth += {ord("("): 1, ord(")"): -1}.get(self.text[at], 0)
            at += 1
        return match.start(), at

    def wrap(self, begin, end, depth, before, after):
        self.edits.append((begin, 1, depth, 0, before))
        self.edits.append((end, 0, -depth, 0, after))

    def replace(self, begin, length, depth, text):
        self.edits.append((begin, 2, depth, length, text))

    def changed(self):
        result, at = [], 0
        for offset, _, _, length, text in sorted(self.edits):
            result += [self.text[at:offset], text.encode()]
            at = offset + length
        return b"".join(result) + self.text[at:]


class Planter:
    def __init__(self, tree, folders, dropped):
        self.tree, self.folders = tree, tuple(folder + "/" for folder in folders)
        self.dropped = dropped
        self.names = {}  # of files, as the compiler calls them; None: not ours
        self.sources, self.mutants, self.known = {}, [], set()

    def source_of(self, cursor):
        """The product's file in which a cursor lies, or None."""
        file = cursor.extent.start.file
        if file is None or cursor.extent.end.file is None or cursor.extent.end.file.name != file.name:
            return None, None
        if file.name not in self.names:
            name = os.path.relpath(os.path.realpath(file.name), self.tree)
            ours = name.startswith(self.folders) and not name.endswith("_annotations.h")
            self.names[file.name] = name if ours else None
            if ours and name not in self.sources:
                self.sources[name] = Source(os.path.join(self.tree, name))
        name = self.names[file.name]
        return (name, self.sources[name]) if name else (None, None)

    def add(self, name, cursor, kind, texts):
        """Numbers for the mutants of a place; None if it has them already, or they do not compile."""
        start = cursor.extent.start
        key = (name, start.offset, cursor.extent.end.offset, kind)
        if key in self.known:
            return None
        self.known.add(key)
        entries = [{"file": name, "line": start.line, "last": cursor.extent.end.line, "column": start.column, "kind": kind, "text": text} for text in texts]
        if any(f"{name}:{line}" in self.dropped for line in range(start.line, cursor.extent.end.line + 1)):
            return None
        number = len(self.mutants)
        for entry in entries:
            self.mutants.append({"id": len(self.mutants), **entry})
        return number

    def plant(self, unit):
        for cursor in unit.cursor.get_children():
            name, _ = self.source_of(cursor)
            if name:
                self.visit(cursor, None, 0, 0)

    def visit(self, cursor, parent, depth, in_function):
        """@param in_function  below a function's body: 2 if the function returns a reference, which stays the same one"""
        name, source = self.source_of(cursor)
        if name is None:
            return
        kind = cursor.kind
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        text = source.text[begin:end].decode(errors="replace")
        if kind in CONSTANT or kind == K.INIT_LIST_EXPR and not in_function:
            return
        if kind == K.VAR_DECL and re.search(r"\b(constexpr|static_assert)\b|^\s*(static )?const\b[^*&]*=\s*[\w' ]+$", text):
            return
        if kind == K.LAMBDA_EXPR:
            in_function = 1
        if in_function and not any(first <= begin and end <= last for first, last in source.macros):
            self.mutate(cursor, parent, depth, name, source, begin, end, text, in_function == 2)
        for child in cursor.get_children():
            inside = in_function
            if child.kind == K.COMPOUND_STMT and kind in (K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR,
                                                          K.CONVERSION_FUNCTION, K.FUNCTION_TEMPLATE):
                inside = 2 if cursor.result_type.kind in (T.LVALUEREFERENCE, T.RVALUEREFERENCE) else 1
            self.visit(child, cursor, depth + 1, inside)

    def mutate(self, cursor, parent, depth, name, source, begin, end, text, returns_reference):
        kind = cursor.kind
        if kind == K.BINARY_OPERATOR:
            self.operator(cursor, depth, name, source, begin, end)
        elif kind == K.INTEGER_LITERAL and re.fullmatch(r"[0-9][0-9a-fA-FxX'uUlLzZ]*", text):
            if parent.kind not in (K.INIT_LIST_EXPR, K.VAR_DECL, K.ARRAY_SUBSCRIPT_EXPR, K.PARM_DECL, K.CSTYLE_CAST_EXPR) and \
                    cursor.type.get_canonical().kind in INTEGERS and parent.type.kind != T.POINTER:
                how = "plus" if text.startswith("0") or begin % 2 else "minus"
                number = self.add(name, cursor, "constant", [f"{text} {'+' if how == 'plus' else '-'} 1"])
                if number is not None:
                    source.wrap(begin, end, depth, "(", f" + ::kestra::mutant::{how}({number}))")
        elif kind == K.RETURN_STMT and not returns_reference:
            children = list(cursor.get_children())
            if len(children) == 1 and children[0].type.get_canonical().kind in INTEGERS:
                value = children[0]
                number = self.add(name, cursor, "return", ["another value"])
                if number is not None:
                    source.wrap(value.extent.start.offset, value.extent.end.offset, depth, f"::kestra::mutant::other({number}, ", ")")
        elif kind == K.UNARY_OPERATOR and parent.kind not in BODIES and re.match(r"!(?!=)", text):
            number = self.add(name, cursor, "negation", [text[1:]])
            if number is not None:
                source.wrap(begin, end, depth, f"::kestra::mutant::negate({number}, static_cast<bool>(", "))")
        if kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.CONDITIONAL_OPERATOR):
            self.condition(cursor, depth, name, source)
        if parent is not None and parent.kind in BODIES:
            self.statement(cursor, parent, depth, name, source, begin, end, text)

    def operator(self, cursor, depth, name, source, begin, end):
        children = list(cursor.get_children())
        if len(children) != 2:
            return
        left, right = children
        between = source.text[left.extent.end.offset:right.extent.start.offset].decode(errors="replace")
        match = re.fullmatch(r"\s*(\S+)\s*", between)
        if not match or left.extent.start.offset != begin or right.extent.end.offset != end:
            return
        op, at = match[1], left.extent.end.offset + between.index(match[1])
        kinds = [child.type.get_canonical().kind for child in children]
        if op in ("&&", "||"):
            number = self.add(name, cursor, "logic", ["without its right side", "without its left side"])
            if number is None:
                return
            for i, side in enumerate((right, left)):
                how = "on({}) || (" if op == "&&" else "!on({}) && ("
                how = how.replace("on(", "::kestra::mutant::on(").format(number + i)
                source.wrap(side.extent.start.offset, side.extent.end.offset, depth, f"({how}", "))")
        elif op in COMPARES and all(k in ARITHMETIC or k in (T.POINTER, T.ENUM) for k in kinds) and \
                (kinds[0] == T.POINTER) == (kinds[1] == T.POINTER) and (T.ENUM not in kinds or kinds[0] == kinds[1]) and \
                (kinds[0] != T.POINTER or not re.fullmatch(rb"0|NULL|nullptr", source.text[right.extent.start.offset:end])):
            function, others = COMPARES[op]
            number = self.add(name, cursor, "comparison", [f"{op} as {other}" for other in others])
            if number is not None:
                source.wrap(begin, end, depth, f"::kestra::mutant::{function}({number}, ", ")")
                source.replace(at, len(op), depth, ",")
        elif op in COMPUTES and all(k in (ARITHMETIC if op in "+-*/" else INTEGERS) for k in kinds):
            function, other = COMPUTES[op]
            number = self.add(name, cursor, "arithmetic", [f"{op} as {other}"])
            if number is not None:
                source.wrap(begin, end, depth, f"::kestra::mutant::{function}({number}, ", ")")
                source.replace(at, len(op), depth, ",")

    def condition(self, cursor, depth, name, source):
        for child in cursor.get_children():
            if not child.kind.is_expression() or child.kind in (K.CXX_BOOL_LITERAL_EXPR, K.LAMBDA_EXPR):
                continue
            begin, end = child.extent.start.offset, child.extent.end.offset
            after = source.text[end:end + 3].decode(errors="replace").lstrip()
            closing = {K.FOR_STMT: ";", K.CONDITIONAL_OPERATOR: "?"}.get(cursor.kind, ")")
            head = source.text[cursor.extent.start.offset:begin].decode(errors="replace")
            if not after.startswith(closing) or "constexpr" in head or cursor.kind == K.CONDITIONAL_OPERATOR and head:
                continue
            # An operator has mutants of its own that say the same.
            if re.search(r"[=!<>]=|[^-<>][<>][^<>]", source.text[begin:end].decode(errors="replace")):
                return
            number = self.add(name, child, "condition", ["negated"])
            if number is not None:
                source.wrap(begin, end, depth, f"::kestra::mutant::negate({number}, static_cast<bool>(", "))")
            return

    def statement(self, cursor, parent, depth, name, source, begin, end, text):
        rest = re.match(rb"\s*;", source.text[end:end + 40])
        if not rest or not (cursor.kind.is_expression()):
            return
        before = source.text[:begin].rstrip()
        if before[-1:] not in b"{};)" and not before.endswith(b"else"):
            return
        if re.match(r"(EXPECT|ASSERT|KESTRA_LOG|static_assert|\(void\))", text) or before.endswith(b"for (") or \
                parent.kind == K.FOR_STMT and list(parent.get_children())[-1] != cursor or \
                parent.kind == K.DO_STMT and list(parent.get_children())[0] != cursor:
            return
        if text.startswith("trace") or text.startswith("*") and "++" not in text and "=" not in text:
            return
        number = self.add(name, cursor, "statement", ["left out: " + " ".join(text.split())[:80]])
        if number is not None:
            source.wrap(begin, end + rest.end(), depth - 1, f"{{ if (!::kestra::mutant::on({number})) {{ ", " } }")


def main():
    tree, planted = map(os.path.realpath, sys.argv[1:3])
    split = sys.argv.index("--")
    builds, folders = sys.argv[3:split], sys.argv[split + 1:]
    dropped = set()
    kept = os.path.join(planted, "build", "not-compiling.txt")
    if os.path.exists(kept):
        with open(kept) as file:
            dropped = set(file.read().split("\n"))
    planter = Planter(tree, folders, dropped)
    done, index = set(), cindex.Index.create()
    resources = subprocess.run(["clang", "-print-resource-dir"], check=True, capture_output=True, text=True).stdout.strip()
    for build in builds:
        with open(os.path.join(tree, build, "compile_commands.json")) as file:
            commands = json.load(file)
        for command in commands:
            path = os.path.relpath(os.path.realpath(command["file"]), tree)
            # The sources, and each header alone: some no source of this build includes.
            owner = path.split("/", 2)[2] if path.startswith(build + "/") and "/header_check/" in path else path
            if path in done or not owner.startswith(planter.folders) or not path.endswith(".cpp"):
                continue
            done.add(path)
            words = shlex.split(command["command"])
            words = [word for word in words[1:words.index("-c")] if not word.startswith(("-Werror", "-W"))]
            if words and not words[0].startswith("-"):
                words = words[1:]
            for output in [i for i, word in enumerate(words) if word == "-o"][::-1]:
                del words[output:output + 2]
            os.chdir(command["directory"])
            unit = index.parse(command["file"], args=words + ["-w", "-resource-dir", resources])
            errors = [str(d) for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
            if errors:
                print(f"{path}: {errors[0]}", file=sys.stderr)
            planter.plant(unit)
    for folder in folders:
        for name in os.listdir(os.path.join(tree, folder)):
            name, path = f"{folder}/{name}", os.path.join(planted, folder, name)
            if not name.endswith((".h", ".cpp")):
                continue
            with open(os.path.join(tree, name), "rb") as file:
                text = planter.sources[name].changed() if name in planter.sources else file.read()
            with open(path, "rb") as file:
                if file.read() == text:
                    continue
            with open(path, "wb") as file:
                file.write(text)
    with open(os.path.join(planted, "build", "mutants.json"), "w") as file:
        json.dump(planter.mutants, file, indent=0)
    print(f"{len(planter.mutants)} mutants in {len(planter.sources)} files")


main()
