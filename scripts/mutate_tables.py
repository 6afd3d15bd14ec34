#!/usr/bin/env python3
"""Changes one cell of the memory type table or of an actuator chip record at
a time, rebuilds the test binary, runs the memory or actuator tests and counts
which changes a test catches. Run from the source root with a configured
build/ (scripts/mutate_tables.py [nvm|vcm]); every file is restored after each
run. Prints each change, caught or not, and the tests that failed.
MUTATE_ONLY=<regex> limits the run to the changes whose label matches, to
check again only the ones a new test is meant to catch."""
import os, re, subprocess, sys, pathlib

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build"

def run_tests(filt):
    b = subprocess.run(["cmake", "--build", str(BUILD), "-j2", "--target", "korvanel_tests"],
                       capture_output=True, text=True)
    if b.returncode != 0:
        out = b.stdout + b.stderr
        return ["(static_assert at build)" if "static assertion failed" in out or "static_assert" in out
                else "(build fails)"]
    r = subprocess.run([str(BUILD / "korvanel_tests"), "--gtest_filter=" + filt, "--gtest_brief=1"],
                       capture_output=True, text=True, timeout=600)
    failed = sorted(set(re.findall(r"^\[  FAILED  \] (\S+?)(?:/\d+)?(?:,| \(|$)", r.stdout, re.M)))
    if r.returncode != 0 and not failed:
        failed = ["(crash)"]
    return failed

ONLY = re.compile(os.environ.get("MUTATE_ONLY", ""))

def mutate(path, old, new, filt, label, results):
    if not ONLY.search(label):
        return
    p = ROOT / path
    src = p.read_text()
    assert src.count(old) == 1, (label, old)
    p.write_text(src.replace(old, new))
    try:
        failed = run_tests(filt)
    finally:
        p.write_text(src)
    results.append((label, failed))
    print(("CAUGHT " if failed else "MISSED ") + label + ("  <- " + ", ".join(failed[:4]) if failed else ""),
          flush=True)

NVM_FILTER = "Nvm*:*NvmTypeContract*:Eeprom*"
VCM_FILTER = "Vcm*:*VcmContract*:Dw9806b*"

def nvm(results):
    rows = {0: ("NULL", "NULL"), 1: ("NULL", "NULL"), 2: ("NULL", "NULL"), 3: ("NvmStubWrite", "NvmStubRead"),
            4: ("NvmStubWrite", "NvmStubRead"), 5: ("CmdWrite", "CmdRead"),
            6: ("Cmd_Brca016Write", "Cmd_Brca016Read"), 7: ("CmdWrite", "CmdRead"), 8: ("CmdWrite", "CmdRead"),
            9: ("Cmd_Cat24cWrite", "Cmd_Cat24cRead"), 10: ("Cmd_M24c64Write", "Cmd_M24c64Read"),
            11: ("Cmd_DW9806BWrite", "Cmd_DW9806BRead"), 12: ("Cmd_Cat24c16Write", "Cmd_Cat24c16Read")}
    names = {6: "NVM_TYPE_BRCA016", 9: "NVM_TYPE_CAT24C", 10: "NVM_TYPE_M24C64", 11: "NVM_TYPE_DW9806B",
             12: "NVM_TYPE_CAT24C16"}
    geometry = {0: (0, 0), 1: (0, 0), 2: (0, 0), 3: (0, 0), 4: (0, 0), 5: (0x4000, 0x40), 6: (0x800, 0x100),
                7: (0x80, 0x8), 8: (0x1000, 0x20), 9: (0x400, 0x100), 10: (0x2000, 0x20), 11: (0x2000, 0x400),
                12: (0x800, 0x100)}
    for t, (w, r) in rows.items():
        key = names.get(t, str(t))
        line = f"    NVM_ROW({key}, {w}, {r}),"
        size, page = geometry[t]
        def row(ty=t, sz=f"NvmGeometry[{t}].Size", pg=f"NvmGeometry[{t}].PageSize", la="0", wr=w, rd=r,
                ld="NvmLoad"):
            return f"    {{{ty}, {sz}, {pg}, {la}, {wr}, {rd}, {ld}}},"
        other_w = "CmdWrite" if w != "CmdWrite" else "Cmd_M24c64Write"
        other_r = "CmdRead" if r != "CmdRead" else "Cmd_M24c64Read"
        # Size and PageSize are the geometry cells the row and the commands share.
        cells = [
            ("Type", row(ty=t + 1)),
            ("Size", row(sz=str(size * 2 if size else 64))),
            ("PageSize", row(pg=str(page * 2 if page else 8))),
            ("LoadAddress", row(la="1")),
            ("Write", row(wr=other_w)),
            ("Read", row(rd=other_r)),
            ("Load", row(ld="NULL")),
        ]
        for field, new in cells:
            mutate("nvm/nvm_table.cpp", line, new, NVM_FILTER, f"nvm row {t:2} {field}", results)
    # The geometry cells the rows and the commands share (nvm_internal.h).
    path = ROOT / "nvm/nvm_internal.h"
    src = path.read_text()
    start = src.index("NvmGeometry[NVM_TYPE_COUNT] = {")
    end = src.index("};", start)
    body = src[start:end]
    pairs = list(re.finditer(r"\{(0x[0-9a-fA-F]+|0), (0x[0-9a-fA-F]+|0)\}", body))
    for t in range(5, 13):
        m = pairs[t]
        size, page = int(m.group(1), 0), int(m.group(2), 0)
        for field, new in (("Size", f"{{{hex(size * 2)}, {hex(page)}}}"), ("PageSize", f"{{{hex(size)}, {hex(page * 2)}}}")):
            mutated = body[:m.start()] + new + body[m.end():]
            mutate("nvm/nvm_internal.h", body, mutated, NVM_FILTER, f"nvm geometry {t:2} {field}", results)
    return results

VCM_RECORDS = {
    "vcm/vcm_pair.cpp": ["Ad5823Chip", "Ad5816Chip", "Dw9719Chip", "Dw9718Chip", "Wv517sChip"],
    "vcm/vcm_dw9806b.cpp": ["Dw9806bChip"],
    "vcm/vcm_lc898122xa.cpp": ["Lc898122xaChip"],
    "vcm/vcm_dw9714.cpp": ["Dw9714Chip"],
}

def vcm_cells(text):
    """(label, old, new) for each field line of one record's text."""
    out = []
    def bump(v):
        v = v.strip()
        if re.fullmatch(r"0x[0-9A-Fa-f]+|\d+", v):
            return hex(int(v, 0) + 1)
        return "(" + v + ") + 1"
    for m in re.finditer(r"\.(\w+) = ([^,\n]+),", text):
        field, value = m.group(1), m.group(2)
        if field in ("Markers", "Settings", "Chip", "Ramp", "InitSteps"):
            continue
        if field == "Flags":
            for flag in value.split("|"):
                flag = flag.strip()
                rest = "|".join(f for f in (x.strip() for x in value.split("|")) if f != flag) or "0"
                out.append((f"Flags -{flag}", m.group(0), f".Flags = {rest},"))
            out.append(("Flags +VCM_LOW_FIRST" if "VCM_LOW_FIRST" not in value else "Flags +VCM_WIDE_REGISTERS",
                        m.group(0), f".Flags = {value} | " +
                        ("VCM_LOW_FIRST" if "VCM_LOW_FIRST" not in value else "VCM_WIDE_REGISTERS") + ","))
            continue
        if field == "IdText":
            new = 'NULL' if value.strip() != 'NULL' else '"IC Info:"'
            out.append((field, m.group(0), f".{field} = {new},"))
            continue
        if field in ("SettingsCount",):
            continue  # the table's own length: changing it changes the array bound, not a cell
        out.append((field, m.group(0), f".{field} = {bump(value)},"))
    ramp = re.search(r"\.Ramp = \{(\w+), (\w+), ([^,]+), ([^,]+), ([^}]+)\}", text)
    if ramp:
        whole = ramp.group(0)
        fn, style, target, limit, pause = ramp.groups()
        styles = ["VcmRampDown", "VcmRampEitherWay", "VcmRampDownThenUp"]
        other = styles[(styles.index(style) + 1) % 3]
        for label, new in [("Ramp.Style", f".Ramp = {{{fn}, {other}, {target}, {limit}, {pause}}}"),
                           ("Ramp.Target", f".Ramp = {{{fn}, {style}, ({target}) + 1, {limit}, {pause}}}"),
                           ("Ramp.Limit", f".Ramp = {{{fn}, {style}, {target}, ({limit}) - 1, {pause}}}"),
                           ("Ramp.PauseMs", f".Ramp = {{{fn}, {style}, {target}, {limit}, ({pause}) + 1}}")]:
            out.append((label, whole, new))
    return out

def vcm(results):
    for path, records in VCM_RECORDS.items():
        src = (ROOT / path).read_text()
        for rec in records:
            start = src.index(f"static const VCM_{'REG_' if rec != 'Dw9714Chip' else ''}CHIP {rec} = {{")
            end = src.index("\n};", start) + 3
            text = src[start:end]
            for label, old, new in vcm_cells(text):
                if text.count(old) != 1:
                    continue
                mutated = text.replace(old, new)
                mutate(path, text, mutated, VCM_FILTER, f"{rec} {label}", results)
    return results

if __name__ == "__main__":
    which = sys.argv[1:] or ["nvm", "vcm"]
    results = []
    for w in which:
        {"nvm": nvm, "vcm": vcm}[w](results)
    caught = sum(1 for _, f in results if f)
    print(f"\n{caught} of {len(results)} one-cell changes caught")
    for label, f in results:
        if not f:
            print("  missed:", label)
