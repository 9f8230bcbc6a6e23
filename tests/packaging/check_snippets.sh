#!/usr/bin/env bash
# Checks that every C++ code block of the given Markdown files is a verbatim
# copy of a marked region of a compiled example, so the documents cannot
# drift from code that builds and runs (the packaging test runs the
# examples).
#
# In the document:               In examples/<file>.cpp:
#   <!-- snippet: examples/F R -->     // [snippet R]
#   ```cpp                             ...code...
#   ...code...                         // [end snippet]
#   ```
#   <!-- end snippet -->
# The region is compared with its common indentation removed. A ```cpp
# block outside such markers fails the check.
#
# Usage: check_snippets.sh SOURCE_DIR DOCUMENT...
set -euo pipefail

source_dir=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

dedent() {
  awk '{ lines[NR] = $0; if ($0 ~ /[^ ]/) { match($0, /^ */); if (min == "" || RLENGTH < min) min = RLENGTH } }
       END { for (i = 1; i <= NR; i++) print substr(lines[i], min + 1) }'
}

region_of() {  # file name
  awk -v name="$2" '
    { line = $0; sub(/^[ \t]+/, "", line) }
    on && line == "// [end snippet]" { found = 1; exit }
    on { print }
    line == "// [snippet " name "]" { on = 1 }
    END { if (!found) exit 1 }' "$1"
}

for document in "$@"; do
  rm -f "$work"/block.* "$work"/index
  # Splits the document's marked blocks into block.N files and an index of
  # "N file region" lines; reports stray cpp blocks and broken markers.
  if ! awk -v out="$work" -v doc="$document" '
      function fail(message) { printf "%s:%d: %s\n", doc, NR, message; bad = 1 }
      state == 0 && /^<!-- snippet: [^ ]+ [^ ]+ -->$/ {
        n++; split($0, part, " "); printf "%d %s %s\n", n, part[3], part[4] > (out "/index")
        printf "" > (out "/block." n); state = 1; next }
      state == 0 && /^```cpp/ { fail("a C++ block outside snippet markers") }
      state == 1 { if ($0 == "```cpp") state = 2; else fail("a snippet marker not followed by ```cpp"); next }
      state == 2 && $0 == "```" { state = 3; next }
      state == 2 { print > (out "/block." n); next }
      state == 3 { if ($0 == "<!-- end snippet -->") state = 0; else fail("a snippet not closed by <!-- end snippet -->"); next }
      END { if (state != 0) fail("an unfinished snippet"); exit bad }' "$source_dir/$document"; then
    status=1
    continue
  fi
  [ -f "$work/index" ] || continue
  document_status=0
  while read -r n file region; do
    if ! region_of "$source_dir/$file" "$region" | dedent > "$work/expected"; then
      echo "$document: $file has no region \"$region\""
      document_status=1
      continue
    fi
    if ! diff -u "$work/expected" "$work/block.$n" > "$work/diff"; then
      echo "$document: snippet \"$region\" differs from $file (--- example, +++ document):"
      cat "$work/diff"
      document_status=1
    fi
  done < "$work/index"
  if [ $document_status -eq 0 ]; then
    echo "$document: $(wc -l < "$work/index") snippets match their examples"
  fi
  status=$((status | document_status))
done
exit $status
