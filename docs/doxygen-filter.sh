#!/bin/sh
# Turns the plain comments of public headers and examples into documentation comments.
#
# The first comment of a file is about the file. A heading of ours ("Inputs:", "Returns:", ...) becomes
# a paragraph with a title; where its text is aligned in two columns, the left one names the rows of a
# list. Lines that are indented after an empty comment line are code.
exec awk -v file="${1##*/}" '
function indent_of(text) { match(text, /^ */); return RLENGTH }
# "0 .. N" does not end the first sentence, which becomes the summary.
function out(text) {
  if (!code) gsub(/ \.\. /, " ..\\&nbsp;", text)
  print (text == "" ? margin "///" : margin "/// " text)
}
function end_code() { if (code) out("\\endcode"); code = 0 }

# Prints one line under a heading; its text begins in column `column`.
function under_heading(text, column,   gap, name) {
  text = substr(text, indent_of(text) + 1)
  gap = match(text, /[^ ]  +[^ ]/)
  if (gap > 0 && gap <= 30) {
    name = substr(text, 1, gap)
    text = substr(text, gap + RLENGTH - 1)
    if (!list) out("")
    out("- **" name "** " text)
    list = 1
    row = column
  } else if (list && column > row) {
    out("  " text)
  } else {
    if (list) out("")
    list = 0
    out(text)
  }
}

function comment(text,   indent) {
  indent = indent_of(text)
  if (text ~ /^ *$/) {
    if (!code) out("")
    else held = held + 1
    if (list || heading) list = heading = 0
    empty = 1
    return
  }
  if (code && indent < 3) { end_code(); out("") }
  if (!code && empty && indent >= 3) {
    out("\\code{.cpp}")
    code = 1
  }
  while (code && held > 0) { out(""); --held }
  held = 0
  empty = 0
  if (code) {
    out(substr(text, 4))
  } else if (match(text, /^ (Cost|Errors|Exact|Inputs|Output|Overlap|Returns|Threads): +/)) {
    out("\\par " substr(text, 2, index(text, ":") - 2))
    heading = 1
    list = 0
    under_heading(substr(text, RLENGTH + 1), RLENGTH)
  } else if (heading && indent > 1) {
    under_heading(text, indent)
  } else {
    if (heading) out("")
    heading = list = 0
    out(substr(text, indent < 1 ? 1 : 2))
  }
}

FNR == 1 && /^\/\/ / {
  print file ~ /\.cc$/ ? "/// \\example " file : "/// \\file"
  if (file ~ /\.cc$/) print "///"
}
/^ *\/\/( |$)/ {
  margin = substr($0, 1, indent_of($0))
  if (trailing == length(margin) && trailing > 0) {  # continues the comment after a member
    sub(/\/\/ /, "///< ")
    print
    next
  }
  if (!inside) { empty = heading = list = code = held = 0 }
  inside = 1
  comment(substr($0, length(margin) + 3))
  next
}
{
  if (inside) end_code()
  inside = 0
  trailing = 0
  if (match($0, /[;,{)(] +\/\/ /) && $0 !~ /^#/) {
    trailing = RSTART + RLENGTH - 4
    $0 = substr($0, 1, trailing) "///< " substr($0, trailing + 4)
  }
  print
}' "$1"
