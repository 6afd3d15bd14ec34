#!/usr/bin/env python3
"""Where the WDK build put each driver routine, read from its COFF objects.

Windows pages PAGE code out and throws INIT code away once DriverEntry has
returned. A routine that runs at DISPATCH_LEVEL, or that the camera driver
calls at any level, must therefore lie in resident code (.text), and nothing
resident may call into PAGE or INIT: the call would page-fault at raised
IRQL, or jump into freed memory. None of that shows on Linux, where every
section is resident, so this reads the objects clang-19 built for Windows
(the windows_wdk tests) and fails on any routine in the wrong section.

Checked:
  - every routine named in `#pragma alloc_text(SECTION, ...)` lies in SECTION;
  - DriverEntry lies in INIT, the framework callbacks below in PAGE or .text
    as listed;
  - the operations InitSensorInterface stores in SENSOR_INTERFACE (21 of them)
    lie in .text;
  - no relocation in resident code (.text, .text$*) targets a routine in
    PAGE or INIT, across all objects; and none in PAGE targets INIT.

Usage: windows_placement.py --readobj llvm-readobj-19 --cxxfilt llvm-cxxfilt-19
         --source-dir DIR --object-dir DIR SOURCE...
(each object is OBJECT-DIR/SOURCE.obj).
"""
import argparse
import re
import subprocess
import sys
from dataclasses import dataclass, field

# The framework calls these; where each must lie follows from the level and
# the moment it is called at.
INIT_ROUTINES = ["DriverEntry"]
PAGEABLE_CALLBACKS = ["SensorEvtDeviceAdd", "SensorEvtDriverUnload", "SensorEvtDriverCleanup",
                      "SensorEvtD0Exit", "SensorEvtPrepareHardware", "SensorEvtReleaseHardware"]
RESIDENT_CALLBACKS = ["SensorEvtD0Entry", "SensorEvtQueryRemove",
                      "SensorInterfaceReference", "SensorInterfaceDereference"]
INTERFACE_SOURCE = "sensor/interface.cpp"
INTERFACE_OPERATIONS = 21


def kind(section):
    """RESIDENT, PAGE or INIT for a code section's name (the linker merges
    grouped sections `NAME$suffix` into NAME); None for anything else."""
    base = section.split("$")[0] if section else ""
    if base == ".text":
        return "RESIDENT"
    if base.startswith("PAGE"):
        return "PAGE"
    if base.startswith("INIT"):
        return "INIT"
    return None


@dataclass
class Symbol:
    name: str          # as in the object (mangled for C++)
    section: str       # section name; "" when undefined or absolute
    number: int        # section number; 0 undefined, negative absolute/debug
    value: int
    function: bool
    external: bool
    routine: str = ""  # the plain name a pragma would use


@dataclass
class Object:
    source: str
    symbols: dict = field(default_factory=dict)      # index -> Symbol
    relocations: list = field(default_factory=list)  # (section number, section, offset, symbol index)

    def functions(self):
        return [s for s in self.symbols.values() if s.function and s.number > 0]

    def routine_at(self, number, offset):
        """The function whose code holds `offset` of section `number`."""
        owners = [s for s in self.functions() if s.number == number and s.value <= offset]
        return max(owners, key=lambda s: s.value).routine if owners else "?"


def read_object(readobj, source, path):
    text = subprocess.run([readobj, "--symbols", "--relocations", path],
                          capture_output=True, text=True, check=True).stdout
    obj = Object(source)
    index = 0
    symbol = None
    relocation_section = None
    for line in text.splitlines():
        if line == "  Symbol {":
            symbol = {}
        elif symbol is not None and line == "  }":
            section, number = re.fullmatch(r"(.*) \((-?\d+)\)", symbol["Section"]).groups()
            number = int(number)
            obj.symbols[index] = Symbol(
                name=symbol["Name"], section=section if number > 0 else "", number=number,
                value=int(symbol["Value"]), function=symbol["ComplexType"].startswith("Function"),
                external=symbol["StorageClass"].startswith("External"))
            index += 1 + int(symbol["AuxSymbolCount"])
            symbol = None
        elif symbol is not None:
            m = re.fullmatch(r"    (\w+): (.*)", line)
            if m:
                symbol[m.group(1)] = m.group(2)
        elif m := re.fullmatch(r"  Section \((\d+)\) (.*) \{", line):
            relocation_section = (int(m.group(1)), m.group(2))
        elif relocation_section and (m := re.fullmatch(r"    0x([0-9A-Fa-f]+) \S+ .* \((\d+)\)", line)):
            obj.relocations.append((*relocation_section, int(m.group(1), 16), int(m.group(2))))
        elif line == "  }":
            relocation_section = None
    return obj


def demangle(cxxfilt, objects):
    """Gives every symbol its plain routine name: `VcmRegRead` for
    `_ZL10VcmRegReadP15_DEVICE_CONTEXT...`, `TraceSend` for a template."""
    names = sorted({s.name for o in objects for s in o.symbols.values()})
    plain = subprocess.run([cxxfilt], input="\n".join(names) + "\n",
                           capture_output=True, text=True, check=True).stdout.splitlines()
    if len(plain) != len(names):
        sys.exit(f"{cxxfilt} gave {len(plain)} names for {len(names)}")
    routine = {}
    for name, demangled in zip(names, plain):
        head = demangled.split("(")[0]
        head = re.sub(r"<.*>", "", head)
        routine[name] = head.split()[-1].split("::")[-1] if head.split() else name
    for o in objects:
        for s in o.symbols.values():
            s.routine = routine[s.name]


def pragma_placements(path):
    """(section, routine) for every routine a `#pragma alloc_text` names."""
    placements = []
    with open(path, encoding="utf-8") as f:
        for m in re.finditer(r"^[ \t]*#[ \t]*pragma[ \t]+alloc_text[ \t]*\(([^)]*)\)", f.read(), re.M):
            section, *routines = [part.strip() for part in m.group(1).split(",")]
            placements += [(section, r) for r in routines if r]
    return placements


def interface_operations(path):
    """The routines InitSensorInterface stores in the record's slots."""
    with open(path, encoding="utf-8") as f:
        text = f.read()
    body = re.search(r"^NTSTATUS InitSensorInterface\(.*?^\}", text, re.M | re.S)
    if not body:
        return []
    # Slots are written through a PSENSOR_INTERFACE the routine sets up.
    record = re.search(r"PSENSOR_INTERFACE\s+(\w+)\s*=", body.group(0))
    if not record:
        return []
    slot = re.escape(record.group(1)) + r"\s*->\s*\w+\s*=\s*(\w+)\s*;"
    return [routine for routine in re.findall(slot, body.group(0)) if routine != "NULL"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--readobj", required=True)
    parser.add_argument("--cxxfilt", required=True)
    parser.add_argument("--source-dir", required=True)
    parser.add_argument("--object-dir", required=True)
    parser.add_argument("sources", nargs="+")
    args = parser.parse_args()

    errors = []
    objects = []
    for source in args.sources:
        path = f"{args.object_dir}/{source}.obj"
        try:
            objects.append(read_object(args.readobj, source, path))
        except (OSError, subprocess.CalledProcessError) as e:
            errors.append(f"{source}: no object to read at {path} ({e}); the windows_wdk tests build it")
    if errors:
        sys.exit("placement check failed:\n  " + "\n  ".join(errors))
    demangle(args.cxxfilt, objects)

    # Every function lies in a code section this check knows.
    for o in objects:
        for s in o.functions():
            if kind(s.section) is None:
                errors.append(f"{o.source}: {s.routine} lies in section {s.section}, "
                              "which is neither resident (.text) nor PAGE nor INIT")

    # External definitions, for relocations that name a routine of another object.
    defined = {}
    for o in objects:
        for s in o.functions():
            if s.external:  # inline routines are defined in many, all resident
                defined.setdefault(s.name, (o, s))

    def find(routine, source=None):
        """The definitions of a routine: in one object, or the external ones of all."""
        found = []
        for o in objects:
            if source is None or o.source == source:
                found += [(o, s) for s in o.functions()
                          if s.routine == routine and (source is not None or s.external)]
        return found

    def expect(routine, where, why, source=None):
        found = find(routine, source)
        place = f" in {source}" if source else ""
        if not found:
            errors.append(f"{routine} ({why}) is not defined{place}")
            return
        for o, s in found:
            if kind(s.section) != where:
                errors.append(f"{o.source}: {routine} ({why}) must lie in "
                              f"{'resident code (.text)' if where == 'RESIDENT' else where}, "
                              f"but lies in {s.section}")

    # What the pragmas ask for.
    pragma_counts = {"INIT": 0, "PAGE": 0}
    for source in args.sources:
        for section, routine in pragma_placements(f"{args.source_dir}/{source}"):
            found = find(routine, source)
            if not found:
                errors.append(f"{source}: #pragma alloc_text({section}, {routine}) names a routine "
                              "the object does not define")
            for o, s in found:
                if s.section != section:
                    errors.append(f"{source}: #pragma alloc_text({section}, {routine}) but "
                                  f"{routine} lies in {s.section}")
            if kind(section) in pragma_counts:
                pragma_counts[kind(section)] += 1

    # What the framework and the camera driver need.
    for routine in INIT_ROUTINES:
        expect(routine, "INIT", "driver entry, called once at load")
    for routine in PAGEABLE_CALLBACKS:
        expect(routine, "PAGE", "pageable framework callback")
    for routine in RESIDENT_CALLBACKS:
        expect(routine, "RESIDENT", "resident framework or interface callback")
    operations = interface_operations(f"{args.source_dir}/{INTERFACE_SOURCE}")
    if len(operations) != INTERFACE_OPERATIONS:
        errors.append(f"{INTERFACE_SOURCE}: InitSensorInterface fills {len(operations)} slots "
                      f"({', '.join(operations)}), not {INTERFACE_OPERATIONS}")
    for routine in operations:
        expect(routine, "RESIDENT", "interface operation")

    # No resident code refers to PAGE or INIT code, and no PAGE code to INIT.
    resident_relocations = 0
    for o in objects:
        for number, section, offset, index in o.relocations:
            source_kind = kind(section)
            if source_kind not in ("RESIDENT", "PAGE"):
                continue  # data: unwind tables and the like
            if source_kind == "RESIDENT":
                resident_relocations += 1
            target = o.symbols[index]
            owner, definition = o, target
            if target.number == 0 and target.name in defined:
                owner, definition = defined[target.name]
            target_kind = kind(definition.section)
            if target_kind == "INIT" or (source_kind == "RESIDENT" and target_kind == "PAGE"):
                caller = o.routine_at(number, offset)
                callee = definition.routine if definition.function else f"{definition.section} (section)"
                where = "resident code" if source_kind == "RESIDENT" else "pageable code"
                errors.append(f"{o.source}: {caller} ({where}, {section}+0x{offset:x}) refers to "
                              f"{callee}, which lies in {target_kind} ({owner.source})")

    if resident_relocations == 0:
        errors.append("no relocation read from resident code in any object: "
                      "does llvm-readobj still print them as this reads them?")

    if errors:
        print("placement check failed:\n  " + "\n  ".join(errors))
        sys.exit(1)
    resident_checked = len(RESIDENT_CALLBACKS) + len(operations)
    print(f"placement: {pragma_counts['INIT']} routines in INIT, {pragma_counts['PAGE']} in PAGE, "
          f"{resident_checked} resident checked; {resident_relocations} relocations from resident "
          "code checked, 0 to pageable code")


if __name__ == "__main__":
    main()
