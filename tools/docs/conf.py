"""How Sphinx makes the documentation site of docs/: ./dev docs.

The pages are Markdown that reads well as it is. What a page asks for in a comment is put in its place here; beside each
such comment stands a link to it, for who reads the page as it is:

    <!-- reference: ../include/vtfltmgr/VTFltMgr.h -->    the reference of a header, from its comments
    <!-- page: ../CHANGELOG.md -->                         another Markdown file, without its title
    <!-- source: ../samples/backup_loop.c c -->            a file as a block of code, in a language
    <!-- excerpt: ../samples/testing/find_bugs.cpp flush -->  of a C++ file, the lines between "// [flush]" and "// [end]"

Pictures (SVG) stand in the page itself, so that they take its colours.
"""
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import header_reference  # noqa: E402

root = pathlib.Path(__file__).resolve().parents[2]

project = "VTFltMgr"
author = "the VTFltMgr developers"
release = re.search(r'^#define VTFLTMGR_VERSION "(.*)"$', (root / "include/vtfltmgr/version.h").read_text(), re.M)[1]
extensions = ["myst_parser"]
exclude_patterns = []
html_theme = "furo"
html_title = f"VTFltMgr {release}"
html_static_path = ["static"]
html_css_files = ["site.css"]
html_copy_source = False
html_show_sphinx = False
html_show_copyright = False
html_use_index = False
# The search shows titles. Excerpts would have to be fetched, which a page that is opened as a file may not do.
html_show_search_summary = False
myst_heading_anchors = 4
smartquotes = False # they would take backslashes for escapes
pygments_style = "friendly"
highlight_language = "none"

# Which functions the library exports: its definition file says so.
exports = re.findall(r"^\s+(VT\w+)", (root / "src/api/VTFltMgr.def").read_text(), re.M)
# Files that pages link to and that have a page of their own.
PAGES = {
    "include/vtfltmgr/VTFltMgr.h": "api.md",
    "sim/include/vtfltsim/VTFltSim.h": "simulator-api.md",
    "README.md": "index.md",
    "CHANGELOG.md": "changelog.md",
    "CONTRIBUTING.md": "contributing.md",
    "SECURITY.md": "security.md",
    "samples": "samples.md",
}


def reference(name):
    own = name == "include/vtfltmgr/VTFltMgr.h"
    return header_reference.reference((root / name).read_text(), name, exports if own else None,
                                      [("The two exports below", "Exports that carry C++ types")])


def page(name):
    return (root / name).read_text().split("\n", 1)[1]


def excerpt(name, label):
    found = re.search(rf"^// \[{label}\] (.*?)^// \[end\]$", (root / name).read_text(), re.M | re.S)
    if found is None:
        raise ValueError(f"{name} has no lines between [{label}] and [end]")
    return f"`````cpp\n// {found[1]}`````"


def picture(folder, text, name):
    """An SVG in the page itself; a browser would give a file of its own no colours of the page."""
    drawing = (folder / name).read_text()
    if "currentColor" not in drawing:
        return f"![{text}]({name})"
    drawing = drawing[drawing.index("<svg"):]
    lines = [line for line in drawing.split("\n") if line.strip()]
    return "\n".join(['<figure class="drawing">', *lines, "</figure>"])


def resolve(folder, target):
    """A link from a page in folder, to what the site has in that place."""
    target, _, anchor = target.partition("#")
    path = (folder / target).resolve()
    if not path.exists():
        raise ValueError(f"a link to {target}, which is not there")
    name = path.relative_to(root).as_posix()
    if name in PAGES:
        name = "docs/" + PAGES[name]
    elif not name.startswith("docs/"):
        return None # not a part of the site
    return name, "#" + anchor if anchor else ""


def convert(text, source, folder):
    """The Markdown of a page as Sphinx reads it. source: the folder whose links it has; folder: the page's own."""
    text = re.sub(r"<!-- reference: (?:\.\./)+(\S+) -->", lambda m: reference(m[1]), text)
    text = re.sub(r"<!-- page: (?:\.\./)+(\S+) -->", lambda m: convert(page(m[1]), (root / m[1]).parent, folder), text)
    text = re.sub(r"<!-- source: (?:\.\./)+(\S+) (\S+) -->",
                  lambda m: f"`````{m[2]}\n{(root / m[1]).read_text()}`````", text)

    text = re.sub(r"<!-- excerpt: (?:\.\./)+(\S+) (.+?) -->", lambda m: excerpt(m[1], m[2]), text)

    def link(match):
        words, target = match[1], match[2]
        if re.match(r"https?:|mailto:|#", target):
            return match[0]
        found = resolve(source, target)
        if found is None:
            return words # its name, without a link: the file is not a part of the site
        up = "../" * len(folder.relative_to(root / "docs").parts)
        return f"[{words}]({up}{found[0].removeprefix('docs/')}{found[1]})"

    pieces = re.split(r"(^(`{3,}).*?^\2 *$)", text, flags=re.M | re.S)
    out = []
    for number, piece in enumerate(pieces):
        if number % 3 == 0: # not in a block of code
            piece = re.sub(r"^!\[([^\]]*)\]\((\S+\.svg)\)$", lambda m: picture(folder, m[1], m[2]), piece, flags=re.M)
            out.append(re.sub(r"(?<!!)\[((?:[^\[\]]|`[^`]*`)+)\]\(([^()\s]+)\)", link, piece))
        elif number % 3 == 1:
            piece = re.sub(r"^(`{3,})console$", r"\1doscon", piece, count=1, flags=re.M)
            out.append(re.sub(r"^(`{3,})usage$", r"\1text", piece, count=1, flags=re.M))
    return "".join(out)


def on_source(app, name, source):
    folder = (root / "docs" / name).parent
    source[0] = convert(source[0], folder, folder)


def setup(app):
    app.connect("source-read", on_source)
