"""Measures whole operations, keeps the results and makes tables and pictures of them.

    run.py [--quick] [--under-load] [--out FOLDER] PROJECT [PART...]

Each part is measured by a program of its own run; what is not measured now stays as it was in results/whole.json.
"""
import json
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
import common
import whole_pages

PROGRAMS = {"bits": "whole_parts_bench", "log": "whole_log_bench", "load": "whole_load_bench"}
PARTS = ("load", "fetch", "registration", "lists", "handles", "log", "bits")


def temporary_folder(options):
    """Where the simulated machines have their files."""
    wine = options.project / "cmake" / "wine.sh"
    named = common.output_of(wine, "cmd", "/c", "echo %TEMP%")
    return common.output_of(wine, "winepath", "-u", named)


def measure(options, part, behind_another):
    programs = options.project / "build" / "release"
    file = programs / f"whole-{part}.json"
    quick = ["--quick"] if options.quick else []
    if part in PROGRAMS:
        command = [f"./{PROGRAMS[part]}.exe", *quick, file.name]
    else:
        command = ["./whole_bench.exe", *quick, file.name, part]
    files = temporary_folder(options)
    common.require_idle(options.under_load, behind_another)
    machine = common.machine(options.project, "x86_64-w64-mingw32-g++-posix", files)
    machine["wine"] = common.output_of("wine", "--version")
    before = common.load(options.quick)
    file.unlink(missing_ok=True)
    subprocess.run([options.project / "cmake" / "wine.sh", *command], cwd=programs, check=True, stdin=subprocess.DEVNULL)
    result = json.loads(file.read_text())
    file.unlink()
    return result, common.conditions_of(options, machine, before)


def write(result, path):
    """Numbers of one list in one line."""
    def text(value, indent):
        if isinstance(value, dict) and value:
            inner = ",\n".join(f"{indent} {json.dumps(key)}: {text(item, indent + ' ')}" for key, item in value.items())
            return "{\n" + inner + "\n" + indent + "}"
        if isinstance(value, list) and any(isinstance(item, (dict, list)) for item in value):
            return "[\n" + ",\n".join(f"{indent} {text(item, indent + ' ')}" for item in value) + "\n" + indent + "]"
        return json.dumps(value)
    path.write_text(text(result, "") + "\n")


def main():
    options = common.arguments("whole", "PART", PARTS)
    kept = options.results / "whole.json"
    result = json.loads(kept.read_text()) if kept.exists() else {}
    if result.get("format") != common.FORMATS["whole"]:
        result = {"format": common.FORMATS["whole"]}
    for number, part in enumerate(options.rest or PARTS):
        measured, conditions = measure(options, part, number > 0)
        result.update(measured)
        result["conditions"] = {**result.get("conditions", {}), part: conditions}
        write(result, kept)
        whole_pages.make(json.loads(kept.read_text()), options.pages) # at any time they are of these results


main()
