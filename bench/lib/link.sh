# The shaped-link runs of link-compare.sh: the shaper, the three servers
# (xferfm serve, an rsync daemon with its own config, socat | tar) and the
# timed run of each client through the shaper. Sourced, not run.
# Expects: RESULTS, SCRATCH, XFERFM, LINK (the xferfm-link binary).

# The two link profiles: one-way delay in ms, then rate in Mbit/s.
profile_delay_ms() { case $1 in slow) echo 20 ;; fast) echo 0.5 ;; esac; }
profile_rate_mbit() { case $1 in slow) echo 100 ;; fast) echo 800 ;; esac; }
profile_label() {
  case $1 in
    slow) echo "40 ms RTT, 100 Mbit/s" ;;
    fast) echo "1 ms RTT, 800 Mbit/s" ;;
  esac
}

# True when something listens on 127.0.0.1:PORT (read from /proc, so no
# probe connection is made: socat would take it for the real one).
is_listening() {
  local hex
  hex=$(printf '%04X' "$1")
  awk -v p="$hex" '$4 == "0A" { split($2, a, ":"); if (a[2] == p) found = 1 } END { exit !found }' /proc/net/tcp
}

# A port nothing listens on. The servers that cannot pick their own port
# (rsync, socat) get one of these; the race with other programs is small.
free_port() {
  local port
  for _ in $(seq 1 100); do
    port=$((20000 + RANDOM % 40000))
    is_listening "$port" || { echo "$port"; return 0; }
  done
  die "no free port found"
}

# Bounded wait: polls COMMAND... every 50 ms for at most 10 s.
wait_until() {
  local _
  for _ in $(seq 1 200); do
    "$@" && return 0
    sleep 0.05
  done
  return 1
}

has_number_line() { [ -s "$1" ] && grep -qx '[0-9][0-9]*' "$1"; }

# Starts the shaper in front of 127.0.0.1:TARGET_PORT with PROFILE (or
# "none": no delay, no cap). Sets SHAPER_PID and SHAPER_PORT.
start_shaper() {
  local profile=$1 target=$2 delay=0 rate=0
  if [ "$profile" != none ]; then
    delay=$(profile_delay_ms "$profile")
    rate=$(profile_rate_mbit "$profile")
  fi
  : >"$SCRATCH/shaper.port"
  "$LINK" --listen 0 --to "127.0.0.1:$target" --delay-ms "$delay" --rate-mbit "$rate" \
    >"$SCRATCH/shaper.port" 2>>"$SCRATCH/shaper.err" &
  SHAPER_PID=$!
  wait_until has_number_line "$SCRATCH/shaper.port" || die "the link shaper did not start: $(cat "$SCRATCH/shaper.err")"
  SHAPER_PORT=$(cat "$SCRATCH/shaper.port")
}

stop_shaper() {
  [ -n "${SHAPER_PID:-}" ] || return 0
  kill "$SHAPER_PID" 2>/dev/null || true
  wait "$SHAPER_PID" 2>/dev/null || true
  SHAPER_PID=""
}

# An rsync daemon configuration that serves DEST as module "dest", with its
# pid and log files in the scratch directory; nothing of the system's.
write_rsyncd_conf() {
  local conf=$1 dest=$2
  {
    echo "pid file = $SCRATCH/rsyncd.pid"
    echo "log file = $SCRATCH/rsyncd.log"
    echo "use chroot = no"
    echo "munge symlinks = no"
    if [ "$(id -u)" = 0 ]; then
      echo "uid = 0"
      echo "gid = 0"
    fi
    echo "[dest]"
    echo "  path = $dest"
    echo "  read only = no"
  } >"$conf"
}

# Starts TOOL's receiving side into DEST; sets RECV_PID and RECV_PORT.
start_receiver() {
  local tool=$1 dest=$2 tr=$SCRATCH/time-recv tr2=$SCRATCH/time-recv2 err=$SCRATCH/stderr
  case $tool in
    xferfm)
      rm -f "$SCRATCH/serve.port"
      /usr/bin/time -v -o "$tr" "$XFERFM" serve --once --listen 127.0.0.1:0 --port-file "$SCRATCH/serve.port" \
        "$dest" >/dev/null 2>>"$err" &
      RECV_PID=$!
      wait_until has_number_line "$SCRATCH/serve.port" || die "xferfm serve did not start: $(tail -3 "$err")"
      RECV_PORT=$(cat "$SCRATCH/serve.port")
      ;;
    rsync)
      RECV_PORT=$(free_port)
      write_rsyncd_conf "$SCRATCH/rsyncd.conf" "$dest"
      rm -f "$SCRATCH/rsyncd.pid"
      /usr/bin/time -v -o "$tr" rsync --daemon --no-detach --config="$SCRATCH/rsyncd.conf" \
        --address=127.0.0.1 --port="$RECV_PORT" 2>>"$err" &
      RECV_PID=$!
      wait_until is_listening "$RECV_PORT" || die "the rsync daemon did not start: $(tail -3 "$err")"
      ;;
    tar)
      RECV_PORT=$(free_port)
      (/usr/bin/time -v -o "$tr" socat -u "TCP-LISTEN:$RECV_PORT,bind=127.0.0.1,reuseaddr" STDOUT |
        /usr/bin/time -v -o "$tr2" tar -xf - -C "$dest") 2>>"$err" &
      RECV_PID=$!
      wait_until is_listening "$RECV_PORT" || die "socat did not start listening: $(tail -3 "$err")"
      ;;
  esac
}

# Runs TOOL's sending side to 127.0.0.1:PORT; returns its exit status.
run_sender() {
  local tool=$1 port=$2 src=$3 ts=$SCRATCH/time-send ts2=$SCRATCH/time-send2 err=$SCRATCH/stderr
  case $tool in
    xferfm)
      /usr/bin/time -v -o "$ts" "$XFERFM" send --no-progress "127.0.0.1:$port" "$src" >/dev/null 2>>"$err"
      ;;
    rsync)
      /usr/bin/time -v -o "$ts" rsync -a --whole-file "$src/" "rsync://127.0.0.1:$port/dest/" 2>>"$err"
      ;;
    tar)
      /usr/bin/time -v -o "$ts" tar -cf - -C "$src" . 2>>"$err" |
        /usr/bin/time -v -o "$ts2" socat -u STDIN "TCP:127.0.0.1:$port" 2>>"$err"
      return $((PIPESTATUS[0] | PIPESTATUS[1]))
      ;;
  esac
}

# Peak RSS in KiB of one side: both ends of a pipe run at once, so a
# two-process side counts their sum.
side_rss() {
  local total
  total=$(rss_of "$1")
  [ -s "$2" ] && total=$((total + $(rss_of "$2")))
  echo "$total"
}

# One timed copy through the shaper. Appends "link workload profile tool
# run seconds send_rss_kib bytes recv_rss_kib" to RESULTS. The clock runs
# from the sender's start to the end of both sides (the rsync daemon stays
# up: its client ends when the daemon has written everything).
#   link_run TOOL PROFILE WORKLOAD RUN SRC DEST BYTES
link_run() {
  local tool=$1 profile=$2 workload=$3 run=$4 src=$5 dest=$6 bytes=$7
  local start end status recv_status=0 seconds
  rm -f "$SCRATCH"/time-send* "$SCRATCH"/time-recv*
  : >"$SCRATCH/stderr"
  mkdir -p "$dest"
  start_receiver "$tool" "$dest"
  start_shaper "$profile" "$RECV_PORT"
  sync
  set +e
  start=$EPOCHREALTIME
  run_sender "$tool" "$SHAPER_PORT" "$src"
  status=$?
  if [ "$tool" != rsync ]; then
    wait "$RECV_PID"
    recv_status=$?
  fi
  end=$EPOCHREALTIME
  if [ "$tool" = rsync ]; then
    kill "$(cat "$SCRATCH/rsyncd.pid" 2>/dev/null)" 2>/dev/null
    wait "$RECV_PID"
  fi
  set -e
  stop_shaper
  if [ "$status" -ne 0 ] || [ "$recv_status" -ne 0 ]; then
    say "  $tool failed (sender exit $status, receiver exit $recv_status):"
    head -5 "$SCRATCH/stderr" >&2
    return 1
  fi
  seconds=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f", e - s }')
  local send_rss recv_rss
  send_rss=$(side_rss "$SCRATCH/time-send" "$SCRATCH/time-send2")
  recv_rss=$(side_rss "$SCRATCH/time-recv" "$SCRATCH/time-recv2")
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' link "$workload" "$profile" "$tool" "$run" \
    "$seconds" "$send_rss" "$bytes" "$recv_rss" >>"$RESULTS"
  say "  $(printf '%-7s run %-2s %9.3f s  send %7d KiB  receive %7d KiB' "$tool" "$run" "$seconds" "$send_rss" "$recv_rss")"
}

# The shaper's own cost: BYTES of zeros through socat, straight and through
# an unshaped link. Prints "direct_mbit shaped_mbit".
shaper_overhead() {
  local bytes=$1 kind port start end direct shaped
  for kind in direct shaped; do
    port=$(free_port)
    socat -u "TCP-LISTEN:$port,bind=127.0.0.1,reuseaddr" /dev/null &
    local sink=$!
    wait_until is_listening "$port" || die "socat did not start listening"
    if [ "$kind" = shaped ]; then
      start_shaper none "$port"
      port=$SHAPER_PORT
    fi
    start=$EPOCHREALTIME
    head -c "$bytes" /dev/zero | socat -u STDIN "TCP:127.0.0.1:$port"
    wait "$sink"
    end=$EPOCHREALTIME
    stop_shaper
    printf -v "$kind" '%s' "$(awk -v b="$bytes" -v s="$start" -v e="$end" 'BEGIN { printf "%.0f", b * 8 / (e - s) / 1e6 }')"
  done
  echo "$direct $shaped"
}
