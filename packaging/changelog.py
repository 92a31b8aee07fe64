#!/usr/bin/env python3
"""Prints the newest section of CHANGELOG.md in the form of a Debian changelog.

usage: changelog.py CHANGELOG VERSION
"""
import email.utils
import os
import re
import sys
import textwrap

path, version = sys.argv[1:]
with open(path) as file:
    newest = file.read().split("\n## ")[1]
entries = re.findall(r"^- (.*(?:\n  .*)*)", newest, re.M)
if not entries:
    sys.exit(f"{path}: no entries in the newest section")
print(f"qxtools ({version}) stable; urgency=medium\n")
for entry in entries:
    text = " ".join(entry.split())
    print(textwrap.fill(text, 78, initial_indent="  * ", subsequent_indent="    ",
                        break_on_hyphens=False, break_long_words=False))
date = email.utils.formatdate(os.path.getmtime(path), localtime=True)
print(f"\n -- qxtools maintainers <maintainers@qxtools.invalid>  {date}")
