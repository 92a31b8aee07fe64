#!/usr/bin/env bash
# Writes the man pages of the command and of each of its subcommands: from their help texts, and the
# sections that all pages share.
#
# usage: make-man.sh COMMAND OUT_DIR
set -euo pipefail

command=$1
out=$2
mkdir -p "$out"

# variable|subcommands that it concerns|meaning
environment='QXTOOLS_FORCE_ISA|stereo isa doctor|Instruction set to use instead of the best one, by a name that qxtools isa lists.
OMP_NUM_THREADS|stereo|Number of threads of the matching; default: one for each processor.
QXTOOLS_BOARD_GEOMETRY|stereo board doctor|Emulated board: height, width, channels and disparities of its kernel, for example 96x320x32x48.
QXTOOLS_BOARD_RUN_TIME_US|stereo board|Emulated board: the least time of a run, in microseconds.
QXTOOLS_BOARD_FAULTS|stereo board|Emulated board: faults to rehearse, for example xrt::bo::sync@2,unit.hang.
xclbin_path|stereo board|Container to load onto the device instead of the default one.
cu_name|stereo board|Compute unit to run instead of the default one.'

# Turns a help text into a page. Blocks are separated by empty lines. A block under a heading of its
# own becomes a section of entries, or of examples; a block with indented lines keeps its lines.
page() {  # page NAME SUMMARY ENVIRONMENT SEE_ALSO   (help text on standard input)
  # Variables of the environment keep backslashes as they are, those of -v do not.
  name=$1 summary=$2 environment=$3 see_also=$4 version=$("$command" --version) awk '
    function escaped(text) {
      gsub(/\\/, "\\e", text)
      gsub(/-/, "\\-", text)
      return text ~ /^[.\047]/ ? "\\&" text : text
    }
    function heading(text) { print ".SH " toupper(text) }
    function entry(term, text) { print ".TP\n" term; if (text != "") print text }
    # Column 31 has the meaning, unless the names before it took a line of their own.
    function option(line, next_line,   names, rest) {
      names = line; rest = ""
      if (substr(line, 30, 2) ~ /^ [^ ]/ && !(substr(line, 29, 1) != " " && next_line ~ /^ *$/)) {
        names = substr(line, 1, 30)
        rest = substr(line, 31)
      }
      gsub(/^ +| +$/, "", names)
      split(names, words, " ")
      names = substr(names, length(words[1]) + 1)
      entry("\\fB" escaped(words[1]) "\\fR" escaped(names), escaped(rest))
    }
    function paragraph(   i, keep) {
      for (i = 1; i <= lines; ++i) keep = keep || block[i] ~ /^  /
      print keep ? ".PP\n.nf" : ".PP"
      for (i = 1; i <= lines; ++i) print escaped(block[i])
      if (keep) print ".fi"
    }
    function flush(   i) {
      if (lines == 0) return
      if (block[1] ~ /^Examples:/) {
        heading("examples")
        print ".nf"
        for (i = 2; i <= lines; ++i) print escaped(block[i])
        print ".fi"
      } else if (block[1] ~ /^[A-Z][a-z]+:$/) {
        heading(block[1] == "Positionals:" ? "arguments" : substr(block[1], 1, length(block[1]) - 1))
        for (i = 2; i <= lines; ++i) {
          if (block[i] ~ /^  [^ ]/) option(block[i], i < lines ? substr(block[i + 1], 1, 30) : "none")
          else { sub(/^ +/, "", block[i]); print escaped(block[i]) }
        }
        heading("notes")
      } else if (block[1] !~ /^Exit status:/) {
        paragraph()
      }
      lines = 0
    }
    BEGIN {
      name = escaped(ENVIRON["name"])
      printf ".TH %s 1 \"\" \"%s\" \"User Commands\"\n", toupper(name), ENVIRON["version"]
      heading("name")
      print name " \\- " escaped(ENVIRON["summary"])
    }
    /^Usage:/ {
      lines = 0
      heading("synopsis")
      print escaped(substr($0, 8))
      heading("description")
      print escaped(ENVIRON["summary"]) "."
      next
    }
    /^$/ { flush(); next }
    { block[++lines] = $0 }
    END {
      flush()
      heading("exit status")
      entry("0", "Success.")
      entry("1", "Failure; one line on standard error says why.")
      entry("2", "Wrong usage.")
      count = split(ENVIRON["environment"], rows, "\n")
      if (count > 0) heading("environment")
      for (i = 1; i <= count; ++i) {
        split(rows[i], cells, "|")
        entry("\\fB" escaped(cells[1]) "\\fR", escaped(cells[3]))
      }
      heading("see also")
      print escaped(ENVIRON["see_also"])
    }' |
    # A section without text is none: the notes that follow the last list, where there are no notes.
    awk '/^\.SH / {held = $0; next} {if (held != "") print held; held = ""; print}' | gzip -9n >"$out/$1.1.gz"
}

help=$("$command" --help)
subcommands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\)  *\(.*\)/\1 \2/p' <<<"$help")
[ -n "$subcommands" ] || { echo "make-man.sh: $command lists no subcommands" >&2; exit 1; }
others=$(sed 's/ .*//; s/.*/qxtools-&(1)/' <<<"$subcommands" | LC_ALL=C sort | paste -sd, | sed 's/,/, /g')

page qxtools "$(head -n 1 <<<"$help" | sed 's/\.$//')" "$environment" "$others" <<<"$help"
while read -r name summary; do
  concerning=$(grep -E "^[^|]*\|([^|]* )?$name( |\|)" <<<"$environment" || true)
  "$command" "$name" --help | page "qxtools-$name" "${summary%.}" "$concerning" "qxtools(1)"
done <<<"$subcommands"
