#!/bin/sh
# The manual page keeps up with the tool: every option that "romweld -help"
# lists (global options and the argument table) has a tagged entry of its
# own, and groff formats the page, tables included, without a warning.
# Usage: man_page.sh <romweld executable> <romweld.1>
# Exits 77 (skipped) after the entry check only when groff is not installed.
set -u
romweld=$1
page=$2

# "  -CK       : Calculate ..." -> -CK; help continuation lines begin with a tab.
names=$("$romweld" -help 2>/dev/null | sed -n 's/^  \([^ 	]\{1,\}\) *: .*/\1/p')
count=$(printf '%s\n' "$names" | grep -c .)
# 7 global options and 19 argument kinds: fewer means the listing changed
# shape and this check would pass on nothing.
if [ "$count" -lt 26 ]; then
  echo "only $count option names read from '$romweld -help'"
  exit 1
fi

# Tag lines (the line after .TP or .TQ), with the macro name dropped, font
# changes turned into blanks and "\-" into "-", lower-cased.
tags=$(mktemp) || exit 1
trap 'rm -f "$tags"' EXIT
awk 'prev ~ /^\.T[PQ]( |$)/ { print } { prev = $0 }' "$page" |
  sed -e 's/^\.[A-Z][A-Z]* //' -e 's/\\f[BIRP]/ /g' -e 's/\\-/-/g' -e 's/^ *//' |
  tr 'A-Z' 'a-z' > "$tags"

# An option has an entry when a tag begins with its name followed by a
# character that cannot continue a name, so "-O" is not satisfied by a tag
# for "-ORDER".
missing=$(printf '%s\n' "$names" | awk '
  FNR == NR { tag[++n] = $0; next }
  {
    name = tolower($0); found = 0
    for (i = 1; i <= n && !found; i++)
      if (substr(tag[i], 1, length(name)) == name &&
          substr(tag[i], length(name) + 1, 1) !~ /[a-z0-9]/)
        found = 1
    if (!found) print $0
  }' "$tags" -)
status=0
for n in $missing; do
  echo "no entry in $page for option $n"
  status=1
done

if ! command -v groff >/dev/null 2>&1; then
  echo "groff is not installed: formatting not checked"
  [ $status -eq 0 ] && exit 77
  exit $status
fi
warnings=$(groff -t -man -ww -z "$page" 2>&1)
if [ -n "$warnings" ]; then
  echo "groff warns about $page:"
  echo "$warnings"
  status=1
fi
exit $status
