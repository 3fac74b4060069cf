"""Makes the reference of a C header from the header's own comments, as Markdown.

A header is a row of items: a section's line (/* ---- Name ---- */), a comment with the declarations right below it, a
comment that stands alone. What cannot be told apart is an error, so that nothing drops out of the reference unnoticed.
"""
import re

SECTION = re.compile(r"/\* *[-=]{4} (.+?) [-=]{4,} *\*/")
ROW = re.compile(r"^( {1,4})(\S(?:.{0,38}?\S)?)(?: {2,})(\S.*)$")


class Item:
    """A comment and what it is about: declarations as they stand in the header, or none."""

    def __init__(self, comment, code):
        self.comment, self.code = comment, code

    def functions(self):
        return re.findall(r"^\w+_API [^;]*?WINAPI\s+(\w+)\s*\(", self.code, re.M)

    def is_constant(self):
        return self.code.startswith("#define") and "\n" not in self.code and bool(self.comment) and \
            "\n\n" not in self.comment


def comment_text(raw):
    """The lines of a comment without its marks."""
    body = raw.strip()[2:-2]
    lines = body.split("\n")
    if any(re.match(r" \*( |$)", line) for line in lines[1:]):
        lines = [re.sub(r"^ \* ?", "", line) for line in lines]
    else:
        lines = [lines[0].strip()] + [re.sub(r"^ {0,3}", "", line) for line in lines[1:]]
    return "\n".join(line.rstrip() for line in lines).strip("\n")


def statements(code):
    """The declarations of some lines of code, each with whether it is a function."""
    found, current, depth = [], "", 0
    for line in code.split("\n"):
        if current.startswith("#define"):
            current += " " + line.strip() # a comment that goes on
            if "*/" in line:
                found.append(current)
                current = ""
            continue
        if line.startswith("#define") and not current:
            if "/*" in line and "*/" not in line:
                current = line.rstrip()
            else:
                found.append(line.rstrip())
            continue
        if not line.strip() and not current:
            continue
        current += line.rstrip() + "\n"
        depth += line.count("{") - line.count("}")
        if depth == 0 and re.sub(r"/\*.*?\*/", "", line).rstrip().endswith(";"):
            found.append(current.rstrip("\n"))
            current = ""
    if current.strip():
        raise ValueError(f"a declaration without an end: {current.strip()[:80]}")
    return found


def parse(text):
    """The header's introduction, and its sections: (title, items)."""
    guard = re.search(r"^#ifndef (\w+)\n#define \1\n", text, re.M)
    opening = text[:guard.start()].strip()
    body = text[guard.end():text.rindex("#endif")]
    # What a C compiler, or a C++ compiler, needs and a reader does not.
    body = re.sub(r"^#include .*\n", "", body, flags=re.M)
    body = re.sub(r"^#if defined\(\w+_BUILD\)\n(?:#.*\n)+?#endif\n", "", body, flags=re.M)
    body = re.sub(r"^#ifdef __cplusplus\nextern \"C\" \{\n#endif\n", "", body, flags=re.M)
    body = re.sub(r"^#ifdef __cplusplus\n(\} /\*.*?\*/\n)(#endif\n)?", "", body, flags=re.M)
    body = re.sub(r"^#if defined.*\nextern \"C\" \{\n", "", body, flags=re.M)
    body = re.sub(r"^(extern \"C\" \{|\} /\* extern \"C\" \*/|#endif(?: /\*.*\*/)?)\n", "", body, flags=re.M)

    sections = [("", [])]
    pieces = re.split(r"(^/\*.*?\*/[ \t]*\n)", body, flags=re.M | re.S)
    comment = ""
    for piece in pieces:
        if not piece.strip():
            if comment and piece.count("\n") >= 1:
                sections[-1][1].append(Item(comment, "")) # stands alone
                comment = ""
            continue
        if piece.startswith("/*"):
            if comment:
                sections[-1][1].append(Item(comment, ""))
                comment = ""
            title = SECTION.match(piece)
            if title:
                sections.append((title.group(1).strip(), []))
            else:
                comment = comment_text(piece)
            continue
        if comment and piece.startswith("\n"):
            sections[-1][1].append(Item(comment, ""))
            comment = ""
        # The comment is about what stands right below it, up to an empty line; a function further down has none.
        for number, paragraph in enumerate(re.split(r"\n{2,}", piece.strip("\n"))):
            code = "\n".join(statements(paragraph))
            if code:
                sections[-1][1].append(Item(comment if number == 0 else "", code))
        comment = ""
    if comment:
        sections[-1][1].append(Item(comment, ""))
    return comment_text(opening), [section for section in sections if section[1]]


def escape(text):
    return re.sub(r"([\\*_<>\[\]`{}#|])", r"\\\1", text)


def markdown(text, links):
    """A comment's text: paragraphs, tables of names with their meanings, lists, code."""

    def inline(line):
        line = escape(line)
        return re.sub(r"\b(\w+)\b", lambda m: f"[{m.group(1)}]({links[m.group(1)]})" if m.group(1) in links else
                      m.group(1), line.replace("\\_", "_")).replace(" `", " \\`")

    out, lines, i = [], text.split("\n"), 0
    while i < len(lines):
        line = lines[i]
        if not line.strip():
            out.append("")
            i += 1
        elif re.match(r" {4}\S", line) and (not out or not out[-1].strip()):
            i, code = take_code(lines, i)
            out += ["```c", *code, "```"]
        elif re.match(r" *- ", line):
            indent = len(line) - len(line.lstrip())
            words = [line.strip()[2:]]
            i += 1
            while i < len(lines) and lines[i].strip() and len(lines[i]) - len(lines[i].lstrip()) > indent:
                words.append(lines[i].strip())
                i += 1
            if out and out[-1] and not out[-1].startswith("- "):
                out.append("")
            out.append("- " + inline(" ".join(words)))
        elif ROW.match(line):
            i, rows = take_rows(lines, i)
            out += ["", "| | |", "|---|---|", *(f"| `{name}` | {inline(meaning)} |" for name, meaning in rows), ""]
        else:
            words = inline(line.strip())
            if re.match(r"Results\b", words):
                words = re.sub(r"^Results:?", "**Results:**", words)
                out.append("")
            if words == "Conventions":
                words = "## Conventions\n"
            out.append(words)
            i += 1
    return "\n".join(out)


def take_code(lines, i):
    code = []
    while i < len(lines) and (not lines[i].strip() or lines[i].startswith("    ")):
        code.append(lines[i][4:])
        i += 1
    while code and not code[-1].strip():
        code.pop()
    return i, code


def take_rows(lines, i):
    rows, indent = [], len(ROW.match(lines[i]).group(1))
    while i < len(lines):
        row = ROW.match(lines[i])
        depth = len(lines[i]) - len(lines[i].lstrip())
        if row and depth == indent:
            rows.append([row.group(2), row.group(3)])
        elif rows and depth == indent and ": " in lines[i]:
            rows.append(lines[i].strip().split(": ", 1)) # a name as long as that has a colon
        elif rows and lines[i].strip() and depth > indent:
            rows[-1][1] += " " + lines[i].strip()
        else:
            break
        i += 1
    return i, rows


def prototype(code):
    """A declaration without the words that are for compilers only."""
    code = re.sub(r"\b\w+_API ", "", code)
    code = re.sub(r"\bWINAPI (?!\*)", "", code)
    first, *rest = code.split("\n")
    if rest and "(" in first and "{" not in first:
        code = re.sub(r"\s*\n\s+", " ", code)
        if len(code) > 100:
            # One parameter a line.
            head, parameters = code.split("(", 1)
            code = head + "(\n    " + ",\n    ".join(p.strip() for p in parameters.split(",")).rstrip()
    return code


def reference(header, path, expected=None, titles=()):
    """The Markdown of a header's reference.

    expected: the functions that must be in it, and no others. titles: (beginning, title) of comments that stand alone and
    begin a section.
    """
    opening, sections = parse(header)
    functions = [name for _, items in sections for item in items for name in item.functions()]
    declared = re.findall(r"^\w+_API [^;]*?WINAPI\s+(\w+)\s*\(", header, re.M)
    if sorted(functions) != sorted(declared):
        raise ValueError(f"{path}: not all functions were understood: {sorted(set(declared) ^ set(functions))}")
    if expected is not None and sorted(functions) != sorted(expected):
        raise ValueError(f"{path}: exported and not in the header, or the other way round: "
                         f"{sorted(set(expected) ^ set(functions))}")
    links = {name: "#" + "-".join(item.functions()).lower() for _, items in sections for item in items
             for name in item.functions()}
    out = [markdown(opening.split("\n", 1)[1].strip("\n"), links), ""]
    for title, items in sections:
        if not title and any(item.code for item in items):
            title = "Functions" if any(item.functions() for item in items) else "Constants"
        if title:
            out += ["", f"## {title}", ""]
        for number, item in enumerate(items):
            own = item.functions()
            if item.is_constant():
                if number == 0 or not items[number - 1].is_constant():
                    out += ["", "| name | value | |", "|---|---|---|"]
                words = item.code.split(None, 2)
                meaning = " ".join(markdown(item.comment, links).split())
                out += [f"| `{words[1]}` | `{words[2]}` | {meaning} |"]
            elif own:
                out += ["", f"### {', '.join(own)}", "", "```c", *map(prototype, statements(item.code)), "```", ""]
                out += [markdown(item.comment, {k: v for k, v in links.items() if k not in own}) if item.comment else ""]
            elif item.code:
                out += ["", markdown(item.comment, links), "", "```c", item.code, "```", ""]
            else:
                out += [f"\n## {title}" for beginning, title in titles if item.comment.startswith(beginning)]
                out += ["", markdown(item.comment, links), ""]
    return "\n".join(out) + "\n"
