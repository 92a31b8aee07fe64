#!/bin/sh
# Turns the plain comments of a public header into documentation comments. The headings of our
# comments ("Inputs:", "Returns:", ...) become paragraphs with a title.
sed -E \
  -e 's|^( *)// ([A-Z][a-z]+): +|\1/// \\par \2\n\1/// |' \
  -e 's|^( *)//( .*)?$|\1///\2|' \
  -e 's|^(.*[^ /].*[;,{)(]) +// |\1  ///< |' \
  "$1"
