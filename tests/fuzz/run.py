#!/usr/bin/env python3
"""Runs the fuzzing targets and counts executions. Called by ./dev fuzz, which builds them."""

import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parent.parent.parent
HERE = PROJECT / "tests" / "fuzz"
WORK = PROJECT / "build" / "fuzz"
PROGRAMS = WORK / "tests"


def known_targets():
    return sorted(path.name[len("fuzz_"):] for path in PROGRAMS.glob("fuzz_*") if os.access(path, os.X_OK))


class Run:
    """One target's process; what it learns stays in build/fuzz/corpus for the next run. With a seed it knows nothing of earlier
    ones, and goes the same way every time, as far as it is limited by executions."""

    def __init__(self, target, limit, seed):
        self.target = target
        self.corpus = WORK / "corpus" / target
        self.broken = WORK / "broken" / target
        self.log = WORK / "log" / f"{target}.log"
        if seed:
            shutil.rmtree(self.corpus, ignore_errors=True)
        for folder in (self.corpus, self.broken, self.log.parent):
            folder.mkdir(parents=True, exist_ok=True)
        for left in self.broken.iterdir():
            left.unlink()
        folders = [self.corpus, HERE / "seeds" / target]
        if (HERE / "found" / target).exists():
            folders.append(HERE / "found" / target)
        command = [PROGRAMS / f"fuzz_{target}", limit, "-close_fd_mask=1", "-print_final_stats=1", "-timeout=60",
                   "-rss_limit_mb=4096", "-max_len=8000", f"-seed={seed}", f"-artifact_prefix={self.broken}/", *folders]
        self.output = open(self.log, "w")
        # Where each piece of memory came from takes a quarter of the time; a replay says it.
        sanitizer = {"ASAN_OPTIONS": "malloc_context_size=3"}
        self.process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL,
                                        stdout=self.output, stderr=subprocess.STDOUT, env=sanitizer | os.environ)

    def executions(self):
        text = self.log.read_text(errors="replace")
        final = re.findall(r"number_of_executed_units: (\d+)", text)
        shown = re.findall(r"^#(\d+)\t", text, re.MULTILINE)
        return int((final or shown or ["0"])[-1])

    def finish(self):
        """True when nothing was found."""
        self.output.close()
        if self.process.returncode == 0:
            return True
        text = self.log.read_text(errors="replace")
        reason = re.findall(r"^.*(?:does not hold|runtime error|ERROR:).*$", text, re.MULTILINE)
        print(f"==> {self.target} found something: {reason[0] if reason else 'see the log'}; {self.log}")
        for case in sorted(self.broken.iterdir()):
            kept = HERE / "found" / self.target / case.name
            kept.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(case, kept)
            print(f"    kept for ./dev test: {kept.relative_to(PROJECT)}")
            print(f"    once more: build/fuzz/tests/fuzz_{self.target} {kept.relative_to(PROJECT)}")
        return False


def main():
    parser = argparse.ArgumentParser(prog="./dev fuzz", description=__doc__)
    parser.add_argument("targets", nargs="*", metavar="TARGET", help="without any: all")
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--minutes", type=float, help="for all targets together; 10 when nothing is said")
    group.add_argument("--runs", type=int, help="executions of each target")
    parser.add_argument("--seed", type=int, default=0, help="from nothing but the kept inputs, the same way every time")
    arguments = parser.parse_args()
    targets = arguments.targets or known_targets()
    for target in targets:
        if target not in known_targets():
            parser.error(f"no target {target}; there are: {' '.join(known_targets())}")

    workers = min(os.cpu_count() or 1, len(targets))
    seconds = 60 * (arguments.minutes or 10)
    each = max(1, int(seconds * workers / len(targets)))
    limit = f"-runs={arguments.runs}" if arguments.runs else f"-max_total_time={each}"

    waiting, running, counts, good = list(targets), [], {}, True
    start = shown = time.monotonic()
    while waiting or running:
        while waiting and len(running) < workers:
            running.append(Run(waiting.pop(0), limit, arguments.seed))
        time.sleep(0.5)
        for run in [run for run in running if run.process.poll() is not None]:
            running.remove(run)
            good = run.finish() and good
            counts[run.target] = run.executions()
            print(f"{run.target}: {counts[run.target]:,} executions", flush=True)
        now = time.monotonic()
        if running and now - shown > 15:
            shown = now
            done = sum(counts.values()) + sum(run.executions() for run in running)
            if arguments.runs:
                all_runs = arguments.runs * len(targets)
                left = (now - start) * (all_runs - done) / max(done, 1)
            else:
                left = seconds - (now - start)
            print(f"{done:,} executions; running {' '.join(run.target for run in running)}; "
                  f"about {max(left, 0) / 60:.1f} min left", flush=True)
    print(f"==> {sum(counts.values()):,} executions over {len(targets)} targets in "
          f"{(time.monotonic() - start) / 60:.1f} min" + ("; nothing found" if good else ""))
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
