# Sections of docs/performance.md that one script owns inside a page
# another script writes: a section sits between two marker lines and is
# replaced whole, so compare.sh's rewrite of the page keeps the link
# benchmark's results and the other way round. Sourced, not run.

section_begin() { echo "<!-- $1: begin (written by a script, edit the script) -->"; }
section_end() { echo "<!-- $1: end -->"; }

# Prints section NAME of FILE, marker lines included (nothing if absent).
section_of() {
  local file=$1 name=$2
  [ -f "$file" ] || return 0
  awk -v b="$(section_begin "$name")" -v e="$(section_end "$name")" '
    $0 == b { inside = 1 } inside { print } $0 == e { inside = 0 }' "$file"
}

# Replaces section NAME of FILE with the text in BODY_FILE (markers added
# here), or appends it when the page has none.
replace_section() {
  local file=$1 name=$2 body=$3 tmp
  tmp=$(mktemp "$file.XXXXXX")
  {
    if [ -f "$file" ] && grep -qxF "$(section_begin "$name")" "$file"; then
      awk -v b="$(section_begin "$name")" -v e="$(section_end "$name")" -v body="$body" '
        $0 == b { print; while ((getline line < body) > 0) print line; skip = 1; next }
        $0 == e { skip = 0 }
        !skip { print }' "$file"
    else
      [ -f "$file" ] && cat "$file" && echo
      section_begin "$name"
      cat "$body"
      section_end "$name"
    fi
  } >"$tmp"
  mv "$tmp" "$file"
}
