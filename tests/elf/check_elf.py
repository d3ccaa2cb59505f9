#!/usr/bin/env python3
"""What the built libraries show a loader, read with readelf.

The plug-in exports the factory and nothing else, carries no run-time type
information and, when hardened, is fully RELRO (resolved at load time, then
read-only). The simulator exports its kestrel_zel_nn_* entry points, its C
observation functions (zelsim_*) and its zelsim:: control API, nothing of
its internals. With --zelrun, `zelrun --version` names the build id the
plug-in file carries. Prints one line per broken rule and exits 1 when there is one.
"""
import argparse
import re
import shlex
import subprocess
import sys


def readelf(tool, *args):
    return subprocess.run([tool, "-W", *args], check=True, capture_output=True, text=True).stdout


def symbols(tool, path, table):
    """(name, type, bind, defined) of every symbol in `table` (--dyn-syms or --syms)."""
    found = []
    for line in readelf(tool, table, path).splitlines():
        fields = line.split()
        # Num: Value Size Type Bind Vis Ndx Name [version]
        if len(fields) < 8 or not fields[0].endswith(":") or not fields[0][:-1].isdigit():
            continue
        name = fields[7].split("@")[0]
        found.append((name, fields[3], fields[4], fields[6] != "UND"))
    return found


def exported(tool, path):
    return sorted({name for name, kind, bind, defined in symbols(tool, path, "--dyn-syms")
                   if defined and kind in ("FUNC", "OBJECT", "IFUNC") and bind in ("GLOBAL", "WEAK")})


def demangle(names):
    mangled = [n for n in names if n.startswith("_Z")]
    if not mangled:
        return {}
    out = subprocess.run(["c++filt"], input="\n".join(mangled), check=True, capture_output=True, text=True).stdout
    return dict(zip(mangled, out.splitlines()))


def check_plugin(tool, path, hardened, problems):
    names = exported(tool, path)
    if names != ["CreateAccelerator_zel"]:
        problems.append(f"{path}: exports {names}, expected exactly ['CreateAccelerator_zel']")
    # Type information of the plug-in's own types (hidden ones included).
    # A catch clause naming a standard type (std::exception) needs that
    # type's information even without RTTI, so _ZTISt/_ZTSSt are allowed, and
    # so are function types (_ZTIF...), which the undefined-behaviour
    # sanitizer emits for its checks of indirect calls.
    rtti = sorted({name for name, _, _, defined in symbols(tool, path, "--syms") + symbols(tool, path, "--dyn-syms")
                   if defined and re.match(r"_ZT[IS](?!St|F)", name)})
    if rtti:
        problems.append(f"{path}: carries run-time type information: {rtti[:5]}")
    if hardened:
        dynamic = readelf(tool, "-d", path)
        if not re.search(r"\(BIND_NOW\)|\(FLAGS\).*\bBIND_NOW\b|\(FLAGS_1\).*\bNOW\b", dynamic):
            problems.append(f"{path}: not linked with BIND_NOW (-z now)")
        if not re.search(r"^\s*GNU_RELRO\b", readelf(tool, "-l", path), re.M):
            problems.append(f"{path}: has no GNU_RELRO segment (-z relro)")


def check_simulator(tool, path, problems):
    names = exported(tool, path)
    if not any(n.startswith("kestrel_zel_nn_") for n in names):
        problems.append(f"{path}: exports no kestrel_zel_nn_* entry point")
    plain = [n for n in names if not n.startswith("_Z")]
    for name in plain:
        if not (name.startswith("kestrel_zel_nn_") or name.startswith("zelsim_")):
            problems.append(f"{path}: exports {name}")
    for name, text in demangle(names).items():
        # zelsim::findOp(int), zelsim::reset(), ... but no nested namespace
        # (zelsim::store::..., zelsim::(anonymous namespace)::...).
        if not re.match(r"zelsim::[A-Za-z_]\w*(\(|\[|$)", text):
            problems.append(f"{path}: exports {text} ({name})")


def check_version(tool, zelrun, emulator, plugin, problems):
    notes = readelf(tool, "-n", plugin)
    match = re.search(r"Build ID:\s*([0-9a-f]+)", notes)
    expected = match.group(1) if match else "none"
    run = subprocess.run(shlex.split(emulator) + [zelrun, "--plugin", plugin, "--version"],
                         capture_output=True, text=True)
    line = f"plug-in {plugin}: build id {expected}"
    if run.returncode != 0 or line not in run.stdout.splitlines():
        problems.append(f"zelrun --version (exit {run.returncode}) printed {run.stdout!r}, expected the line {line!r}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("--plugin", required=True)
    parser.add_argument("--simulator")
    parser.add_argument("--hardened", action="store_true", help="require BIND_NOW and GNU_RELRO")
    parser.add_argument("--zelrun", help="zelrun, whose --version must name the plug-in's build id")
    parser.add_argument("--emulator", default="", help="command line that runs target programs")
    args = parser.parse_args()
    problems = []
    check_plugin(args.readelf, args.plugin, args.hardened, problems)
    if args.simulator:
        check_simulator(args.readelf, args.simulator, problems)
    if args.zelrun:
        check_version(args.readelf, args.zelrun, args.emulator, args.plugin, problems)
    for problem in problems:
        print(problem)
    print(f"{'FAILED' if problems else 'ok'}: {len(problems)} problem(s)")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
