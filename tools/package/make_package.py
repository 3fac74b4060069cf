"""Makes vtfltmgr-VERSION-x64.zip of an installed tree: the same bytes for the same tree, whenever and wherever.

    make_package.py TREE OBJCOPY OUT.zip

Inside stands one folder of the ZIP file's name. SHA256SUMS lists every other file, as sha256sum -c reads it. Links of the
pages to what stands elsewhere than in the sources are bent; one that leads nowhere is an error.
"""
import hashlib
import os
import pathlib
import posixpath
import re
import subprocess
import sys
import zipfile

# The oldest time that a ZIP file can hold: a build's own time would make every package another one.
TIME = (1980, 1, 1, 0, 0, 0)

# Folders of the sources that stand elsewhere in the package.
MOVED = {"sim/include": "include", "tools/vtfltctl/schema": "share/vtfltmgr/schema"}


def bend_links(page, text, files):
    """The page's text with relative links that lead somewhere within the package."""
    folder = posixpath.dirname(page)

    def bend(match):
        target = posixpath.normpath(posixpath.join(folder, match[1]))
        for before, now in MOVED.items():
            if target == before or target.startswith(before + "/"):
                target = now + target[len(before):]
        if target not in files and not any(name.startswith(target + "/") for name in files):
            sys.exit(f"make_package: {page} has a link to {match[1]}, which is not in the package")
        return f"]({posixpath.relpath(target, folder or '.')}{match[2]})"

    return re.sub(r"\]\((?![a-z]+:|#)([^)#\s]+)([^)]*)\)", bend, text)


def entry(name):
    info = zipfile.ZipInfo(name, TIME)
    info.compress_type = zipfile.ZIP_DEFLATED
    info.create_system = 0
    info.external_attr = 0
    return info


def main():
    tree, objcopy, out = pathlib.Path(sys.argv[1]), sys.argv[2], pathlib.Path(sys.argv[3])
    # The link to the debug information, which is not in the package, carries a checksum of what names the build's folder.
    for binary in sorted([*tree.glob("bin/*.dll"), *tree.glob("bin/*.exe")]):
        subprocess.run([objcopy, "--remove-section", ".gnu_debuglink", binary], check=True,
                       env={**os.environ, "SOURCE_DATE_EPOCH": "315532800"})
    files = {path.relative_to(tree).as_posix(): path.read_bytes() for path in tree.rglob("*") if path.is_file()}
    for name in [name for name in files if name.endswith(".md")]:
        files[name] = bend_links(name, files[name].decode(), files).encode()
    sums = "".join(f"{hashlib.sha256(files[name]).hexdigest()}  {name}\n" for name in sorted(files))
    files["SHA256SUMS"] = sums.encode()
    with zipfile.ZipFile(out, "w", compresslevel=9) as archive:
        for name in sorted(files):
            archive.writestr(entry(f"{out.stem}/{name}"), files[name])
    print(hashlib.sha256(out.read_bytes()).hexdigest(), out.name)


main()
