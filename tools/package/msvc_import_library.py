"""Makes NAME.lib, an import library for MSVC's linker, beside the build for each DLL given: of the names that it exports.

    msvc_import_library.py OBJDUMP LLVM-DLLTOOL DLL...
"""
import pathlib
import re
import subprocess
import sys


def exported_names(objdump, dll):
    text = subprocess.run([objdump, "-p", dll], check=True, capture_output=True, text=True).stdout
    table = text.split("[Ordinal/Name Pointer] Table", 1)[1].split("\n\n", 1)[0]
    return re.findall(r"^\s*\[\s*\d+\]\s+(?:\+base\[\s*\d+\]\s+[0-9a-f]+\s+)?(\S+)\s*$", table, re.MULTILINE)


def main():
    objdump, dlltool, *dlls = sys.argv[1:]
    for dll in map(pathlib.Path, dlls):
        names = exported_names(objdump, dll)
        if not names:
            sys.exit(f"{dll.name} exports nothing")
        definition = pathlib.Path(dll.stem + ".msvc.def")
        definition.write_text(f"LIBRARY {dll.name}\nEXPORTS\n" + "".join(f"    {name}\n" for name in sorted(names)))
        subprocess.run([dlltool, "-m", "i386:x86-64", "-d", definition, "-l", dll.stem + ".lib"], check=True)


main()
