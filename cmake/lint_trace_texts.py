#!/usr/bin/env python3
"""Every text the driver puts in its trace has a row in the trace contract.

Whoever reads the driver's trace matches its texts, so each one is pinned by
a case in tests/trace_contract*_test.cpp that reaches it and checks its level
and numbers. This reads the driver folders and fails, naming file and line,
for a trace text that no string in those tests contains, either as written
or as one of its events decodes (its specifiers filled with values). The trace texts are:

  - the format text of every TraceEvents call;
  - every string in the actuator and memory sources (vcm/, nvm/): their
    routines' marker texts and chip names are data that the events carry.

A text that is only a layout of arguments (" %u %!STATUS!") names nothing and
needs no row; include paths and static_assert messages are not trace texts.

Usage: lint_trace_texts.py [--source-dir DIR]
"""
import argparse
import pathlib
import re
import sys

from lint_driver import strip_comments

TRACED_FOLDERS = ["driver", "sensor", "bus", "vcm", "nvm", "trace"]
DATA_FOLDERS = {"vcm", "nvm"}
CONTRACT_GLOB = "tests/trace_contract*_test.cpp"

LITERAL = re.compile(r'(?<![A-Za-z0-9_])(?:u8|u|L)?"((?:[^"\\\n]|\\.)*)"')
SPECIFIER = re.compile(r"%(!\w+!|[-#0-9.*]*(?:I64|ll|l|h|w)?[a-zA-Z])")
TRACE_CALL = re.compile(r"\bTraceEvents\s*\(\s*\w+\s*,\s*")


def without_comments(text):
    """The source with comments blanked, lines and strings kept in place."""
    return strip_comments(text, keep_literals=True)


def static_assert_spans(source):
    """(start, end) of every static_assert(...) in the source, its parentheses matched."""
    spans = []
    for m in re.finditer(r"\bstatic_assert\s*\(", source):
        depth, i = 1, m.end()
        while i < len(source) and depth:
            c = source[i]
            if c == '"':
                i = LITERAL.match(source, i).end() if LITERAL.match(source, i) else i + 1
                continue
            depth += {"(": 1, ")": -1}.get(c, 0)
            i += 1
        spans.append((m.start(), i))
    return spans


def names_something(literal):
    return re.search(r"[A-Za-z]", SPECIFIER.sub("", literal).replace("0x", "")) is not None


def trace_texts(root):
    """(file, line, text) of every trace text of the driver."""
    for folder in TRACED_FOLDERS:
        for path in sorted((root / folder).glob("*.[ch]*")):
            source = without_comments(path.read_text())
            line_of = lambda at: source.count("\n", 0, at) + 1
            rel = path.relative_to(root)
            if folder in DATA_FOLDERS:
                asserts = static_assert_spans(source)
                for m in LITERAL.finditer(source):
                    start = source.rfind("\n", 0, m.start()) + 1
                    in_assert = any(a <= m.start() < b for a, b in asserts)
                    if source[start:m.start()].lstrip().startswith("#") or in_assert:
                        continue
                    yield rel, line_of(m.start()), m.group(1)
            else:
                for call in TRACE_CALL.finditer(source):
                    m = LITERAL.match(source, call.end())
                    if m:
                        yield rel, line_of(m.start()), m.group(1)


def contract_strings(root):
    """Every string of the contract tests, adjacent literals joined."""
    strings = []
    for path in sorted(root.glob(CONTRACT_GLOB)):
        source = re.sub(r'"\s+"', "", without_comments(path.read_text()))
        strings += [m.group(1) for m in LITERAL.finditer(source)]
    return strings


def decoded_pattern(text):
    """A text as its events decode: each specifier stands for any value."""
    parts = SPECIFIER.split(text)
    # split() interleaves the specifiers' captures; keep the literal parts.
    literal = [re.escape(p.replace("%%", "%")) for p in parts[0::2]]
    return re.compile(".*".join(literal) + "$", re.S)


def pinned_by(text, strings):
    """A contract string names the format text itself or one of its events."""
    pattern = decoded_pattern(text)
    return any(text in s or pattern.match(s) for s in strings)


def lint(root):
    pinned = contract_strings(root)
    problems, texts = [], 0
    seen = set()
    for rel, line, text in trace_texts(root):
        if not names_something(text) or text in seen:
            continue
        seen.add(text)
        texts += 1
        if not pinned_by(text, pinned):
            problems.append(f"{rel}:{line}: trace text \"{text}\" has no row in {CONTRACT_GLOB}")
    return problems, texts


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--source-dir", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parent.parent)
    args = parser.parse_args()
    problems, texts = lint(args.source_dir)
    for p in problems:
        print(p)
    print(f"trace texts: {texts}, {texts - len(problems)} pinned by the contract, {len(problems)} not")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
