#!/usr/bin/env bash
# Writes the man pages of the command and of each of its subcommands, from their own help texts.
#
# usage: make-man.sh COMMAND OUT_DIR
set -euo pipefail

command=$1
out=$2
mkdir -p "$out"

# Examples keep their lines.
page() {  # page NAME SUMMARY COMMAND...
  help2man --no-info --no-discard-stderr --section 1 --name "$2" --version-string "$("$command" --version)" \
    "${*:3}" | sed -e '/^\.SH EXAMPLES/,$ {s/^\.IP$/&\n.nf/; s/^\.PP$/.fi\n&/}' | gzip -9n >"$out/$1.1.gz"
}

subcommands=$("$command" --help | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z-]*\)  *\(.*\)/\1 \2/p')
[ -n "$subcommands" ] || { echo "make-man.sh: $command lists no subcommands" >&2; exit 1; }
page qxtools "$("$command" --help | head -n 1)" "$command"
while read -r name summary; do
  page "qxtools-$name" "$summary" "$command $name"
done <<<"$subcommands"
