#!/usr/bin/env python3
"""Compares the binary interface with the committed one in tests/project/abi/.

symbols.txt has the names that the shared library exports; layout.txt has the slots and members of the
classes that the public headers declare, as Clang lays them out.

usage: check_abi.py LIBRARY [--update]      --update: write the lists anew; see docs/abi.md
"""
import difflib
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
LISTS = ROOT / "tests/project/abi"
CLANG = "clang++-" + re.search(r"^llvm=(\d+)", (ROOT / "scripts/common.sh").read_text(), re.M)[1]
# Inside the standard library's own classes nothing is our interface.
FOREIGN_MEMBER = re.compile(r"Dumping AST|_M_|_Alloc_hider|std::(allocator|__new_allocator)|anonymous at|__shared_ptr")


def output_of(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def exported_symbols(library):
    # "A" marks the name of the version itself.
    names = re.findall(r"^\S+ [^A] ([^@\n]+)", output_of("nm", "-D", "--defined-only", library), re.M)
    symbols = sorted(output_of("c++filt", input="\n".join(names)).splitlines())
    foreign = [name for name in symbols if not re.match("((vtable|typeinfo|typeinfo name) for )?(qx|velkar)::", name)]
    if len(symbols) < 10 or foreign:
        sys.exit(f"{library} exports {len(symbols)} symbols; foreign ones: {foreign}")
    return symbols


def public_classes(header):
    """The names of the classes that a header declares at namespace level; templates for float."""
    namespace = ""
    for template, keyword, name in re.findall(
            r"^(template <[^>]*>\n)?(namespace|class|struct) (?:QXTOOLS_EXPORT )?([\w:]+)(?: : .*)? \{$", header, re.M):
        if keyword == "namespace":
            namespace = name
        else:
            yield f"{namespace}::{name}" + ("<float>" if template else "")


def layouts():
    headers = sorted((ROOT / "include/qxtools").glob("*.h"))
    classes = [name for header in headers for name in public_classes(header.read_text())]
    # Deleting an object makes the compiler work out its layout and slots.
    source = "".join(f"#include <qxtools/{header.name}>\n" for header in headers)
    source += "".join(f"void Delete{i}({name}* object) {{ delete object; }}\n" for i, name in enumerate(classes))
    dump = output_of(CLANG, "-std=c++17", f"-I{ROOT}/include", "-c", "-o", "/dev/null", "-Xclang", "-fdump-record-layouts",
                     "-Xclang", "-fdump-vtable-layouts", "-x", "c++", "-", input=source)
    ours = re.compile(r"\*\*\* Dumping AST Record Layout\n *0 \| (class|struct) (qx|velkar)::|VTable indices for .(qx|velkar)::")
    blocks = ["\n".join(line for line in block.strip("\n").split("\n") if not FOREIGN_MEMBER.search(line))
              for block in filter(ours.match, re.split("\n\n+", dump))]
    missing = [name for name in classes if not any(re.search(rf"\b{re.escape(name)}(?!\w)", block) for block in blocks)]
    if not classes or missing:
        sys.exit(f"no layout found for {missing or 'any class'}")
    return sorted(blocks)


def main(library, update=None):
    changed = False
    for name, separator, entries in (("symbols", "\n", exported_symbols(library)), ("layout", "\n\n", layouts())):
        path = LISTS / f"{name}.txt"
        if update == "--update":
            path.write_text(separator.join(entries) + "\n")
        committed = sorted(path.read_text().strip("\n").split(separator))
        texts = ["\n".join(text).split("\n") for text in (committed, entries)]
        difference = list(difflib.unified_diff(*texts, f"committed {name}", "this build", lineterm=""))
        print(*difference, f"{name}: {len(entries)} entries", sep="\n")
        changed |= bool(difference)
    if changed:
        sys.exit("the binary interface changed; docs/abi.md says what that means")


main(*sys.argv[1:])
