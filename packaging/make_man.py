#!/usr/bin/env python3
"""Writes the man pages of the command and of each subcommand, from their help texts.

usage: make_man.py COMMAND OUT_DIR
"""
import gzip
import pathlib
import re
import subprocess
import sys

# Variable, the subcommands that read it, meaning.
ENVIRONMENT = (
    ("QXTOOLS_FORCE_ISA", "stereo rectify isa doctor", "Instruction set to use instead of the best one, by a name that qxtools isa lists."),
    ("OMP_NUM_THREADS", "stereo rectify", "Number of threads for matching and rectification; default: one per processor."),
    ("QXTOOLS_BOARD_GEOMETRY", "stereo board doctor",
     "Emulated board: height, width, channels and disparities of its kernel, for example 96x320x32x48."),
    ("QXTOOLS_BOARD_RUN_TIME_US", "stereo board", "Emulated board: minimum duration of a run, in microseconds."),
    ("QXTOOLS_BOARD_FAULTS", "stereo board", "Emulated board: faults to inject, for example xrt::bo::sync@2,unit.hang."),
    ("xclbin_path", "stereo board", "Container to load onto the device instead of the default one."),
    ("cu_name", "stereo board", "Compute unit to run instead of the default one."),
)


def escaped(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text.startswith((".", "'")) else text


def entry(term, meaning):
    return [".TP", f"\\fB{escaped(term)}\\fR", *([escaped(meaning)] if meaning else [])]


def option(line, next_line):
    """Column 31 begins the meaning, unless the names reach it and the meaning has the next line."""
    names, meaning = line, ""
    if re.match(" [^ ]", line[29:31]) and (line[28] == " " or next_line[:30].strip()):
        names, meaning = line[:30], line[30:]
    term, _, rest = names.strip().partition(" ")
    lines = entry(term, meaning)
    lines[1] += escaped(" " + rest) if rest else ""
    return lines


def block_lines(block):
    """A list of options or arguments becomes a section; other text a paragraph, as it is if a line is indented."""
    title = block[0]
    if title.startswith("Examples:"):
        return [".SH EXAMPLES", ".nf", *map(escaped, block[1:]), ".fi"]
    if re.fullmatch("[A-Z][a-z]+:", title):
        lines = [".SH ARGUMENTS" if title == "Positionals:" else ".SH " + title[:-1].upper()]
        for line, next_line in zip(block[1:], [*block[2:], "none"]):
            lines += option(line, next_line) if re.match("  [^ ]", line) else [escaped(line.lstrip())]
        return [*lines, ".SH NOTES"]
    if title.startswith("Exit status:"):
        return []
    text = [escaped(line) for line in block]
    return [".PP", ".nf", *text, ".fi"] if any(line.startswith("  ") for line in block) else [".PP", *text]


def page(name, summary, version, help_text, environment, see_also):
    usage, rest = re.search(r"^Usage: (.*)\n((?s:.*))", help_text, re.M).groups()
    lines = [f'.TH {escaped(name).upper()} 1 "" "{version}" "User Commands"',
             ".SH NAME", f"{escaped(name)} \\- {escaped(summary)}", ".SH SYNOPSIS", escaped(usage),
             ".SH DESCRIPTION", escaped(summary) + "."]
    for block in re.split(r"\n\n+", rest.strip("\n")):
        lines += block_lines(block.split("\n"))
    lines += [".SH EXIT STATUS", *entry("0", "Success."),
              *entry("1", "Failure; one line on standard error says why."), *entry("2", "Wrong usage.")]
    lines += [".SH ENVIRONMENT", *(line for row in environment for line in entry(row[0], row[2]))]
    lines += [".SH SEE ALSO", escaped(see_also)]
    # A heading without text goes, such as the notes after the last list when there are none.
    return [line for line, next_line in zip(lines, [*lines[1:], ""])
            if not (line.startswith(".SH") and next_line.startswith(".SH"))]


def main(command, out):
    def run(*arguments):
        return subprocess.run([command, *arguments], check=True, text=True, stdout=subprocess.PIPE).stdout

    def write(name, *content):
        text = "\n".join(page(name, *content)) + "\n"
        with open(f"{out}/{name}.1.gz", "wb") as file:  # without a name and time: the same bytes each time
            file.write(gzip.compress(text.encode(), mtime=0))

    pathlib.Path(out).mkdir(parents=True, exist_ok=True)
    version, help_text = run("--version").strip(), run("--help")
    listed = re.search(r"^Subcommands:\n((?:  .*\n)+)", help_text, re.M)
    subcommands = re.findall(r"^  ([a-z][a-z-]*) +(.*)", listed[1] if listed else "", re.M)
    if not subcommands:
        sys.exit(f"make_man.py: {command} lists no subcommands")
    others = ", ".join(sorted(f"qxtools-{name}(1)" for name, _ in subcommands))
    write("qxtools", help_text.split("\n")[0].rstrip("."), version, help_text, ENVIRONMENT, others)
    for name, summary in subcommands:
        concerning = [row for row in ENVIRONMENT if name in row[1].split()]
        write(f"qxtools-{name}", summary.rstrip("."), version, run(name, "--help"), concerning, "qxtools(1)")


main(*sys.argv[1:])
