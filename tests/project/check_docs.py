#!/usr/bin/env python3
"""Checks the project's Markdown pages.

Relative links lead to a file and to one of its headings. Paths in backticks exist. C++ blocks compile
against the public headers; a block may be the body of a function, and one without #include lines sees
all public headers and <iostream>. docs/architecture.md has a row for every folder
of the top level and of qx_utils/, and the row names what the folder's files include.

usage: check_docs.py [DOXYFILE [LIBRARY CLIPS]]
  DOXYFILE        also builds the reference site, which must give no warning, and looks at its pages
  LIBRARY, CLIPS  also runs the README's first C++ block, with clips instead of its camera
"""
import concurrent.futures
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADERS = sorted((ROOT / "include/qxtools").glob("*.h"))
PRELUDE = "".join(f"#include <qxtools/{header.name}>\n" for header in HEADERS) + "#include <iostream>\n"
COMPILE = ["g++", "-std=c++17", f"-I{ROOT}/include", "-x", "c++", "-"]


def folders(parent="."):
    """The folders below `parent`, without hidden ones and build folders, as architecture.md writes them."""
    found = [path for path in (ROOT / parent).iterdir() if path.is_dir() and not path.name.startswith((".", "build", "__"))]
    return {path.relative_to(ROOT).as_posix() + "/" for path in found}


TOP = folders()
PAGES = sorted(page for found in [ROOT.glob("*.md"), *((ROOT / folder).rglob("*.md") for folder in TOP)] for page in found)


def headings(page):
    text = re.sub(r"^```.*?^```", "", page.read_text(), flags=re.M | re.S)
    return {re.sub(r"[^a-z0-9 _-]", "", heading.lower()).replace(" ", "-")
            for heading in re.findall(r"^#+ *(.*)", text, re.M)}


def dead_references(page):
    text = page.read_text()
    for link in re.findall(r"\]\(([^) ]+)\)", text):
        if not re.match(r"[a-z]+:", link):
            path, _, anchor = link.partition("#")
            target = page.parent / path if path else page
            if not target.exists():
                yield f"dead link {link}"
            elif anchor and anchor not in headings(target):
                yield f"no such heading: {link}"
    for path in re.findall(r"`(\.?[a-z][\w.-]*/[\w./-]*)`", text):
        # A path, or in the page on folders whatever looks like one: a folder that is gone as well.
        is_ours = path.split("/")[0] + "/" in TOP or page.name == "architecture.md" and path.endswith("/")
        if is_ours and not (ROOT / path).exists():
            yield f"`{path}` does not exist"


def broken_block(block):
    """What the compiler says of a C++ block, as a file and as the body of a function; None if it compiles."""
    includes = re.findall(r"^#include.*\n", block, re.M)
    head = "".join(includes) or PRELUDE
    body = re.sub(r"^#include.*\n", "", block, flags=re.M)
    for source in (head + body, f"{head}void Example() {{\n{body}}}\n"):
        result = subprocess.run([*COMPILE, "-fsyntax-only"], input=source, text=True, capture_output=True)
        if result.returncode == 0:
            return None
    return f"a block does not compile:\n{block}{result.stderr}"


def architecture_faults():
    """Folders that docs/architecture.md leaves out, and includes that the row of a folder does not name."""
    text = (ROOT / "docs/architecture.md").read_text()
    rows = {}  # folder or file -> the words of the cell that says what it includes
    for names, included in re.findall(r"^\| (`[^|]*/[^|]*) \|[^|]*\|([^|]*)\|$", text, re.M):
        rows.update({name: re.findall(r"[^`,; ]+", included) for name in re.findall(r"`([^`]+)`", names)})
    for folder in sorted(TOP | folders("qx_utils")):
        if not any(row.startswith(folder) for row in rows):
            yield f"{folder} has no row"

    def row_of(path):
        return max((row for row in rows if path.startswith(row)), key=len, default=None)

    unnamed = {}
    for path in (path for folder in TOP for path in (ROOT / folder).rglob("*") if path.suffix in (".h", ".cc")):
        name = path.relative_to(ROOT).as_posix()
        row = row_of(name)
        words = rows.get(row, ["everything"])
        for header in re.findall(r'^#include [<"]([^>"]+)', path.read_text(), re.M):
            other = "FFmpeg" if header.startswith(("libav", "libsw")) else row_of(header)
            target = other if other == "FFmpeg" else header
            named = "everything" in words or any(target.startswith(word) for word in words)
            if not named and other not in (None, row):
                unnamed[row, other] = f"{name} includes {header}"
    yield from (f"the row of {row} does not name {other}: {example}" for (row, other), example in unnamed.items())


def site_faults(doxyfile):
    if subprocess.run(["doxygen", doxyfile]).returncode != 0:
        yield "the reference site has the warnings above"
    output = re.search(r"^OUTPUT_DIRECTORY *= *(.*)", pathlib.Path(doxyfile).read_text(), re.M)[1]
    html = pathlib.Path(output) / "html"
    for page in html.glob("*.html"):
        for picture in re.findall(r'<img src="([^":]+)"', page.read_text()):
            if not (html / picture).exists():
                yield f"{page.name}: no picture {picture}"
    for header in HEADERS:  # Its first comment was once on the page of a namespace.
        words = re.match(r"// ([A-Za-z0-9 ]+)", header.read_text())[1]
        page = html / (header.stem.replace("_", "__") + "_8h.html")
        if words not in page.read_text():
            yield f"{page.name}: not '{words}...'"


def first_block_faults(block, library, clips):
    source = PRELUDE + "void First(const char* input) {\n" + re.sub(r'"rtsp:[^"]*"', "input", block)
    source += "}\nint main(int, char** argv) { First(argv[1]); }\n"
    with tempfile.TemporaryDirectory() as work:
        link = ["-x", "none", library, f"-Wl,-rpath,{pathlib.Path(library).parent}", "-o", f"{work}/first"]
        subprocess.run([*COMPILE, *link], input=source, text=True, check=True)
        for clip in "left.mp4", "left.mkv", "left.ts", "left.h264", "hevc.mp4", "hevc.h265":
            size = subprocess.run([f"{work}/first", f"{clips}/{clip}"], capture_output=True, text=True).stdout
            if size != "320 x 240\n":  # It was once 0 x 0 for containers.
                yield f"the first block of README.md prints '{size}' for {clip}"


def main(arguments):
    blocks = {page: re.findall(r"^```cpp\n(.*?)^```$", page.read_text(), re.M | re.S) for page in PAGES}
    pages_and_blocks = [(page, block) for page in PAGES for block in blocks[page]]
    faults = [f"{page.relative_to(ROOT)}: {fault}" for page in PAGES for fault in dead_references(page)]
    faults += [f"docs/architecture.md: {fault}" for fault in architecture_faults()]
    with concurrent.futures.ThreadPoolExecutor() as pool:
        results = pool.map(broken_block, [block for _, block in pages_and_blocks])
        faults += [f"{page.relative_to(ROOT)}: {fault}" for (page, _), fault in zip(pages_and_blocks, results) if fault]
    if arguments:
        faults += site_faults(arguments[0])
    if arguments[1:]:
        faults += first_block_faults(blocks[ROOT / "README.md"][0], *arguments[1:])
    if not pages_and_blocks:
        faults.append("no C++ blocks found")
    print(*faults, f"docs: {len(PAGES)} pages, {len(pages_and_blocks)} C++ blocks, {len(faults)} faults", sep="\n")
    return bool(faults)


sys.exit(main(sys.argv[1:]))
