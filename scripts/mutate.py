#!/usr/bin/env python3
"""Mutation run: how many small faults in the program does the test suite catch?

    scripts/mutate.py --seed 7 --count 40 [--build build-mutate] [--jobs 2]
    scripts/mutate.py --seed 7 --count 40 --list     (the faults only, nothing run)

One fault at a time is planted at a random place in src/ or python/ (a
comparison turned around or moved by one, an arithmetic or logical operator
swapped, a constant changed, two arguments or indices swapped, an index moved
by one, a negation or a statement dropped). The build folder (its own,
build-mutate by default: a Release build without benchmarks and fuzz targets,
configured here when it is missing) is rebuilt with ninja, which compiles only
what the fault touches, and the suite is run through ctest with
--stop-on-failure: first the tests that caught an earlier fault in the same
file and the quick tests of the same layer, then the other quick ones, then the
slow ones. The file is always put back, also on Ctrl-C, SIGTERM or SIGHUP (and
a run killed outright is repaired at the next start, from a copy kept in the
build folder).

Faults that are not counted:
  - "does not compile": the build fails;
  - "not built": no object file of this build includes the file (the MPI
    program where MPI is missing, a program for another processor);
  - "no device here": the device program's code (.cu, src/run/gpu) on a
    machine without a device, where its tests are skipped;
  - "same code": every object file that includes it comes out bit for bit as
    before (code for another processor behind #if, an assert in a Release
    build, a change the compiler proves makes no difference).

Output: one line per fault as it goes ("killed", "SURVIVED" or the reason it is
not counted, with the test that caught it and the seconds it took), then each
surviving fault again as a one-line diff, file:line old -> new, and, as the last
line, the kill rate: "killed K of N faults: R %".

Seeds give the same faults on the same sources. Standard library only.
"""

import argparse
import fnmatch
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
CODE_DIRS = ("src", "python")
CXX_SUFFIXES = {".cpp", ".hpp", ".h", ".cc", ".cu", ".cuh"}
QUICK_SECONDS = 5.0


# ---------------------------------------------------------------- masking

def mask_cxx(text):
    """The text with comments, string and character literals and preprocessor
    lines turned into spaces (newlines kept), so positions stay the same."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True

    def blank(a, b):
        for k in range(a, b):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        c = text[i]
        if line_start and c in " \t":
            i += 1
            continue
        if line_start and c == "#":
            j = i
            while j < n:
                if text[j] == "\n" and text[j - 1] != "\\":
                    break
                j += 1
            blank(i, j)
            i = j
            continue
        line_start = c == "\n"
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c == "R" and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            open_paren = text.find("(", i)
            delim = text[i + 2:open_paren]
            j = text.find(")" + delim + '"', open_paren)
            j = n if j < 0 else j + len(delim) + 2
            blank(i, j)
            i = j
        elif c == '"' or (c == "'" and (i == 0 or not text[i - 1].isalnum())):
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            blank(i, j + 1)
            i = j + 1
        else:
            i += 1
    return "".join(out)


def mask_python(text):
    """The same for Python: comments and string literals (docstrings too)."""
    out = list(text)
    i, n = 0, len(text)

    def blank(a, b):
        for k in range(a, min(b, n)):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        c = text[i]
        if c == "#":
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif c in "'\"":
            start = i
            while start > 0 and text[start - 1] in "rbfRBF":
                start -= 1
            quote = text[i:i + 3] if text[i:i + 3] in ('"""', "'''") else c
            j = i + len(quote)
            while j < n and not text.startswith(quote, j):
                j += 2 if text[j] == "\\" else 1
            blank(start, j + len(quote))
            i = j + len(quote)
        else:
            i += 1
    return "".join(out)


# ---------------------------------------------------------------- fault sites

# Comparisons and arithmetic, written alike in both languages (this order
# first: a seed picks the same faults as before).
SWAPS_BOTH = [
    (r"(?<=\s)<(?=\s)", ["<=", ">"]),
    (r"(?<=\s)<=(?=\s)", ["<", ">"]),
    (r"(?<=\s)>(?=\s)", [">=", "<"]),
    (r"(?<=\s)>=(?=\s)", [">", "<"]),
    (r"(?<=\s)==(?=\s)", ["!="]),
    (r"(?<=\s)!=(?=\s)", ["=="]),
    (r"(?<=\s)\+(?=\s)", ["-"]),
    (r"(?<=\s)-(?=\s)", ["+"]),
    (r"(?<=\s)\*(?=\s)", ["/"]),
    (r"(?<=\s)/(?=\s)", ["*"]),
]
SWAPS_CXX = SWAPS_BOTH + [
    (r"(?<=\s)\+=(?=\s)", ["-="]),
    (r"(?<=\s)-=(?=\s)", ["+="]),
    (r"(?<=\s)&&(?=\s)", ["||"]),
    (r"(?<=\s)\|\|(?=\s)", ["&&"]),
    (r"!(?=[A-Za-z_(])", [""]),
]
SWAPS_PYTHON = SWAPS_BOTH + [
    (r"(?<=\s)//(?=\s)", ["*"]),
    (r"(?<=\s)and(?=\s)", ["or"]),
    (r"(?<=\s)or(?=\s)", ["and"]),
    (r"(?<=\s)not\s", [""]),
]
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d*)?(?:[eE][+-]?\d+)?)([uUlLfF]*)(?![\w.'])")
TWO_ARGUMENTS = re.compile(r"(?<=[\w>])\(([^(),;\[\]{}]+), ([^(),;\[\]{}]+)\)")
TWO_INDICES = re.compile(r"\[([^\[\]]+)\]\[([^\[\]]+)\]")
INDEX = re.compile(r"(?<=[\w\])])\[([^\[\]:]+)\]")


def changed_number(literal, rng):
    body = literal.replace("'", "")
    if body.lower().startswith("0x"):
        value = int(body, 16)
        return hex(value + 1 if value == 0 or rng.random() < 0.5 else value - 1)
    if re.fullmatch(r"\d+", body):
        value = int(body)
        return str(value + 1 if value == 0 or rng.random() < 0.5 else value - 1)
    value = float(body)
    if value == 0.0:
        return "1.0"
    new = value * 2 if rng.random() < 0.5 else value / 2
    text = repr(new)
    return text if ("." in text or "e" in text) else text + ".0"


# A statement, not a declaration: a call, an assignment, an increment or a
# one-line if, which can go without breaking the build.
STATEMENT_CXX = re.compile(r"(\+\+|--)?(::)?[A-Za-z_][\w:]*(\s*(\.|->|\[|\(|[-+*/|&^]?=[^=]|\+\+|--)|\s+[-+*/|&^]?=[^=])")


def statement_sites(text, masked, python):
    """Single-line statements that can be dropped: (start, end) of the line."""
    sites = []
    pos = 0
    previous = ";"
    for line in masked.splitlines(keepends=True):
        body = line.strip()
        start, end = pos, pos + len(line.rstrip("\n"))
        pos += len(line)
        if python:
            if (body and re.match(r"[A-Za-z_][\w.\[\]]*\s*(\(|[-+*/]?=[^=])", body)
                    and not re.match(r"(def|class|return|if|elif|else|for|while|with|try|except|import|from)\b", body)
                    and body.count("(") == body.count(")") and not body.endswith((":", ",", "(", "\\"))
                    and previous[-1:] not in ",(\\[{"):
                sites.append((start, end))
        elif (body.endswith(";") and previous[-1:] in ";{}:" and body.count("(") == body.count(")")
              and STATEMENT_CXX.match(body)
              and not re.match(r"(return|case|default|using|typedef|namespace|template|struct|class|static_assert|throw)\b", body)):
            sites.append((start, end))
        if body:
            previous = body
    return sites


def fault_sites(path, rng):
    """Every fault this file offers: (start, end, replacement, kind)."""
    text = path.read_text()
    python = path.suffix == ".py"
    masked = mask_python(text) if python else mask_cxx(text)
    sites = []
    for pattern, replacements in (SWAPS_PYTHON if python else SWAPS_CXX):
        for m in re.finditer(pattern, masked):
            for r in replacements:
                sites.append((m.start(), m.end(), r, "operator"))
    for m in NUMBER.finditer(masked):
        sites.append((m.start(1), m.end(1), None, "constant"))
    for m in TWO_ARGUMENTS.finditer(masked):
        sites.append((m.start(), m.end(), "(" + text[m.start(2):m.end(2)] + ", " + text[m.start(1):m.end(1)] + ")", "arguments"))
    for m in TWO_INDICES.finditer(masked):
        sites.append((m.start(), m.end(), "[" + text[m.start(2):m.end(2)] + "][" + text[m.start(1):m.end(1)] + "]", "indices"))
    for m in INDEX.finditer(masked):
        inner = text[m.start(1):m.end(1)]
        sites.append((m.start(), m.end(), "[" + inner + " + 1]", "index"))
        sites.append((m.start(), m.end(), "[" + inner + " - 1]", "index"))
    for start, end in statement_sites(text, masked, python):
        indent = len(text[start:end]) - len(text[start:end].lstrip())
        sites.append((start + indent, end, "pass" if python else "", "statement"))
    sites.sort(key=lambda s: (s[0], s[1], s[3], str(s[2])))
    return sites


def all_faults(rng, only=()):
    """Every fault of the code, shuffled; only: path patterns (fnmatch, from
    the repository root) that a file must match, none for every file."""
    faults = []
    for top in CODE_DIRS:
        for path in sorted((ROOT / top).rglob("*")):
            name = path.relative_to(ROOT).as_posix()
            if only and not any(fnmatch.fnmatch(name, p) for p in only):
                continue
            if path.suffix in CXX_SUFFIXES or path.suffix == ".py":
                for site in fault_sites(path, rng):
                    faults.append((path, *site))
    rng.shuffle(faults)
    return faults


def planted(path, start, end, replacement, rng):
    """The file's new text and the one-line diff of the fault."""
    text = path.read_text()
    old = text[start:end]
    if replacement is None:
        replacement = changed_number(old, rng)
    new_text = text[:start] + replacement + text[end:]
    line_no = text.count("\n", 0, start) + 1
    line_start = text.rfind("\n", 0, start) + 1
    old_line = text[line_start:text.find("\n", start)].strip()
    new_end = new_text.find("\n", line_start)
    new_line = new_text[line_start:new_end if new_end >= 0 else len(new_text)].strip()
    if not new_line or new_line == "pass":
        new_line = "(dropped)" if new_line == "" else "pass (dropped)"
    rel = path.relative_to(ROOT)
    return new_text, f"{rel}:{line_no}: {old_line}  ->  {new_line}"


# ---------------------------------------------------------------- build and suite

class Build:
    def __init__(self, folder, jobs):
        self.folder = folder
        self.jobs = jobs
        self.child = None

    def run(self, command, timeout=None):
        """Runs a child in its own session, so a stop can end it and its
        children (ninja's compilers, ctest's tests) together."""
        self.child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      text=True, start_new_session=True)
        try:
            output, _ = self.child.communicate(timeout=timeout)
            return self.child.returncode, output
        except subprocess.TimeoutExpired:
            self.stop_child()
            return None, ""
        finally:
            self.child = None

    def stop_child(self):
        if self.child and self.child.poll() is None:
            os.killpg(self.child.pid, signal.SIGKILL)
            self.child.wait()

    def configure(self):
        if (self.folder / "build.ninja").exists():
            return
        print(f"configuring {self.folder}", flush=True)
        rc, output = self.run(["cmake", "-S", str(ROOT), "-B", str(self.folder), "-G", "Ninja",
                               "-DCMAKE_CXX_COMPILER=clang++", "-DCMAKE_BUILD_TYPE=Release",
                               "-DQUOLVENT_BENCH=OFF", "-DQUOLVENT_FUZZ=OFF", "-DQUOLVENT_SANITIZE=OFF"])
        if rc != 0:
            sys.exit(output + "\nthe build folder could not be configured")

    def ninja(self):
        return self.run(["ninja", "-C", str(self.folder), f"-j{self.jobs}"])

    def objects_by_source(self):
        """Each source or header of the project -> the object files that include it."""
        rc, output = self.run(["ninja", "-C", str(self.folder), "-t", "deps"])
        result = {}
        current = None
        for line in output.splitlines():
            if not line.startswith(" ") and ": #deps" in line:
                current = str((self.folder / line.split(": #deps")[0]).resolve())
            elif line.strip() and current:
                source = (self.folder / line.strip()).resolve()
                result.setdefault(source, set()).add(current)
        return result

    def tests(self):
        rc, output = self.run(["ctest", "--test-dir", str(self.folder), "--show-only=json-v1"])
        listing = json.loads(output)
        costs = {}
        cost_file = self.folder / "Testing" / "Temporary" / "CTestCostData.txt"
        if cost_file.exists():
            for line in cost_file.read_text().splitlines():
                parts = line.split()
                if len(parts) == 3:
                    costs[parts[0]] = float(parts[2])
        tests = []
        for number, test in enumerate(listing["tests"], start=1):
            command = " ".join(test.get("command", []))
            layer = re.search(r"/test_(\w+)\b", command)
            layer = "python" if "pytest" in command else (layer.group(1) if layer else "")
            tests.append({"number": number, "name": test["name"], "layer": layer,
                          "cost": costs.get(test["name"], 1.0)})
        return tests

    def suite(self, numbers, timeout):
        """(passed, name of the first failing test or None)."""
        if not numbers:
            return True, None
        listing = ",".join(str(n) for n in numbers)
        rc, output = self.run(["ctest", "--test-dir", str(self.folder), f"-j{self.jobs}",
                               "--stop-on-failure", "-I", f"0,0,0,{listing}"], timeout=timeout)
        if rc is None:
            return False, "(time out)"
        if rc == 0:
            return True, None
        failed = re.findall(r"\d+ - (\S+) \(", output)
        return False, failed[0] if failed else "(ctest failed)"


def file_hashes(paths):
    return {p: hashlib.sha256(pathlib.Path(p).read_bytes()).hexdigest() if os.path.exists(p) else None
            for p in paths}


def layer_of(path):
    rel = path.relative_to(ROOT).parts
    return "python" if rel[0] == "python" else (rel[1] if len(rel) > 2 else "")


# ---------------------------------------------------------------- the run

def raise_interrupt(signum, frame):
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--count", type=int, required=True, help="faults to count (compiled, built, changing the code)")
    parser.add_argument("--build", default="build-mutate", help="build folder, relative to the repository (default build-mutate)")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--list", action="store_true", help="print the first COUNT faults of the seed and stop")
    parser.add_argument("--only", nargs="+", default=[], metavar="PATTERN",
                        help="faults only in files matching these patterns (e.g. 'src/base/parallel_sort.*')")
    args = parser.parse_args()
    if args.list:
        rng = random.Random(args.seed)
        for path, start, end, replacement, kind in all_faults(rng, args.only)[:args.count]:
            print(f"{kind:<10} {planted(path, start, end, replacement, rng)[1]}")
        return

    folder = (ROOT / args.build).resolve()
    build = Build(folder, args.jobs)
    journal = folder / "mutation-in-progress.json"
    if journal.exists():
        record = json.loads(journal.read_text())
        pathlib.Path(record["path"]).write_text(record["text"])
        journal.unlink()
        print(f"put back {record['path']} from an earlier run that was killed", flush=True)

    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, raise_interrupt)

    build.configure()
    started = time.monotonic()
    rc, output = build.ninja()
    if rc != 0:
        sys.exit(output + "\nthe unchanged sources do not build")
    objects = build.objects_by_source()
    baseline_hashes = file_hashes({o for objs in objects.values() for o in objs})
    rc, output = build.run(["ctest", "--test-dir", str(folder), f"-j{args.jobs}"])
    if rc != 0:
        sys.exit(output + "\nthe suite fails without any fault: nothing to measure")
    tests = build.tests()
    suite_seconds = time.monotonic() - started
    print(f"built and ran the {len(tests)} tests unchanged in {suite_seconds:.0f} s", flush=True)
    timeout = 3 * sum(t["cost"] for t in tests) / args.jobs + 120

    # The device program's code (src/run/gpu) builds wherever CUDA is
    # installed, but its tests run only on a machine with a device.
    device = shutil.which("nvidia-smi") is not None and subprocess.run(
        ["nvidia-smi", "-L"], capture_output=True).returncode == 0
    rng = random.Random(args.seed)
    faults = all_faults(rng, args.only)
    killers = {}
    killed, survivors, skipped = 0, [], {}
    counted = 0
    try:
        for path, start, end, replacement, kind in faults:
            if counted >= args.count:
                break
            fault_started = time.monotonic()
            original = path.read_text()
            new_text, diff = planted(path, start, end, replacement, rng)
            if new_text == original:
                continue
            source_objects = objects.get(path.resolve(), set())
            if not device and (path.suffix in (".cu", ".cuh") or "gpu" in path.relative_to(ROOT).parts):
                skipped["no device here"] = skipped.get("no device here", 0) + 1
                print(f"no device here {diff}", flush=True)
                continue
            if path.suffix != ".py" and not source_objects:
                skipped["not built"] = skipped.get("not built", 0) + 1
                print(f"not built      {diff}", flush=True)
                continue
            journal.write_text(json.dumps({"path": str(path), "text": original}))
            try:
                path.write_text(new_text)
                if path.suffix == ".py":
                    compiles = subprocess.run([sys.executable, "-c", "import ast,sys; ast.parse(open(sys.argv[1]).read())",
                                               str(path)], capture_output=True).returncode == 0
                    if compiles:
                        compiles = build.ninja()[0] == 0
                else:
                    compiles = build.ninja()[0] == 0
                if not compiles:
                    reason = "does not compile"
                elif source_objects and file_hashes(source_objects) == {o: baseline_hashes[o] for o in source_objects}:
                    reason = "same code"
                else:
                    reason = None
                if reason:
                    skipped[reason] = skipped.get(reason, 0) + 1
                    print(f"{reason:<15}{diff}", flush=True)
                    continue
                layer = layer_of(path)
                first = [t for t in tests if t["name"] in killers.get(path, ())
                         or (t["layer"] == layer and t["cost"] < QUICK_SECONDS)]
                quick = [t for t in tests if t not in first and t["cost"] < QUICK_SECONDS]
                slow = [t for t in tests if t not in first and t not in quick]
                caught_by = None
                for stage in (first, quick, slow):
                    passed, caught_by = build.suite([t["number"] for t in stage], timeout)
                    if not passed:
                        break
                counted += 1
                seconds = time.monotonic() - fault_started
                if caught_by:
                    killed += 1
                    killers.setdefault(path, set()).add(caught_by)
                    print(f"killed         {diff}   [{caught_by}, {seconds:.0f} s]", flush=True)
                else:
                    survivors.append(diff)
                    print(f"SURVIVED       {diff}   [{seconds:.0f} s]", flush=True)
            finally:
                path.write_text(original)
                journal.unlink(missing_ok=True)
    except KeyboardInterrupt:
        build.stop_child()
        print("stopped: the file is put back; the rate below is of the faults run so far", flush=True)

    total = time.monotonic() - started
    print(f"\n{len(survivors)} surviving fault(s), seed {args.seed}:")
    for diff in survivors:
        print(f"  {diff}")
    not_counted = ", ".join(f"{n} {why}" for why, n in sorted(skipped.items())) or "none"
    print(f"not counted: {not_counted}; {total / 60:.1f} min in all")
    rate = 100.0 * killed / counted if counted else 0.0
    print(f"killed {killed} of {counted} faults: {rate:.1f} %")


if __name__ == "__main__":
    main()
