"""Runs what the documentation shows: every block of commands and of code, in README.md and docs/.

    check_docs.py SOURCE BUILD WORK EMULATOR COMPILER [PAGE...]

Each fenced block names its language, and what is done with it:

    console    Windows commands behind "> ", run in order against the page's simulated machine; the other lines are what they
               print. "..." stands for any text in a line, alone for any lines. "> echo %ERRORLEVEL%" shows the last exit
               code; without it a command has to end with 0.
    sh         run by bash in a folder that looks like the source folder after ./dev build. A line with ./dev is not run:
               its command has to stand in ./dev help.
    usage      a command's syntax: the command and its options have to stand in its --help.
    c, cpp     compiled. <!-- within: FILE --> puts it into a file in place of its line @@; <!-- run --> runs it.
    bat        a batch file's commands; always with a reason why it is not run.
    json       has to parse.
    python     has to compile.
    text       is shown, and neither a command nor code: a layout, a format, a program's output.

Comments before a block: <!-- setup: ... --> commands that are run first and not shown (also alone; several lines; "delete
NAME" and "truncate NAME LENGTH" damage a file of the machine, "copy NAME TO" and "log TO" copy one, or the library's log, to
where the commands run);
<!-- not run: REASON --> for a block that cannot be run here. How many there are of these is printed.

Links have to lead somewhere. A page's machine is new. Drive letters C: and D: in a command are folders of the work folder; E: and further on are volumes.
Programs that take --simulate get the machine.
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

source, build, work = (pathlib.Path(argument).resolve() for argument in sys.argv[1:4])
emulator, compiler = sys.argv[4:6]
only = sys.argv[6:]

PROGRAMS = ("vtfltctl", "vtlog", "vtbackup", "vtfltsim", "find_bugs", "loop", "loop_early_report", "loop_ignored_verify",
            "loop_early_bitmap", "backup_loop", "backup_loop_cpp")
LANGUAGES = ("console", "sh", "bat", "usage", "c", "cpp", "json", "python", "text")
COMPILE = ["-Wall", "-Wextra", "-Wno-unused", "-DUNICODE", "-D_UNICODE", "-DNOMINMAX", "-DWIN32_LEAN_AND_MEAN",
           f"-I{source / 'include'}", f"-I{source / 'sim/include'}"]


class Wrong(Exception):
    """What is wrong with a block."""


def blocks_of(text):
    """The blocks of a page: (line, language, body, comments before it). A setup that stands alone is one without language."""
    lines, i, comments = text.split("\n"), 0, {}
    while i < len(lines):
        line = lines[i]
        fence = re.match(r"( *)(`{3,})(.*)$", line)
        if line.startswith("<!--"):
            begin = i
            while "-->" not in lines[i]:
                i += 1
            comment = "\n".join(lines[begin:i + 1])[4:].split("-->")[0].strip()
            key, _, value = comment.partition(":")
            if key == "setup":
                yield begin + 1, "setup", value.strip("\n"), {}
            else:
                comments[key.strip()] = value.strip()
        elif fence:
            begin, indent = i, len(fence[1])
            i += 1
            while not re.match(rf" *{fence[2]}\s*$", lines[i]):
                i += 1
            body = "\n".join(each[indent:] for each in lines[begin + 1:i])
            if not fence[3].startswith("{"): # the site generator's own
                yield begin + 1, fence[3].strip(), body, comments
            comments = {}
        elif re.match(r" {4}", line) and (i == 0 or not lines[i - 1].strip()) and not in_list(lines, i):
            raise Wrong(f"line {i + 1}: an indented block; write it between ``` and name its language")
        elif line.strip():
            comments = {}
        i += 1


def in_list(lines, i):
    while i >= 0 and (not lines[i].strip() or lines[i].startswith(" ")):
        i -= 1
    return i >= 0 and re.match(r"([-*]|\d+\.) ", lines[i]) is not None


def split(line):
    """A command line's arguments, as Windows programs take them apart."""
    arguments, current, quoted, seen = [], "", False, False
    for c in line:
        if c == '"':
            quoted, seen = not quoted, True
        elif c == " " and not quoted:
            if current or seen:
                arguments.append(current)
            current, seen = "", False
        else:
            current += c
    if current or seen:
        arguments.append(current)
    return arguments


class Page:
    def __init__(self, path):
        self.path = path
        self.name = path.relative_to(source).as_posix()
        self.folder = work / self.name.replace("/", "_").removesuffix(".md")
        self.machine = None
        self.code = 0
        self.printed = []
        self.skipped = []
        self.counts = {}

    # -- console

    def windows(self, path):
        return "Z:" + str(path).replace("/", "\\")

    def make_machine(self):
        self.machine = self.folder / "machine"
        (self.folder / "C/run").mkdir(parents=True, exist_ok=True)
        (self.folder / "D").mkdir(exist_ok=True)
        self.start("vtfltsim", ["create", self.windows(self.machine)])

    def start(self, program, arguments):
        done = subprocess.run([emulator, str(build / (program + ".exe")), *arguments], cwd=self.folder / "C",
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120,
                              env={**os.environ, "NO_COLOR": "1"}, check=False)
        return done.returncode, done.stdout.decode("utf-8", "replace").replace("\r", "")

    def translate(self, argument):
        argument = re.sub(r"^Logs\\(?=VTFltMgr)", lambda m: self.windows(build) + "\\Logs\\", argument)
        argument = re.sub(r"\b([CD]):\\", lambda m: self.windows(self.folder / m[1]) + "\\", argument)
        return argument.replace("%MACHINE%", self.windows(self.machine)).replace("%BUILD%", self.windows(build))

    def command(self, line):
        """Runs one command; gives what it printed."""
        if self.machine is None:
            self.make_machine()
        words = split(line)
        if words == ["echo", "%ERRORLEVEL%"]:
            return str(self.code) + "\n"
        if self.code != 0:
            raise Wrong(f"the command before '{line}' ended with {self.code}")
        if words[:1] == ["del"]:
            (self.folder / self.translate(words[1]).removeprefix(self.windows(self.folder) + "\\").replace("\\", "/")).unlink()
            return ""
        target = None
        if ">" in words:
            target = self.folder / "C" / words[words.index(">") + 1]
            words = words[:words.index(">")]
        program = words[0].removesuffix(".exe")
        if program not in PROGRAMS:
            raise Wrong(f"no program {program}")
        arguments = [self.translate(word) for word in words[1:]]
        simulates = program in ("vtbackup", "vtfltctl") or program == "vtlog" and "--why" in arguments
        if simulates and "--simulate" not in arguments and not {"--help", "completion", "man"} & set(arguments):
            arguments += ["--simulate", self.windows(self.machine)]
        self.code, text = self.start(program, arguments)
        for drive in "CD":
            text = text.replace(self.windows(self.folder / drive) + "\\", drive + ":\\")
        machine = re.escape(self.windows(self.machine))
        text = re.sub(rf" --simulate \"?{machine}\"?", "", text)
        if target is not None:
            target.write_text(text)
            return ""
        return text

    def console(self, body):
        command, expected = None, []
        for line in [*body.split("\n"), "> "]:
            if not line.startswith("> "):
                if command is None:
                    raise Wrong(f"what prints '{line}'? Commands begin with '> '")
                expected.append(line)
                continue
            if command is not None:
                printed = self.command(command)
                if self.code != 0 and line != "> echo %ERRORLEVEL%" and command != "echo %ERRORLEVEL%":
                    raise Wrong(f"'{command}' ended with {self.code}:\n{printed}")
                if command == "echo %ERRORLEVEL%":
                    self.code = 0
                if any(each.strip() for each in expected):
                    self.compare(command, expected, printed)
            command, expected = line[2:], []

    @staticmethod
    def compare(command, expected, printed):
        pattern = ""
        for line in "\n".join(expected).strip("\n").split("\n"):
            if line.strip() == "...":
                pattern += r"(?:.*\n)*?"
            else:
                pattern += r"[ \t]*".join(".*?".join(map(re.escape, word.split("...")))
                                          for word in re.split(r"[ \t]+", line.strip())) + r"[ \t]*\n"
        normal = "".join(line.strip() + "\n" for line in printed.strip("\n").split("\n"))
        if not re.fullmatch(pattern, normal):
            raise Wrong(f"'{command}' prints:\n{printed}\nand not:\n" + "\n".join(expected))

    def damage(self, words):
        """What cannot be done with a command: delete NAME, truncate NAME LENGTH, of a file somewhere in the machine."""
        found = list(self.folder.rglob(words[1]))
        if len(found) != 1:
            raise Wrong(f"setup: {len(found)} files {words[1]}")
        if words[0] == "delete":
            found[0].unlink()
        else:
            os.truncate(found[0], int(words[2]))

    def setup(self, body):
        for line in body.strip("\n").split("\n"):
            if line.split()[:1] in (["delete"], ["truncate"]):
                self.damage(line.split())
            elif line.split()[:1] == ["copy"]:
                shutil.copy(next(self.folder.rglob(line.split()[1])), self.folder / "C" / line.split()[2])
            elif line.split()[:1] == ["log"]:
                shutil.copy(build / "Logs/VTFltMgr.dll.Log", self.folder / "C" / line.split()[1])
            elif line.strip():
                printed = self.command(line.strip())
                self.code, code = 0, self.code
                if code not in (0, 1, 12) or code == 1 and "vtfltsim" in line:
                    raise Wrong(f"setup: '{line.strip()}' ended with {code}:\n{printed}")

    # -- sh

    def sh(self, body):
        help_text = (source / "dev").read_text().split("TEXT\n")[0]
        rest = []
        for line in body.split("\n"):
            found = re.match(r"\s*\./dev (\w+)(?: +(\w+))?", line)
            if found is None:
                rest.append(line)
            elif not re.search(rf"^  {found[1]}\b", help_text, re.M):
                raise Wrong(f"./dev help has no command {found[1]}")
        if not any(line.strip() and not line.lstrip().startswith("#") for line in rest):
            return
        look_alike = self.folder / "source"
        if not look_alike.exists():
            (look_alike / "build").mkdir(parents=True)
            for name in ("cmake", "tools", "docs", "samples", "include", "tests"):
                (look_alike / name).symlink_to(source / name)
            (look_alike / "build/release").symlink_to(build)
        prefix = os.environ.get("WINEPREFIX", str(source / "build/wine"))
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", "\n".join(rest)], cwd=look_alike, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300,
                              env={**os.environ, "WINEPREFIX": prefix, "HOME": str(self.folder), "NO_COLOR": "1"}, check=False)
        if done.returncode != 0:
            raise Wrong(f"bash ended with {done.returncode}:\n{done.stdout[-2000:]}")

    def usage(self, body):
        for entry in re.split(r"\n(?=\S)", body.strip("\n")):
            words = []
            for word in entry.split():
                if not re.fullmatch(r"[a-z][a-z-]*", word):
                    break
                words.append(word)
            code, text = self.start(words[0], [*words[1:], "--help"])
            if code != 0:
                raise Wrong(f"'{' '.join(words)} --help' ended with {code}")
            for option in re.findall(r"--[a-z][a-z-]*", entry):
                if option not in text:
                    raise Wrong(f"{' '.join(words)} has no option {option}")

    # -- code

    def compile(self, body, language, comments):
        if "within" in comments:
            frame = (source / comments["within"]).read_text()
            if "@@" not in frame:
                raise Wrong(f"{comments['within']} has no line @@")
            body = frame.replace("@@", body)
        file = self.folder / f"block{self.counts.get(language, 0)}.{language}"
        file.write_text(body + "\n")
        standard = "-std=c++20" if language == "cpp" else "-std=c11"
        command = [compiler if language == "cpp" else compiler.replace("g++", "gcc"), standard, *COMPILE]
        program = file.with_suffix(".exe")
        if "run" in comments:
            command += ["-o", str(program), str(file), "-static", str(build / "libVTFltMgr.dll.a"),
                        str(build / "libVTFltSim.dll.a")]
        else:
            command += ["-fsyntax-only", str(file)]
        done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        if done.returncode != 0:
            raise Wrong("does not compile:\n" + done.stdout[-3000:])
        if "run" in comments:
            for dll in ("VTFltMgr.dll", "VTFltSim.dll"):
                shutil.copy(build / dll, self.folder)
            done = subprocess.run([emulator, str(program)], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  check=False)
            if done.returncode != 0:
                raise Wrong(f"ends with {done.returncode}:\n{done.stdout[-2000:]}")

    def block(self, language, body, comments):
        if language == "setup":
            self.setup(body)
            return
        if language not in LANGUAGES:
            raise Wrong(f"a block of language '{language}', and this script knows {', '.join(LANGUAGES)}")
        if "not run" in comments:
            if len(comments["not run"]) < 10:
                raise Wrong("not run: why?")
            self.skipped.append(comments["not run"])
            return
        if language == "bat":
            raise Wrong("nobody runs batch files here")
        if language == "console":
            self.console(body)
        elif language == "sh":
            self.sh(body)
        elif language == "usage":
            self.usage(body)
        elif language in ("c", "cpp"):
            self.compile(body, language, comments)
        elif language == "json":
            json.loads(body)
        elif language == "python":
            compile(body, self.name, "exec")
        elif re.search(rf"^\s*(> |\$ )?(\./dev|{'|'.join(PROGRAMS[:4])}) ", body, re.M):
            raise Wrong("a command in a block of text")
        self.counts[language] = self.counts.get(language, 0) + 1

    def check(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        # What the pages show of the log is theirs, not that of tests that ran before.
        for log in (build / "Logs").glob("VTFltMgr.dll*"):
            log.unlink()
        for line, language, body, comments in blocks_of(self.path.read_text()):
            try:
                self.block(language, body, comments)
            except (Wrong, ValueError, SyntaxError, subprocess.TimeoutExpired) as wrong:
                raise Wrong(f"line {line}: {wrong}") from wrong
        if self.machine is not None:
            self.start("vtfltsim", ["destroy", self.windows(self.machine)])


def check_links(path):
    """What the site makes of a page's text: links to what is not there, and functions that a reference lacks, are errors."""
    sys.path.insert(0, str(source / "tools/docs"))
    import conf # pylint: disable=import-outside-toplevel
    try:
        text = path.read_text()
        if path.parent.name == "docs" or path.parent.parent.name == "docs":
            text = conf.convert(text, path.parent, path.parent)
        for target in re.findall(r"\]\(([^()\s#]+)(?:#[^()\s]*)?\)", re.sub(r"^(`{3,}).*?^\1", "", text, flags=re.M | re.S)):
            if not re.match("https?:|mailto:", target) and not (path.parent / target).exists():
                raise Wrong(f"a link to {target}, which is not there")
    except (ValueError, OSError) as wrong:
        raise Wrong(str(wrong)) from wrong


def main():
    pages = [source / "README.md", source / "CONTRIBUTING.md", source / "SECURITY.md", *sorted((source / "docs").rglob("*.md"))]
    counts, skipped, failed = {}, 0, 0
    for path in pages:
        page = Page(path)
        if only and page.name not in only:
            continue
        try:
            check_links(path)
            page.check()
        except Wrong as wrong:
            print(f"{page.name}: {wrong}\n")
            failed += 1
        for language, number in page.counts.items():
            counts[language] = counts.get(language, 0) + number
        for reason in page.skipped:
            print(f"not run: {page.name}: {reason}")
        skipped += len(page.skipped)
    print("check_docs: " + ", ".join(f"{number} {language}" for language, number in sorted(counts.items())) +
          f"; {skipped} not run; {failed} pages with mistakes")
    sys.exit(1 if failed else 0)


main()
