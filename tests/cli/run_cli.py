#!/usr/bin/env python3
# Plays one command-line case folder: copies its files into a scratch folder,
# runs zelrun there with the case's arguments and compares exit code, stdout,
# stderr and the listed files written with the folder's expected.txt.
# GOLDEN_UPDATE=1 writes expected.txt instead.
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

# Volatile text: latencies, the version, the plug-in's build id, located line
# numbers in its log and the JSON parser's own wording after the place.
MASKS = [(re.compile(r"\d+(\.\d+)? ms\b"), "N ms"), (re.compile(r"(?m)^zelrun \S+$"), "zelrun VERSION"),
         (re.compile(r"build id [0-9a-f]+"), "build id ID"), (re.compile(r"(\.(cpp|h))::\d+ -- "), r"\1::NNN -- "),
         (re.compile(r"(malformed JSON: parse error at line \d+, column \d+:).*"), r"\1 ...")]


def shown(path):
    with open(path, "rb") as f:
        data = f.read()
    try:
        text = data.decode("ascii")
        if all(c.isprintable() or c in "\n\t" for c in text):
            return text
    except UnicodeDecodeError:
        pass
    return " ".join("%02x" % b for b in data) + "\n"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--zelrun", required=True)
    parser.add_argument("--models", required=True)
    parser.add_argument("case")
    args = parser.parse_args()
    with open(os.path.join(args.case, "case.json"), encoding="utf-8") as f:
        case = json.load(f)
    expected_path = os.path.join(args.case, "expected.txt")
    tmp = tempfile.mkdtemp(prefix="zelrun_cli_")
    try:
        for name in os.listdir(args.case):
            source = os.path.join(args.case, name)
            if name in ("case.json", "expected.txt"):
                continue
            (shutil.copytree if os.path.isdir(source) else shutil.copy)(source, os.path.join(tmp, name))
        places = {"{tmp}": tmp, "{models}": args.models,
                  "{build}": os.path.dirname(os.path.dirname(os.path.abspath(args.zelrun)))}
        argv = [os.path.abspath(args.zelrun)]
        for word in case["args"]:
            for key, value in places.items():
                word = word.replace(key, value)
            argv.append(word)
        env = dict(os.environ)
        env.update(case.get("env", {}))
        run = subprocess.run(argv, cwd=tmp, env=env, capture_output=True, timeout=300)
        err = run.stderr.decode("utf-8", "replace")
        if "stderrLines" in case:  # other threads' lines interleave: keep the matching ones
            err = "".join(line for line in err.splitlines(True) if re.search(case["stderrLines"], line))
        parts = ["exit %d\n" % run.returncode, "--- stdout\n" + run.stdout.decode("utf-8", "replace"),
                 "--- stderr\n" + err]
        for name in case.get("files", []):
            path = os.path.join(tmp, name)
            parts.append("--- file %s\n" % name + (shown(path) if os.path.exists(path) else "(missing)\n"))
        got = "".join(p if p.endswith("\n") else p + "\n" for p in parts)
        for key, value in places.items():
            got = got.replace(os.path.realpath(value), key).replace(value, key)
        for pattern, replacement in MASKS:
            got = pattern.sub(replacement, got)
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    if os.environ.get("GOLDEN_UPDATE") == "1":
        with open(expected_path, "w", encoding="utf-8") as f:
            f.write(got)
        return 0
    if not os.path.exists(expected_path):
        print("%s: no expected.txt (GOLDEN_UPDATE=1 writes it)" % args.case)
        return 1
    with open(expected_path, encoding="utf-8") as f:
        want = f.read()
    if got != want:
        import difflib
        sys.stdout.writelines(difflib.unified_diff(want.splitlines(True), got.splitlines(True),
                                                   "expected.txt", "zelrun"))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
