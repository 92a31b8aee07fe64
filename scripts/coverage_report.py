#!/usr/bin/env python3
"""Prints the coverage of the library's lines and of the parsers' branches; fails below the limits.

usage: coverage_report.py PROJECT EXPORT      EXPORT: what `llvm-cov export -summary-only` wrote
"""
import json
import os
import sys

LIBRARY = ("include/", "qx_utils/", "vision/", "vitis/", "board/")
PARSERS = ("qx_utils/h264_h265_info_parse/",)


def is_enough(summaries, kind, folders, least):
    """Prints each file's coverage of `kind`, lines or branches. Returns: whether all reach `least` per cent."""
    print(f"\n== {kind} of {' '.join(folders)}")
    count = covered = 0
    for name, summary in sorted(summaries.items()):
        numbers = summary[kind]
        if not name.startswith(folders) or numbers["count"] == 0:
            continue
        count += numbers["count"]
        covered += numbers["covered"]
        missed = numbers["count"] - numbers["covered"]
        print(f"{name:56} {numbers['count']:6} {numbers['percent']:7.2f} %" + (f"  {missed} missed" if missed else ""))
    share = 100 * covered / count if count else 0
    print(f"{'all':56} {count:6} {share:7.2f} %  {count - covered} missed; wanted: {least:g} %")
    return share >= least


def main(project, export):
    with open(export) as file:
        files = json.load(file)["data"][0]["files"]
    # File names are absolute, or relative to the build folder, where the export is written.
    folder = os.path.dirname(os.path.abspath(export))
    summaries = {os.path.relpath(os.path.join(folder, f["filename"]), project): f["summary"] for f in files}
    enough = [is_enough(summaries, "lines", LIBRARY, 95), is_enough(summaries, "branches", PARSERS, 90)]
    return not all(enough)


sys.exit(main(*sys.argv[1:]))
