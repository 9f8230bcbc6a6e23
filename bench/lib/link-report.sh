# Prints the results of link-compare.sh and writes its section of
# performance.md. Sourced, not run. Needs summary.sh, sections.sh,
# report.sh (machine_lines) and link.sh (profile_label).
# RESULTS lines: kind workload location tool run seconds rss_kib bytes
# [receiver_rss_kib]; kind "link" (location: the profile) or "local".

link_workload_label() {
  case $1 in
    small) echo "1,000 files of 4 KiB in 20 dirs" ;;
    mixed) echo "20 x 1 MiB + 300 x 8 KiB" ;;
    large) echo "one 100 MiB file" ;;
  esac
}

local_workload_label() {
  case $1 in
    many) echo "10,000 files of 4 KiB in 100 dirs" ;;
    large) echo "one file of $(human_bytes "$LOCAL_LARGE_BYTES")" ;;
  esac
}

peak_recv_rss() { runs_of "$1" "$2" "$3" "$4" 9 | sort -n | tail -1; }

# Share of the line rate a run used: payload bits over seconds over the rate.
line_share() {
  awk -v b="$1" -v s="$2" -v r="$(profile_rate_mbit "$3")" 'BEGIN { if (s > 0) printf "%.3f", b * 8 / s / (r * 1e6); else print "nan" }'
}

# "workload profile bytes runs xf rsync tar" per link pair, then the same
# for local pairs with cp in the tar column: one tab-separated line each.
summarize_kind() {
  local kind=$1 second=$2 third=$3 workload location
  while IFS=$'\t' read -r workload location; do
    printf '%s\t%s\t%s\t%s' "$workload" "$location" "$(bytes_of "$kind" "$workload" "$location")" \
      "$(run_count "$kind" "$workload" "$location" xferfm)"
    for tool in xferfm "$second" "$third"; do printf '\t%s' "$(median_seconds "$kind" "$workload" "$location" "$tool")"; done
    printf '\n'
  done < <(pairs_of "$kind")
}

# Target verdicts: "name<TAB>workload<TAB>where<TAB>measured<TAB>verdict".
link_targets() {
  local w p bytes runs xf rs tar share tool side rss
  while IFS=$'\t' read -r w p bytes runs xf rs tar; do
    local label
    label=$(profile_label "$p")
    case $p/$w in
      slow/small)
        printf 'xferfm <= 1.0 x rsync\t%s\t%s\t%s x\t%s\n' "$w" "$label" "$(ratio "$xf" "$rs")" "$(verdict "$(ratio "$xf" "$rs")" "<=" 1.0)"
        printf 'xferfm <= 1.5 x tar stream\t%s\t%s\t%s x\t%s\n' "$w" "$label" "$(ratio "$xf" "$tar")" "$(verdict "$(ratio "$xf" "$tar")" "<=" 1.5)"
        ;;
      slow/mixed | fast/small)
        printf 'xferfm <= 1.0 x rsync\t%s\t%s\t%s x\t%s\n' "$w" "$label" "$(ratio "$xf" "$rs")" "$(verdict "$(ratio "$xf" "$rs")" "<=" 1.0)"
        ;;
      slow/large)
        share=$(line_share "$bytes" "$xf" "$p")
        printf 'xferfm >= 97 %% of the line rate\t%s\t%s\t%s\t%s\n' "$w" "$label" "$share" "$(verdict "$share" ">=" 0.97)"
        ;;
    esac
    for side in send recv; do
      if [ "$side" = send ]; then rss=$(peak_rss link "$w" "$p" xferfm); else rss=$(peak_recv_rss link "$w" "$p" xferfm); fi
      printf 'xferfm %s peak RSS <= 64 MiB\t%s\t%s\t%s MiB\t%s\n' "$side" "$w" "$label" "$(mib "$rss")" "$(verdict "$rss" "<=" 65536)"
    done
  done < <(summarize_kind link rsync tar)
  while IFS=$'\t' read -r w l bytes runs xf cp rs; do
    case $w in
      many) printf 'xferfm copy <= 1.0 x rsync -a\t%s\t%s\t%s x\t%s\n' "$w" "$l" "$(ratio "$xf" "$rs")" "$(verdict "$(ratio "$xf" "$rs")" "<=" 1.0)" ;;
      large) printf 'xferfm copy <= 1.3 x cp -r\t%s\t%s\t%s x\t%s\n' "$w" "$l" "$(ratio "$xf" "$cp")" "$(verdict "$(ratio "$xf" "$cp")" "<=" 1.3)" ;;
    esac
    rss=$(peak_rss local "$w" "$l" xferfm)
    printf 'xferfm copy peak RSS <= 64 MiB\t%s\t%s\t%s MiB\t%s\n' "$w" "$l" "$(mib "$rss")" "$(verdict "$rss" "<=" 65536)"
  done < <(summarize_kind local cp rsync)
}

print_link_results() {
  local name w where measured result
  say ""
  say "Targets (median seconds over $RUNS run(s)):"
  while IFS=$'\t' read -r name w where measured result; do
    say "  $name: $w, $where: $measured: $result"
  done < <(link_targets)
}

rss_pair() { echo "$(mib "$(peak_rss link "$1" "$2" "$3")") / $(mib "$(peak_recv_rss link "$1" "$2" "$3")")"; }

# Writes the "link benchmark" section into FILE (the rest of it stays).
write_link_section() {
  local file=$1 body=$SCRATCH/link-section.md w p l bytes runs xf rs tar cp name where measured result
  {
    echo "## Over a shaped link"
    echo
    if [ "$PARTIAL" = 1 ] || [ "$RUNS" -lt 3 ]; then
      echo "**Partial or single run: proves the script works, says nothing about speed.**"
      echo
    fi
    echo "\`xferfm send\` to \`xferfm serve --once\`, an rsync daemon (\`rsync -a --whole-file\` to a module, the"
    echo "daemon on a loopback port with its own configuration in a temporary directory) and"
    echo "\`tar -cf - . | socat\` to \`socat | tar -xf -\`, each through \`xferfm-link\` (\`bench/link/\`): a TCP"
    echo "proxy on 127.0.0.1 that delays each direction by a one-way delay and caps it with a token bucket,"
    echo "both directions on their own; a connection's first bytes also wait for an emulated handshake."
    echo "Loopback TCP on either side of it still has a sub-millisecond round trip, so TCP's own window"
    echo "growth over the long path is not reproduced; the application's round trips and the line rate"
    echo "are. Sources and destinations are on /dev/shm. The clock runs from the sender's start until both"
    echo "sides have ended. Seconds are medians; peak RSS (MiB, sender / receiver) is the largest"
    echo "\"Maximum resident set size\" of \`/usr/bin/time -v\` over the runs, both ends of a pipe summed."
    echo
    echo "The shaper's own cost, 1 GiB of zeros through socat: $OVERHEAD_DIRECT Mbit/s straight,"
    echo "$OVERHEAD_SHAPED Mbit/s through an unshaped \`xferfm-link\` (the fastest profile is 800 Mbit/s)."
    echo
    echo "| | |"
    echo "|---|---|"
    machine_lines "$DISK_BASE"
    if [ -n "$(pairs_of link)" ]; then
      echo
      echo "| Workload | Link | Runs | xferfm s | rsync s | tar stream s | xferfm / rsync | xferfm / tar | xferfm share of line | RSS xferfm MiB send / receive | RSS rsync MiB | RSS tar MiB |"
      echo "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|"
      while IFS=$'\t' read -r w p bytes runs xf rs tar; do
        echo "| $(link_workload_label "$w") | $(profile_label "$p") | $runs | $xf | $rs | $tar | $(ratio "$xf" "$rs") | $(ratio "$xf" "$tar") | $(line_share "$bytes" "$xf" "$p") | $(rss_pair "$w" "$p" xferfm) | $(rss_pair "$w" "$p" rsync) | $(rss_pair "$w" "$p" tar) |"
      done < <(summarize_kind link rsync tar)
    fi
    if [ -n "$(pairs_of local)" ]; then
      echo
      echo "Local copies: \`xferfm copy --no-progress\`, \`cp -r\`, \`rsync -a\`, each into a fresh destination."
      echo
      echo "| Workload | Location | Runs | xferfm s | cp s | rsync s | xferfm / rsync | xferfm / cp | RSS xferfm MiB | RSS cp MiB | RSS rsync MiB |"
      echo "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|"
      while IFS=$'\t' read -r w l bytes runs xf cp rs; do
        echo "| $(local_workload_label "$w") | $l | $runs | $xf | $cp | $rs | $(ratio "$xf" "$rs") | $(ratio "$xf" "$cp") | $(mib "$(peak_rss local "$w" "$l" xferfm)") | $(mib "$(peak_rss local "$w" "$l" cp)") | $(mib "$(peak_rss local "$w" "$l" rsync)") |"
      done < <(summarize_kind local cp rsync)
    fi
    echo
    echo "| Target | Workload | Link or location | Measured | Result |"
    echo "|---|---|---|--:|---|"
    while IFS=$'\t' read -r name w where measured result; do
      echo "| $name | $w | $where | $measured | $result |"
    done < <(link_targets)
    if [ ${#NOTES[@]} -gt 0 ]; then
      echo
      printf -- '- %s\n' "${NOTES[@]}"
    fi
  } >"$body"
  replace_section "$file" "link benchmark" "$body"
  say "wrote the link benchmark section of $file"
}
