#!/usr/bin/env python3
"""Applies small deliberate mistakes to a copy of the tree, one by one, and says which test notices each.

A mistake that no test notices is a missing test. The entries are in the .txt files beside this program;
docs/testing.md says how they look. Called by ./dev mutants.
"""

import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent
WORK = PROJECT / "build" / "mutants"
TREE = WORK / "tree"
JOBS = str(os.cpu_count() or 1)

# Of a program.
LIKELY_LIMIT_SECONDS = 600
WHOLE_LIMIT_SECONDS = 1800


class Failure(Exception):
    """Something is wrong with an entry, the build or the unchanged tree: nothing can be said of the tests then."""


class NoTest(Exception):
    """A program of tests failed, and no test of it did: what there is to notice, no test has noticed."""


class Mutant:
    def __init__(self, name, source):
        self.name = name
        self.source = source  # where the entry stands
        self.file = None
        self.likely = []  # (program, filter)
        self.preset = "native"  # of the likely tests; every other test is native
        self.under = []  # what runs their programs, in front of each command
        self.old = None
        self.new = None

    def fail(self, text):
        raise Failure(f"{self.source}: {self.name}: {text}")


def read_mutants():
    mutants = []
    for path in sorted(HERE.glob("*.txt")):
        mutants += parse(path.read_text(), path.name)
    names = [mutant.name for mutant in mutants]
    for name in names:
        if names.count(name) > 1:
            raise Failure(f"two entries are called {name}")
    return mutants


def parse(text, source):
    mutants, part = [], None
    for line in text.splitlines():
        if line.startswith("== "):
            mutants.append(Mutant(line[3:].strip(), source))
            part = "head"
        elif part is None or part == "head" and (line.startswith("#") or not line.strip()):
            if part is None and line.strip() and not line.startswith("#"):
                raise Failure(f"{source}: text in front of the first entry: {line}")
        elif line == "-- from":
            mutants[-1].old, part = [], "from"
        elif line == "-- to":
            mutants[-1].new, part = [], "to"
        elif line == "--":
            part = "head"
        elif part == "from":
            mutants[-1].old.append(line)
        elif part == "to":
            mutants[-1].new.append(line)
        else:
            key, _, value = line.partition(" ")
            if key == "file":
                mutants[-1].file = value.strip()
            elif key == "preset":
                mutants[-1].preset = value.strip()
            elif key == "under":
                mutants[-1].under = value.split()
            elif key == "likely":
                program, _, names = value.strip().partition(" ")
                mutants[-1].likely.append((program, names.strip()))
            else:
                mutants[-1].fail(f"unknown line: {line}")
    for mutant in mutants:
        if not mutant.file or mutant.old is None or mutant.new is None or not mutant.likely:
            mutant.fail("an entry has a file, a likely test, a part from and a part to")
        mutant.old = "\n".join(mutant.old)
        mutant.new = "\n".join(mutant.new)
    return mutants


def changed_text(mutant, root):
    path = root / mutant.file
    if not path.exists():
        mutant.fail(f"there is no {mutant.file}")
    text = path.read_text()
    count = text.count(mutant.old)
    if count != 1:
        mutant.fail(f"the part to replace stands {count} times in {mutant.file}, not once")
    return text, text.replace(mutant.old, mutant.new)


def copy_tree():
    """Brings the copy up to date. Files that are the same keep their time, so that little is built again."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=PROJECT,
                            check=True, capture_output=True).stdout.split(b"\0")
    wanted = {name.decode() for name in listed if name and (PROJECT / name.decode()).is_file()}
    for path in TREE.rglob("*") if TREE.exists() else []:
        name = path.relative_to(TREE).as_posix()
        if not name.startswith("build/") and name != "build" and path.is_file() and name not in wanted:
            path.unlink()
    for name in wanted:
        source, target = PROJECT / name, TREE / name
        if target.exists() and target.read_bytes() == source.read_bytes():
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, target)
        shutil.copymode(source, target)


def run_logged(command, log, cwd=TREE):
    with open(log, "wb") as output:
        return subprocess.run(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=output,
                              stderr=subprocess.STDOUT).returncode


def build_folder(preset):
    return TREE / "build" / preset


def configure(preset):
    if (build_folder(preset) / "build.ninja").exists():
        return
    log = WORK / f"configure-{preset}.log"
    if run_logged(["cmake", "--preset", preset], log) != 0:
        raise Failure(f"the copy cannot be configured: {log}")


def build(preset, targets, log):
    """Without targets everything."""
    command = ["cmake", "--build", str(build_folder(preset)), "-j", JOBS]
    if targets:
        command += ["--target", *sorted(targets)]
    return run_logged(command, log) == 0


class Program:
    """A program of tests, as the build system has it."""

    def __init__(self, entry, preset):
        self.command = entry["command"]
        self.folder = str(build_folder(preset))
        # A race ends the test that has it, which is named then.
        self.environment = {"TSAN_OPTIONS": "halt_on_error=1"}
        for item in entry.get("properties", []):
            if item["name"] == "WORKING_DIRECTORY":
                self.folder = item["value"]
            if item["name"] == "ENVIRONMENT":
                self.environment |= dict(setting.split("=", 1) for setting in item["value"])
        modules = [part for part in self.command if part.endswith(".exe")]
        self.target = modules[0][:-len(".exe")] + ".p0000" if modules else pathlib.Path(self.command[0]).name

    def arguments(self, names):
        kept = [part for part in self.command if part != "--gtest_brief=1"]
        if names:
            kept = [part for part in kept if not part.startswith("--gtest_filter=")] + [f"--gtest_filter={names}"]
        return kept + ["--gtest_fail_fast", "--gtest_color=no"]


def list_programs(preset, folder=None):
    """The programs of GoogleTest that are built, by their names."""
    listed = subprocess.run(["ctest", "--test-dir", str(folder or build_folder(preset)), "--show-only=json-v1"],
                            check=True, capture_output=True).stdout
    programs = {}
    for entry in json.loads(listed)["tests"]:
        if any(part.startswith("--gtest") for part in entry.get("command", [])):
            programs[entry["name"].partition(".")[2]] = Program(entry, preset)
    return programs


def target_of(name):
    """What builds a program of which no more is known than its name."""
    host, _, module = name.partition(".")
    return module + ".p0000" if host == "double" and module else name


def running_test(output):
    """The test that had begun and not ended when the output did, or None."""
    # What a test prints may stand in front of the framework's own lines.
    lines = re.findall(r"\[ +(RUN|OK|FAILED|SKIPPED) +\] (\w\S*\.\S+)", output)
    return lines[-1][1] if lines and lines[-1][0] == "RUN" else None


def run_for(command, program, limit):
    """Returns (output, exit code or None when it did not end in time)."""
    with subprocess.Popen(command, cwd=program.folder, env=os.environ | program.environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True) as process:
        try:
            output, _ = process.communicate(timeout=limit)
            code = process.returncode
        except BaseException as ended:
            os.killpg(process.pid, signal.SIGKILL)  # and the processes that its tests have started
            if not isinstance(ended, subprocess.TimeoutExpired):
                raise
            output, _ = process.communicate()
            code = None
    return output.decode(errors="replace"), code


def run_tests(program, names, limit, under=()):
    """Runs tests up to the first that fails. Returns (name of the failed test or None, number of tests that ran).

    A test also fails when the program ends in it, or does not end; with no test running, that is a NoTest."""
    output, code = run_for([*under, *program.arguments(names)], program, limit)
    (WORK / "last-run.log").write_text(output)
    started = re.findall(r"\[ RUN      \] (\S+)", output)
    failed = re.findall(r"\[  FAILED  \] (\S+\.\S+)", output)
    if code == 0:
        return None, len(started)
    if failed:
        return failed[0].rstrip(","), len(started)
    how = "does not end" if code is None else "ends the program"
    running = running_test(output)
    if running:
        return f"{running} ({how})", len(started)
    where = f"behind {started[-1]}" if started else "before the first test"
    raise NoTest(f"{program.target.removesuffix('.p0000')} {how} {where}")


def run_unchanged(program, names, under=()):
    try:
        return run_tests(program, names, WHOLE_LIMIT_SECONDS, under)
    except NoTest as ended:
        return str(ended), 0


class Session:
    def __init__(self, only_likely):
        self.programs = {}  # by preset and name
        self.only_likely = only_likely
        self.is_whole_suite_good = False
        self.caught_elsewhere = False  # the last mistake, by another test than the likely ones

    def prepare(self, preset, wanted):
        """Builds the programs of a preset."""
        configure(preset)
        log = WORK / f"build-{preset}.log"
        if not build(preset, {target_of(name) for name in wanted}, log):
            raise Failure(f"the unchanged tree does not build: {log}")
        self.programs[preset] = list_programs(preset)

    def program(self, mutant, name):
        programs = self.programs[mutant.preset]
        if name not in programs:
            mutant.fail(f"there is no test program {name} of {mutant.preset}; there are: {', '.join(sorted(programs))}")
        return programs[name]

    def control(self, mutants):
        """The likely tests must exist and pass without a mistake, or their failure would say nothing."""
        wanted = {}
        for mutant in mutants:
            for name, names in mutant.likely:
                self.program(mutant, name)
                wanted.setdefault((mutant.preset, tuple(mutant.under), name), set()).add(names)
        for (preset, under, name), filters in sorted(wanted.items()):
            # Each filter by itself must select something; run together they take one start of the program.
            selected = ":".join(sorted(filters))
            failed, count = run_unchanged(self.programs[preset][name], selected, under)
            if failed:
                raise Failure(f"without any mistake {name} fails: {failed} ({WORK / 'last-run.log'})")
            ran = re.findall(r"\[ RUN      \] (\S+)", (WORK / "last-run.log").read_text())
            for names in filters:
                if not any(matches(names, test) for test in ran):
                    raise Failure(f"the filter {names} selects no test of {name}")
            print(f"==> {preset}, {name}: {count} tests pass on the unchanged tree", flush=True)

    def control_whole_suite(self):
        if self.is_whole_suite_good:
            return
        if not build("native", [], WORK / "build.log"):
            raise Failure(f"the unchanged tree does not build: {WORK / 'build.log'}")
        for name, program in list_programs("native").items():
            failed, _ = run_unchanged(program, None)
            if failed:
                raise Failure(f"without any mistake {name} fails: {failed}")
        self.is_whole_suite_good = True

    def catch(self, mutant):
        """The name of the test that notices, or None. The mistake is in the tree."""
        log = WORK / "build.log"
        without_test = None

        def failed_test(program, names, limit, under=()):
            nonlocal without_test
            try:
                return run_tests(program, names, limit, under)[0]
            except NoTest as ended:
                without_test = without_test or ended
                return None

        for name, names in mutant.likely:
            program = self.program(mutant, name)
            if not build(mutant.preset, {program.target}, log):
                mutant.fail(f"the changed tree does not build: {log}")
            failed = failed_test(program, names, LIKELY_LIMIT_SECONDS, mutant.under)
            if failed:
                return failed
        if not self.only_likely:
            configure("native")
            if not build("native", [], log):
                mutant.fail(f"the changed tree does not build: {log}")
            for name, program in list_programs("native").items():
                failed = failed_test(program, None, WHOLE_LIMIT_SECONDS)
                if failed:
                    self.caught_elsewhere = True
                    return f"{failed} in {name}, not by the likely tests"
        if without_test:
            raise without_test
        return None

    def try_mutant(self, mutant):
        path = TREE / mutant.file
        original, changed = changed_text(mutant, TREE)
        self.caught_elsewhere = False
        try:
            path.write_text(changed)
            caught = self.catch(mutant)
        finally:
            path.write_text(original)
        if not self.only_likely and (caught is None or self.caught_elsewhere):
            # Only believed when the whole suite passes without the mistake, too: it could not run at all, or something
            # else could be wrong with it.
            self.control_whole_suite()
        return caught


def check_programs(mutants, folder):
    """Each entry's tests are in a program that this native build has; the other presets have no more."""
    programs = list_programs("native", folder)
    for mutant in mutants:
        for name, _ in mutant.likely:
            if name not in programs:
                mutant.fail(f"there is no test program {name}; there are: {', '.join(sorted(programs))}")


def matches(names, test):
    for pattern in names.split("-")[0].split(":"):
        expression = re.escape(pattern).replace(r"\*", ".*").replace(r"\?", ".")
        if re.fullmatch(expression, test):
            return True
    return False


def choose(mutants, wanted):
    if not wanted:
        return mutants
    chosen = []
    for name in wanted:
        found = [mutant for mutant in mutants if mutant.name.startswith(name)]
        if not found:
            raise Failure(f"no entry begins with {name}")
        chosen += [mutant for mutant in found if mutant not in chosen]
    return chosen


def minutes(seconds):
    return f"{seconds:.0f} s" if seconds < 90 else f"{seconds / 60:.0f} min"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("names", nargs="*", help="entries, or the beginnings of their names; without any: all")
    parser.add_argument("--list", action="store_true", help="only say which entries there are")
    parser.add_argument("--programs", metavar="FOLDER",
                        help="hold the entries' test programs against those of this native build")
    parser.add_argument("--likely", action="store_true",
                        help="run only the likely tests: quicker, and a survivor is not sure to be one")
    arguments = parser.parse_args()

    mutants = choose(read_mutants(), arguments.names)
    for mutant in mutants:
        changed_text(mutant, PROJECT)
    if arguments.programs:
        check_programs(mutants, arguments.programs)
    if arguments.list:
        for mutant in mutants:
            print(f"{mutant.name}  {mutant.file}")
        return 0

    WORK.mkdir(parents=True, exist_ok=True)
    copy_tree()
    session = Session(arguments.likely)
    for preset in sorted({mutant.preset for mutant in mutants}):
        print(f"==> Building the unchanged tree: {preset}", flush=True)
        session.prepare(preset, {name for mutant in mutants if mutant.preset == preset for name, _ in mutant.likely})
    session.control(mutants)

    not_caught, start = [], time.monotonic()
    results = open(WORK / "results.txt", "w")
    for number, mutant in enumerate(mutants, 1):
        which = "likely" if arguments.likely else "native"
        caught, verdict = None, f"SURVIVES: no {which} test notices it"
        try:
            caught = session.try_mutant(mutant)
        except NoTest as ended:
            verdict = f"NOT NOTICED BY A TEST: {ended}"
        except Failure as failure:
            verdict = f"NOT TRIED: {failure}"
        if caught:
            verdict = f"caught by {caught}"
        used = time.monotonic() - start
        left = used / number * (len(mutants) - number)
        print(f"[{number}/{len(mutants)}] {mutant.name}: {verdict}; about {minutes(left)} left", flush=True)
        print(f"{mutant.name}\t{caught or verdict.partition(':')[0]}", file=results, flush=True)
        if caught is None:
            not_caught.append(mutant.name)
    caught_count = len(mutants) - len(not_caught)
    print(f"==> {caught_count} of {len(mutants)} mistakes caught in {minutes(time.monotonic() - start)}")
    if not_caught:
        print("==> not caught: " + " ".join(not_caught))
    return 1 if not_caught else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"mutants: {failure}", file=sys.stderr)
        sys.exit(2)
