#!/usr/bin/env python3
"""Turns the plain comments of public headers and examples into documentation comments for Doxygen.

usage: doxygen_filter.py FILE

The first comment of a file is about the file. A heading such as "Inputs:" or "Returns:" becomes a
paragraph with a title; if its text is in two columns, the left one names the rows of a list. Lines that
are indented after an empty comment line are code.
"""
import os
import re
import sys


class Comment:
    """One block of comment lines, printed with `margin` in front."""

    def __init__(self, margin):
        self.margin = margin
        self.code = self.heading = self.in_list = self.after_empty = False
        self.held = 0  # empty lines within code that are not printed yet
        self.column = 0  # where the text of the present list entry begins

    def out(self, text):
        if not self.code:  # "0 .. N" does not end the first sentence, which becomes the summary
            text = text.replace(" .. ", " ..&nbsp;")
        print(f"{self.margin}/// {text}" if text else f"{self.margin}///")

    def end_code(self):
        if self.code:
            self.out("\\endcode")
        self.code = False

    def add_below_heading(self, text, column):
        """Prints text below a heading, whose first character is in column `column`."""
        text = text.lstrip(" ")
        gap = re.search("[^ ]  +(?=[^ ])", text)
        if gap and gap.start() < 30:
            if not self.in_list:
                self.out("")
            self.out(f"- **{text[:gap.start() + 1]}** {text[gap.end():]}")
            self.in_list, self.column = True, column
        elif self.in_list and column > self.column:
            self.out("  " + text)
        else:
            if self.in_list:
                self.out("")
            self.in_list = False
            self.out(text)

    def add(self, text):
        indent = len(text) - len(text.lstrip(" "))
        if not text.strip(" "):
            if self.code:
                self.held += 1
            else:
                self.out("")
            if self.in_list or self.heading:
                self.in_list = self.heading = False
            self.after_empty = True
            return
        if self.code and indent < 3:
            self.end_code()
            self.out("")
        if not self.code and self.after_empty and indent >= 3:
            self.out("\\code{.cpp}")
            self.code = True
        if self.code:
            for _ in range(self.held):
                self.out("")
        self.held, self.after_empty = 0, False
        heading = re.match(" (Cost|Errors|Exact|Inputs|Output|Overlap|Returns|Threads): +", text)
        if self.code:
            self.out(text[3:])
        elif heading:
            self.out("\\par " + heading[1])
            self.heading, self.in_list = True, False
            self.add_below_heading(text[heading.end():], heading.end())
        elif self.heading and indent > 1:
            self.add_below_heading(text, indent)
        else:
            if self.heading:
                self.out("")
            self.heading = self.in_list = False
            self.out(text[1 if indent else 0:])


def main(path):
    name = os.path.basename(path)
    block = None  # the comment that the previous line belongs to
    trailing = 0  # the column of the comment after the previous line's code
    for number, line in enumerate(open(path).read().splitlines()):
        if number == 0 and line.startswith("// "):
            print(f"/// \\example {name}\n///" if name.endswith(".cc") else "/// \\file")
        comment = re.match("( *)//(?= |$)", line)
        if comment and trailing == len(comment[1]) and trailing > 0:  # continues the comment after a member
            print(line.replace("// ", "///< ", 1))
        elif comment:
            block = block or Comment(comment[1])
            block.margin = comment[1]
            block.add(line[comment.end():])
        else:
            if block:
                block.end_code()
            block = None
            after_code = re.search("[;,{)(] +(?=// )", line)
            trailing = after_code.end() if after_code and not line.startswith("#") else 0
            print(line[:trailing] + line[trailing:].replace("// ", "///< ", 1) if trailing else line)


main(sys.argv[1])
