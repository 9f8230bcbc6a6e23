# Shared helpers of compare.sh and link-compare.sh: messages, statistics,
# free space, the disposal of old destinations, and the timed local runs.
# Sourced, not run. Expects: RESULTS (TSV file), SCRATCH (per-run temp dir);
# SCRIPT_NAME names the script in error messages.

say() { printf '%s\n' "$*" >&2; }
die() { say "${SCRIPT_NAME:-compare.sh}: $*"; exit 1; }

NOTES=()
note() { NOTES+=("$*"); say "note: $*"; }

# Median of the numbers on stdin (mean of the middle two for an even count).
median() {
  sort -g | awk '{ v[NR] = $1 } END {
    if (NR == 0) { print "nan"; exit }
    if (NR % 2) print v[(NR + 1) / 2]; else printf "%.6f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# Free bytes of the file system holding $1.
free_bytes() { df -P -B1 "$1" | awk 'NR == 2 { print $4 }'; }

# Bytes a location may still take. tmpfs lives in memory, so leave room
# for the tools and the page cache as well.
usable_bytes() {
  local dir=$1 free
  free=$(free_bytes "$dir")
  if [ "$(stat -f -c %T "$dir")" = tmpfs ]; then
    local avail
    avail=$(awk '/^MemAvailable:/ { printf "%.0f\n", $2 * 1024 }' /proc/meminfo)
    avail=$((avail * 7 / 10))
    [ "$avail" -lt "$free" ] && free=$avail
  fi
  echo $((free * 9 / 10))
}

is_tmpfs() { [ "$(stat -f -c %T "$1")" = tmpfs ]; }

# Old destinations are not deleted right before a timed run: on ext4 a tree
# deleted less than a minute ago slows file creation. They wait in a list,
# and are deleted when room is needed or at the end; after a deletion on a
# disk the next timed run waits until SETTLE_SECONDS have passed.
PENDING=()
LAST_DELETE=0
dispose() { PENDING+=("$@"); }

purge_pending() {
  [ ${#PENDING[@]} -eq 0 ] && return 0
  rm -rf -- "${PENDING[@]}"
  PENDING=()
  LAST_DELETE=${EPOCHREALTIME%.*}
}

# Makes room for $2 more bytes under $1, deleting old destinations if needed.
# Fails when even that is not enough.
ensure_room() {
  local dir=$1 need=$2
  [ "$need" -le "$(usable_bytes "$dir")" ] && return 0
  purge_pending
  [ "$need" -le "$(usable_bytes "$dir")" ]
}

settle() {
  local dir=$1 now wait
  is_tmpfs "$dir" && return 0
  now=${EPOCHREALTIME%.*}
  wait=$((LAST_DELETE + SETTLE_SECONDS - now))
  if [ "$wait" -gt 0 ]; then
    say "  waiting ${wait}s after a deletion on disk"
    sleep "$wait"
  fi
}

# Bytes and regular files under a tree: "BYTES FILES".
tree_size() { find "$1" -type f -printf '%s\n' | awk '{ b += $1; n++ } END { printf "%.0f %.0f\n", b, n }'; }

rss_of() { awk -F': *' '/Maximum resident set size/ { print $2 }' "$1"; }

# One timed run. Appends "kind workload location tool run seconds rss_kib bytes"
# to RESULTS. The destination must be a fresh path; it is created here.
#   timed_run KIND WORKLOAD LOCATION TOOL RUN SRC DEST BYTES [EXTRA XFERFM OPTIONS...]
timed_run() {
  local kind=$1 workload=$2 location=$3 tool=$4 run=$5 src=$6 dest=$7 bytes=$8
  shift 8
  local t1=$SCRATCH/time1 t2=$SCRATCH/time2 err=$SCRATCH/stderr start end rss status
  mkdir -p "$dest"
  settle "$dest"
  sync
  set +e
  start=$EPOCHREALTIME
  case $tool in
    xferfm)
      /usr/bin/time -v -o "$t1" "$XFERFM" copy --no-progress "$@" "$src" "$dest" >/dev/null 2>"$err"
      status=$?
      ;;
    cp)
      /usr/bin/time -v -o "$t1" cp -r "$src" "$dest/" 2>"$err"
      status=$?
      ;;
    rsync)
      /usr/bin/time -v -o "$t1" rsync -a "$src" "$dest/" 2>"$err"
      status=$?
      ;;
    tar)
      /usr/bin/time -v -o "$t1" tar -cf - -C "$src" . 2>"$err" |
        /usr/bin/time -v -o "$t2" tar -xf - -C "$dest" 2>>"$err"
      status=$((PIPESTATUS[0] | PIPESTATUS[1]))
      ;;
  esac
  end=$EPOCHREALTIME
  set -e
  if [ "$status" -ne 0 ]; then
    say "  $tool failed (exit $status):"
    head -5 "$err" >&2
    return 1
  fi
  rss=$(rss_of "$t1")
  # Both ends of the pipe run at once: their sum is the footprint.
  [ "$tool" = tar ] && rss=$((rss + $(rss_of "$t2")))
  local seconds
  seconds=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f", e - s }')
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$kind" "$workload" "$location" "$tool" "$run" \
    "$seconds" "$rss" "$bytes" >>"$RESULTS"
  say "  $(printf '%-7s run %-2s %9.3f s  %7d KiB' "$tool" "$run" "$seconds" "$rss")"
}

# Checks that a destination holds as many bytes and files as the source.
check_copy() {
  local src=$1 dest=$2 tool=$3
  local want got
  want=$(tree_size "$src")
  got=$(tree_size "$dest")
  [ "$want" = "$got" ] || die "$tool copied $got (bytes files), source has $want: $src -> $dest"
}
