# Turns the raw runs of compare.sh (RESULTS, one line per timed run:
# kind workload location tool run seconds rss_kib bytes) into medians,
# rates, ratios and target verdicts. Sourced, not run.

# Values of column $5 for the runs matching kind/workload/location/tool.
runs_of() {
  awk -F'\t' -v s="$1" -v w="$2" -v l="$3" -v t="$4" -v c="$5" \
    '$1 == s && $2 == w && $3 == l && $4 == t { print $c }' "$RESULTS"
}

median_seconds() { runs_of "$1" "$2" "$3" "$4" 6 | median; }
peak_rss() { runs_of "$1" "$2" "$3" "$4" 7 | sort -n | tail -1; }
run_count() { runs_of "$1" "$2" "$3" "$4" 6 | wc -l; }

# Distinct "workload location" pairs of a kind, in the order first run.
pairs_of() { awk -F'\t' -v s="$1" '$1 == s && !seen[$2 FS $3]++ { print $2 "\t" $3 }' "$RESULTS"; }

bytes_of() { awk -F'\t' -v s="$1" -v w="$2" -v l="$3" '$1 == s && $2 == w && $3 == l { print $8; exit }' "$RESULTS"; }

mib_per_s() { awk -v b="$1" -v s="$2" 'BEGIN { if (s > 0) printf "%.1f", b / 1048576 / s; else print "nan" }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "nan" }'; }
mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
# verdict VALUE OP LIMIT, OP one of <=, < and >=: "met" or "NOT met".
verdict() {
  if awk -v v="$1" -v op="$2" -v l="$3" 'BEGIN { if (v !~ /^[0-9.]+$/) exit 1; v += 0; l += 0; exit !(op == "<=" ? v <= l : op == ">=" ? v >= l : v < l) }'; then
    echo met
  else
    echo "NOT met"
  fi
}

# One line per workload and location of the comparison:
# workload location bytes runs xf_s cp_s tar_s xf_rss cp_rss tar_rss (KiB)
summarize_compare() {
  local workload location bytes
  while IFS=$'\t' read -r workload location; do
    bytes=$(bytes_of compare "$workload" "$location")
    printf '%s\t%s\t%s\t%s' "$workload" "$location" "$bytes" "$(run_count compare "$workload" "$location" xferfm)"
    for tool in xferfm cp tar; do printf '\t%s' "$(median_seconds compare "$workload" "$location" "$tool")"; done
    for tool in xferfm cp tar; do printf '\t%s' "$(peak_rss compare "$workload" "$location" "$tool")"; done
    printf '\n'
  done < <(pairs_of compare)
}

# Target verdicts for one summary line: "name<TAB>measured<TAB>verdict" lines.
targets_of() {
  local workload=$1 xf=$2 cp=$3 tar=$4 rss=$5
  local to_cp to_tar
  to_cp=$(ratio "$xf" "$cp")
  to_tar=$(ratio "$xf" "$tar")
  case $workload in
    A | C)
      printf 'xferfm <= 1.5 x cp\t%s x\t%s\n' "$to_cp" "$(verdict "$to_cp" "<=" 1.5)"
      printf 'xferfm faster than the tar pipe\t%s x\t%s\n' "$to_tar" "$(verdict "$to_tar" "<" 1)"
      ;;
    B)
      printf 'xferfm <= 2 x cp\t%s x\t%s\n' "$to_cp" "$(verdict "$to_cp" "<=" 2)"
      ;;
  esac
  printf 'xferfm peak RSS <= 64 MiB\t%s MiB\t%s\n' "$(mib "$rss")" "$(verdict "$rss" "<=" 65536)"
}

# Least-squares line through "x y" pairs on stdin: prints "fixed slope r2".
fit_line() {
  awk '{ n++; sx += $1; sy += $2; sxx += $1 * $1; sxy += $1 * $2; syy += $2 * $2 }
    END {
      d = n * sxx - sx * sx
      if (n < 2 || d == 0) { print "nan nan nan"; exit }
      b = (n * sxy - sx * sy) / d; a = (sy - b * sx) / n
      vy = n * syy - sy * sy
      r2 = vy > 0 ? (n * sxy - sx * sy) ^ 2 / (d * vy) : 1
      printf "%.9g %.9g %.5f\n", a, b, r2
    }'
}

# "x median_seconds" for one tool of a scaling kind and location.
scaling_points() {
  local kind=$1 location=$2 tool=$3 x
  for x in $(awk -F'\t' -v s="$kind" -v l="$location" -v t="$tool" \
    '$1 == s && $3 == l && $4 == t && !seen[$2]++ { print $2 }' "$RESULTS"); do
    printf '%s %s\n' "$x" "$(median_seconds "$kind" "$x" "$location" "$tool")"
  done
}

scaling_locations() { awk -F'\t' '$1 ~ /^scale-/ && !seen[$3]++ { print $3 }' "$RESULTS"; }
