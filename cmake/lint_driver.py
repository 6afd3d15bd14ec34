#!/usr/bin/env python3
"""What the driver's sources promise about each routine, read from the sources.

The code analysis of a WDK build reads the source annotations; nothing on
Linux does. This reads every header and source of the driver folders and
fails, naming the file, the line and the routine, when:

  (a) a routine declaration, the definition of a routine that has no separate
      declaration, or a routine type (a function typedef, or a pointer to
      one) lacks an IRQL annotation (_IRQL_requires_max_, _IRQL_requires_),
      or one of its parameters lacks an _In_/_Out_/_Inout_/_Outptr_ family
      annotation (scalars take _In_ too); a definition whose declaration
      carries annotations does not say _Use_decl_annotations_ (routines
      declared through a framework role type, EVT_WDF_*, DRIVER_INITIALIZE,
      carry the framework's annotations and are left alone; consteval
      routines never run in the kernel);
  (b) the level declared for an operation differs from README's table "Where
      each operation may be called": the interface operations at their
      declarations and at their slot types in SENSOR_INTERFACE, the actuator
      and memory operations at the routine types of their VCM_DRIVER and
      NVM_DRIVER members. A routine type that serves several rows (GetStatus
      and GetHPStatus share VCM_GET_STATUS) declares the lowest of their
      levels: a declaration may promise less than the run shows, never more;
  (c) a routine placed in PAGE by #pragma alloc_text does not begin with
      PAGED_CODE(), or a resident or INIT routine does, or a routine named by
      alloc_text is not defined in that source. Routines a wrapper macro
      writes (Name##_Init, Cmd_##Name##Read) are checked in its expansion at
      each use.

Usage: lint_driver.py [--source-dir DIR]   (default: the checkout above cmake/)
       lint_driver.py --planted-faults     (each planted fault must fail)
"""
import argparse
import pathlib
import re
import shutil
import sys
import tempfile
from dataclasses import dataclass, field

DRIVER_FOLDERS = ["driver", "sensor", "bus", "vcm", "nvm", "trace"]
README_TABLE = "Where each operation may be called"
# The record whose members a README row names: an interface operation is a
# slot of SENSOR_INTERFACE, "actuator X" a member of VCM_DRIVER, "memory X" one
# of NVM_DRIVER.
ROW_RECORDS = {None: "SENSOR_INTERFACE", "actuator": "VCM_DRIVER", "memory": "NVM_DRIVER"}
LEVELS = {"PASSIVE_LEVEL": 0, "APC_LEVEL": 1, "DISPATCH_LEVEL": 2, "CLOCK_LEVEL": 13, "IPI_LEVEL": 14,
          "POWER_LEVEL": 14, "PROFILE_LEVEL": 15, "HIGH_LEVEL": 15}
# Fewer than this many pageable routines means the reader lost its way.
MIN_PAGEABLE = 100

SAL = re.compile(r"_[A-Z][A-Za-z0-9_]*_")
DIRECTION = re.compile(r"_(In|Out|Inout|Outptr|Outref|COM_Outptr)_\w*|_Reserved_")
NOT_ROUTINES = {"static_assert", "_Static_assert", "sizeof", "alignof", "alignas", "decltype", "__attribute__",
                "__declspec", "if", "while", "for", "switch", "return"}
QUALIFIERS = {"const", "noexcept", "override", "final"}
FRAMEWORK_ROLE = re.compile(r"(EVT_WDF_|DRIVER_|IO_|KDEFERRED_|KSTART_)\w+")


# ---- Reading a source: comments out, directives apart, tokens with lines ----

@dataclass
class Tok:
    text: str
    line: int


@dataclass
class Group:
    """A brace-enclosed part of a statement that is not a routine body (a
    record's members, an initializer)."""
    toks: list
    line: int

    @property
    def text(self):
        return "{"


def strip_comments(text, keep_literals=False):
    """Comments become spaces (newlines kept), so that nothing inside them is
    read as code; string and character literals stay as written with
    `keep_literals`, otherwise each becomes a placeholder word. A literal
    ends at its line's end at the latest."""
    out = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            i = n if j < 0 else j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append("".join(ch if ch == "\n" else " " for ch in text[i:j]))
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            if keep_literals:
                out.append(text[i:j + 1])
            else:
                out.append(" STRING_LITERAL " if c == '"' else " CHAR_LITERAL ")
            i = j + 1
        else:
            out.append(c)
            i += 1
    return "".join(out)


TOKEN = re.compile(r"[A-Za-z_]\w*|\d[\w.]*|::|->|\.\.\.|##|\S")


def tokenize(text, first_line=1):
    toks = []
    for number, line in enumerate(text.split("\n"), first_line):
        toks.extend(Tok(m.group(), number) for m in TOKEN.finditer(line))
    return toks


@dataclass
class Macro:
    params: list
    body: str


@dataclass
class Source:
    path: str
    toks: list = field(default_factory=list)
    macros: dict = field(default_factory=dict)
    sections: dict = field(default_factory=dict)   # routine -> (section, line)


def read_source(root, rel):
    text = strip_comments((root / rel).read_text())
    src = Source(rel)
    code = []
    lines = text.split("\n")
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.lstrip().startswith("#"):
            start = i
            directive = line
            while directive.endswith("\\") and i + 1 < len(lines):
                i += 1
                directive = directive[:-1] + "\n" + lines[i]
            code.extend([""] * (i - start + 1))
            m = re.match(r"\s*#\s*define\s+(\w+)\(([^)]*)\)(.*)", directive, re.S)
            if m:
                src.macros[m.group(1)] = Macro([p.strip() for p in m.group(2).split(",") if p.strip()], m.group(3))
            m = re.match(r"\s*#\s*pragma\s+alloc_text\s*\(\s*(\w+)\s*,\s*(\w+)\s*\)", directive)
            if m:
                src.sections[m.group(2)] = (m.group(1), start + 1)
        else:
            code.append(line)
        i += 1
    src.toks = tokenize("\n".join(code))
    return src


# ---- Statements ----------------------------------------------------------

def match(toks, i, open_, close):
    """Index of the token closing the group that opens at toks[i]."""
    depth = 0
    for j in range(i, len(toks)):
        if toks[j].text == open_:
            depth += 1
        elif toks[j].text == close:
            depth -= 1
            if depth == 0:
                return j
    raise ValueError(f"line {toks[i].line}: unbalanced {open_}")


def strip_annotations(toks):
    """The tokens without SAL annotations and attributes (with their
    arguments), and the annotations themselves as (name, argument text)."""
    rest, found = [], []
    i = 0
    while i < len(toks):
        t = toks[i]
        if isinstance(t, Tok) and (SAL.fullmatch(t.text) or t.text in ("__attribute__", "__declspec")):
            args = ""
            if i + 1 < len(toks) and toks[i + 1].text == "(":
                j = match(toks, i + 1, "(", ")")
                args = " ".join(x.text for x in toks[i + 2:j])
                i = j
            found.append((t.text, args))
        else:
            rest.append(t)
        i += 1
    return rest, found


def skip_template(toks):
    if toks and toks[0].text == "template" and len(toks) > 1 and toks[1].text == "<":
        depth = 0
        for j in range(1, len(toks)):
            depth += {"<": 1, ">": -1}.get(toks[j].text, 0)
            if depth == 0:
                return toks[j + 1:]
    return toks


@dataclass
class Routine:
    """A routine declaration or definition, or a routine type."""
    kind: str            # "declaration", "definition", "type", "role"
    name: str
    file: str
    line: int
    prefix: list         # annotation tuples before the name
    params: list         # each a list of tokens
    body: list = None    # definition body tokens
    role_type: str = ""  # for kind "role": the routine type
    specifiers: set = field(default_factory=set)
    macro: str = ""      # the wrapper macro that wrote it

    @property
    def irql(self):
        for name, args in self.prefix:
            if name in ("_IRQL_requires_max_", "_IRQL_requires_"):
                return args
        return None

    @property
    def where(self):
        by = f" (written by {self.macro})" if self.macro else ""
        return f"{self.file}:{self.line}: {self.name}{by}"


def split_params(toks):
    params, current, depth = [], [], 0
    for t in toks:
        if t.text in "([<":
            depth += 1
        elif t.text in ")]>":
            depth -= 1
        if t.text == "," and depth == 0:
            params.append(current)
            current = []
        else:
            current.append(t)
    if current:
        params.append(current)
    if len(params) == 1 and [t.text for t in params[0]] in (["VOID"], ["void"]):
        return []
    return params


def declarator(stmt):
    """(prefix tokens, name token, parameter tokens, tokens after the
    parameters) of a routine statement, or None. Handles `RET NAME(params)`
    and `RET (CC* NAME)(params)`."""
    toks = skip_template(stmt)
    i = 0
    while i < len(toks):
        t = toks[i]
        if isinstance(t, Group) or t.text == "=":
            return None
        if SAL.fullmatch(t.text) or t.text in ("__attribute__", "__declspec"):
            if i + 1 < len(toks) and toks[i + 1].text == "(":
                i = match(toks, i + 1, "(", ")")
            i += 1
            continue
        if t.text == "(":
            close = match(toks, i, "(", ")")
            inner = toks[i + 1:close]
            if any(x.text == "*" for x in inner) and close + 1 < len(toks) and toks[close + 1].text == "(":
                names = [x for x in inner if re.fullmatch(r"[A-Za-z_]\w*", x.text)]
                end = match(toks, close + 1, "(", ")")
                return toks[:i], names[-1], toks[close + 2:end], toks[end + 1:]
            if i > 0 and re.fullmatch(r"[A-Za-z_]\w*", toks[i - 1].text) and toks[i - 1].text not in NOT_ROUTINES:
                return toks[:i - 1], toks[i - 1], inner, toks[close + 1:]
            return None
        i += 1
    return None


def parse(src, toks, items, macros, via=""):
    """Top-level statements of `toks` into Routine items and records."""
    stmt, i, transparent = [], 0, 0
    n = len(toks)
    while i < n:
        t = toks[i]
        if not stmt:
            if t.text in ("EXTERN_C_START", "EXTERN_C_END", ";"):
                i += 1
                continue
            if t.text == "extern" and i + 2 < n and toks[i + 1].text == "STRING_LITERAL" and toks[i + 2].text == "{":
                transparent += 1
                i += 3
                continue
            if t.text == "}" and transparent:
                transparent -= 1
                i += 1
                continue
            if re.fullmatch(r"[A-Z][A-Z0-9_]*", t.text) and i + 1 < n and toks[i + 1].text == "(":
                close = match(toks, i + 1, "(", ")")
                macro = macros.get(t.text)
                if macro is not None:
                    expand(src, t, toks[i + 2:close], macro, items, macros)
                i = close + 1
                continue
        if t.text == "(":
            close = match(toks, i, "(", ")")
            stmt.extend(toks[i:close + 1])
            i = close + 1
        elif t.text == "{":
            close = match(toks, i, "{", "}")
            head = declarator(stmt)
            tail = [x.text for x in head[3]] if head else None
            if head and all(x in QUALIFIERS for x in tail):
                add_routine(src, stmt, head, toks[i + 1:close], items, via)
                stmt = []
            else:
                stmt.append(Group(toks[i + 1:close], t.line))
            i = close + 1
        elif t.text == ";":
            classify(src, stmt, items, via)
            stmt = []
            i += 1
        else:
            stmt.append(t)
            i += 1


def expand(src, at, arg_toks, macro, items, macros):
    """A wrapper macro's expansion at one use, parsed like code there."""
    args = [[x.text for x in a] for a in split_params(arg_toks)]
    values = dict(zip(macro.params, args))
    out = []
    for t in tokenize(macro.body.replace("\\\n", "\n")):
        out.extend(values.get(t.text, [t.text]))
    pasted = []
    k = 0
    while k < len(out):
        if out[k] == "##" and pasted and k + 1 < len(out):
            pasted[-1] += out[k + 1]
            k += 2
        else:
            pasted.append(out[k])
            k += 1
    call = f"{at.text}({', '.join(' '.join(a) for a in args)})"
    parse(src, [Tok(x, at.line) for x in pasted], items, macros, via=call)


def add_routine(src, stmt, head, body, items, via):
    prefix_toks, name, params, _ = head
    rest, annotations = strip_annotations(prefix_toks)
    specifiers = {t.text for t in rest if isinstance(t, Tok)}
    kind = "definition" if body is not None else "declaration"
    if "typedef" in specifiers:
        kind = "type"
    items.append(Routine(kind, name.text, src.path, name.line, annotations, split_params(params), body,
                         specifiers=specifiers, macro=via))


def classify(src, stmt, items, via):
    if not stmt:
        return
    groups = [t for t in stmt if isinstance(t, Group)]
    toks = [t for t in stmt if isinstance(t, Tok)]
    words = [t.text for t in toks if t.text not in ("static", "extern")]
    if groups:
        # A record: keep its members for the README's rows.
        if toks and toks[0].text == "typedef" and toks[1].text == "struct":
            after = [t for t in stmt[stmt.index(groups[0]) + 1:] if isinstance(t, Tok)]
            if after:
                items.append(("record", after[0].text, members(groups[0].toks)))
        return
    if len(words) == 2 and all(re.fullmatch(r"[A-Za-z_]\w*", w) for w in words):
        items.append(Routine("role", words[1], src.path, toks[-1].line, [], [], role_type=words[0], macro=via))
        return
    head = declarator(stmt)
    if head:
        add_routine(src, stmt, head, None, items, via)


def members(toks):
    """Member name -> type name of a record's body."""
    out, current = {}, []
    for t in toks:
        if t.text == ";":
            words = [x.text for x in current if re.fullmatch(r"[A-Za-z_]\w*", x.text)]
            if "=" in [x.text for x in current]:
                words = [x.text for x in current[:[x.text for x in current].index("=")]
                         if re.fullmatch(r"[A-Za-z_]\w*", x.text)]
            words = [w for w in words if w not in ("const", "volatile", "struct")]
            if len(words) >= 2:
                out[words[-1]] = words[0]
            current = []
        else:
            current.append(t)
    return out


# ---- The checks ------------------------------------------------------------

def param_name(param):
    rest, _ = strip_annotations(param)
    words, depth = [], 0
    for t in rest:
        depth += {"[": 1, "]": -1}.get(t.text, 0)
        if depth == 0 and re.fullmatch(r"[A-Za-z_]\w*", t.text):
            words.append(t.text)
    return words[-1] if words else "?"


def is_pointer(param):
    rest, _ = strip_annotations(param)
    return any(t.text in ("*", "&", "[") or re.fullmatch(r"L?P[A-Z]\w*", t.text) for t in rest)


def annotation_problems(r):
    problems = []
    if r.irql is None:
        problems.append("no _IRQL_requires_max_ or _IRQL_requires_")
    for param in r.params:
        _, annotations = strip_annotations(param)
        if [t.text for t in param] == ["..."]:
            continue
        if not any(DIRECTION.fullmatch(a) for a, _ in annotations):
            what = "pointer parameter" if is_pointer(param) else "parameter"
            problems.append(f"{what} {param_name(param)} has no _In_/_Out_/_Inout_/_Outptr_ annotation")
    return problems


def lint(root):
    """(problems, summary) for the checkout at `root`."""
    problems = []
    sources = []
    for folder in DRIVER_FOLDERS:
        for path in sorted((root / folder).iterdir()):
            if path.suffix in (".h", ".cpp"):
                sources.append(read_source(root, str(path.relative_to(root))))
    macros = {}
    for src in sources:
        macros.update(src.macros)

    per_file, records = {}, {}
    for src in sources:
        items = []
        parse(src, src.toks, items, macros)
        per_file[src.path] = [x for x in items if isinstance(x, Routine)]
        for x in items:
            if isinstance(x, tuple):
                records[x[1]] = x[2]
    routines = [r for rs in per_file.values() for r in rs]

    types = {r.name: r for r in routines if r.kind == "type"}
    declared = {}
    for r in routines:
        if r.kind in ("declaration", "role"):
            declared.setdefault(r.name, []).append(r)
    defined = {r.name for r in routines if r.kind == "definition"}

    # (a) annotations
    annotated = annotated_types = 0
    for r in routines:
        if r.kind == "role":
            # A routine declared through a routine type of the driver takes
            # that type's annotations; one declared through a framework role
            # type, the framework's. Anything else of this shape is a variable.
            if r.role_type in types:
                annotated += 1
            elif r.name in defined and not FRAMEWORK_ROLE.fullmatch(r.role_type):
                problems.append(f"{r.where}: declared through {r.role_type}, which is neither a routine type of "
                                f"the driver nor a framework role type")
            continue
        if "consteval" in r.specifiers:
            continue
        decls = [d for d in declared.get(r.name, []) if d is not r]
        if r.kind == "definition" and decls:
            framework = all(d.kind == "role" and d.role_type not in types for d in decls)
            says = any(a == "_Use_decl_annotations_" for a, _ in r.prefix)
            if not framework and not says:
                problems.append(f"{r.where}: its declaration carries the annotations, so the definition "
                                f"takes _Use_decl_annotations_")
            continue
        if r.kind == "definition" and any(a == "_Use_decl_annotations_" for a, _ in r.prefix):
            problems.append(f"{r.where}: _Use_decl_annotations_, but no declaration carries annotations")
            continue
        found = annotation_problems(r)
        problems.extend(f"{r.where}: {p}" for p in found)
        if not found:
            if r.kind == "type":
                annotated_types += 1
            else:
                annotated += 1

    # (b) the README's levels
    levels_checked, level_problems = readme_levels(root, routines, types, records)
    problems.extend(level_problems)

    # (c) PAGED_CODE() first in exactly the pageable routines
    pageable = others = 0
    for src in sources:
        seen = set()
        for r in per_file[src.path]:
            if r.kind != "definition":
                continue
            seen.add(r.name)
            section = src.sections.get(r.name, ("", 0))[0]
            begins = [t.text for t in r.body[:4]] == ["PAGED_CODE", "(", ")", ";"]
            if section == "PAGE" and not begins:
                problems.append(f"{r.where}: placed in PAGE, but does not begin with PAGED_CODE()")
            elif section != "PAGE" and begins:
                where = "INIT" if section == "INIT" else "resident"
                problems.append(f"{r.where}: {where}, but begins with PAGED_CODE()")
            if section == "PAGE":
                pageable += 1
            else:
                others += 1
        for name, (section, line) in src.sections.items():
            if name not in seen:
                problems.append(f"{src.path}:{line}: {name}: placed in {section}, but its definition was not found")
    if pageable < MIN_PAGEABLE:
        problems.append(f"only {pageable} pageable routines found (at least {MIN_PAGEABLE} expected): "
                        f"the reader no longer finds the definitions")

    summary = (f"lint: {pageable} pageable routines begin with PAGED_CODE(), {others} others do not; "
               f"{annotated} routines and {annotated_types} routine types annotated; "
               f"{levels_checked} operation levels as README's table says")
    return problems, summary


def readme_rows(root):
    """(family, operation, level) for each operation of README's table."""
    lines = (root / "README.md").read_text().split("\n")
    start = next(i for i, line in enumerate(lines) if README_TABLE in line)
    rows = []
    table = False
    for line in lines[start + 1:]:
        if not line.startswith("|"):
            if table:
                break
            continue
        table = True
        cells = [c.strip() for c in line.strip("|").split("|")]
        if cells[0] == "Operation" or set(cells[0]) <= set("-: "):
            continue
        for group in cells[0].split(";"):
            words = group.strip().split(None, 1)
            family = words[0] if words[0] in ROW_RECORDS else None
            names = words[1] if family else group
            for name in names.split(","):
                rows.append((family, name.strip(), cells[1]))
    return rows


def readme_levels(root, routines, types, records):
    problems = []
    prototypes = {}
    for r in routines:
        if r.kind == "declaration":
            prototypes.setdefault(r.name, r)
    demands = {}   # Routine -> [(row text, level)]
    for family, name, level in readme_rows(root):
        row = f"{family + ' ' if family else ''}{name} {level}"
        if level not in LEVELS:
            problems.append(f"README.md: {row}: no such level")
            continue
        targets = []
        if family is None:
            decl = prototypes.get(name)
            if decl is None:
                ends = [r for n, r in prototypes.items() if n.endswith(name)]
                decl = ends[0] if len(ends) == 1 else None
            if decl is None:
                problems.append(f"README.md: {name}: no declaration of the operation")
            else:
                targets.append(decl)
        member = records.get(ROW_RECORDS[family], {}).get(name)
        if member in types:
            targets.append(types[member])
        elif family is not None:
            problems.append(f"README.md: {family} {name}: no member of {ROW_RECORDS[family]} with a routine type")
        for t in targets:
            demands.setdefault(id(t), (t, []))[1].append((row, level))
    for target, rows in demands.values():
        lowest = min(rows, key=lambda x: LEVELS[x[1]])
        declared = target.irql
        if declared != lowest[1]:
            problems.append(f"{target.where}: declares {declared or 'no level'}, but README's table \"{README_TABLE}\" "
                            f"says {lowest[1]} ({'; '.join(r for r, _ in rows)})")
    return len(demands), problems


# ---- Planted faults ---------------------------------------------------------

PLANTED = [
    ("an _In_ removed", "sensor/sensor.h", r"NTSTATUS PowerUp\(_In_ ", "NTSTATUS PowerUp(",
     "PowerUp: pointer parameter DeviceContext has no"),
    ("PowerDown declared at PASSIVE_LEVEL", "sensor/sensor.h",
     r"_IRQL_requires_max_\(DISPATCH_LEVEL\)\nNTSTATUS PowerDown\(",
     "_IRQL_requires_max_(PASSIVE_LEVEL)\nNTSTATUS PowerDown(", "PowerDown: declares PASSIVE_LEVEL, but README"),
    ("a PAGED_CODE() removed", "bus/delay.cpp", r"\n    PAGED_CODE\(\);\n", "\n",
     "DelayMilliseconds: placed in PAGE, but does not begin with PAGED_CODE()"),
]


def planted_faults(root):
    failed = 0
    for what, rel, pattern, replacement, expected in PLANTED:
        with tempfile.TemporaryDirectory() as tmp:
            copy = pathlib.Path(tmp)
            for folder in DRIVER_FOLDERS:
                shutil.copytree(root / folder, copy / folder)
            shutil.copy(root / "README.md", copy / "README.md")
            text = (copy / rel).read_text()
            planted, count = re.subn(pattern, replacement, text, count=1)
            if count != 1:
                print(f"{what}: {rel} no longer has the text to plant it in")
                failed += 1
                continue
            (copy / rel).write_text(planted)
            problems, _ = lint(copy)
            caught = [p for p in problems if expected in p]
            print(f"{what}: {'caught: ' + caught[0] if caught else 'NOT caught'}")
            failed += not caught
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--source-dir", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parent.parent)
    parser.add_argument("--planted-faults", action="store_true")
    args = parser.parse_args()
    if args.planted_faults:
        return 1 if planted_faults(args.source_dir) else 0
    problems, summary = lint(args.source_dir)
    for p in problems:
        print(p)
    print(summary if not problems else f"lint: {len(problems)} problem{'s' if len(problems) > 1 else ''}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
