# Prints the results of compare.sh and writes performance.md,
# performance.png and scaling.png into OUT_DIR. Sourced, not run.
# Needs summary.sh and sections.sh.

machine_lines() {
  local disk_dir=$1 source fstype device model
  source=$(df -P "$disk_dir" | awk 'NR == 2 { print $1 }')
  fstype=$(findmnt -no FSTYPE -T "$disk_dir" 2>/dev/null || stat -f -c %T "$disk_dir")
  device=$(lsblk -no PKNAME "$source" 2>/dev/null | head -1)
  [ -n "$device" ] || device=$(basename "$source")
  model=$(lsblk -dno MODEL "/dev/$device" 2>/dev/null | awk '{ $1 = $1; print }')
  local size rota
  size=$(lsblk -dno SIZE "/dev/$device" 2>/dev/null | tr -d ' ')
  rota=$(lsblk -dno ROTA "/dev/$device" 2>/dev/null | tr -d ' ')
  echo "| nproc | $(nproc) |"
  echo "| memory | $(awk '/^MemTotal:/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo) |"
  echo "| kernel | $(uname -sr) |"
  echo "| CPU | $(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo) |"
  echo "| disk (for \"disk\") | $source ($fstype), ${model:-no model name}, ${size:-size unknown}, rotational ${rota:-unknown}; runs in $disk_dir |"
  echo "| /dev/shm (for \"shm\") | tmpfs, $(df -P -h /dev/shm | awk 'NR == 2 { print $2 }') |"
  echo "| date | $(date -u '+%Y-%m-%d %H:%M UTC') |"
  echo "| command | \`$COMMAND_LINE\` |"
  echo "| xferfm | $XFERFM ($(git -C "$REPO" rev-parse --short HEAD 2>/dev/null || echo unknown)) |"
}

print_compare() {
  local summary=$1
  [ -s "$summary" ] || return 0
  say ""
  say "Comparison (median seconds over the runs, peak RSS over the runs):"
  while IFS=$'\t' read -r w l bytes runs xf cp tar xr cr tr; do
    say "$(workload_label "$w") on $l, $runs runs each"
    say "$(printf '  %-7s %9.3f s %9s MiB/s  peak RSS %7s MiB' xferfm "$xf" "$(mib_per_s "$bytes" "$xf")" "$(mib "$xr")")"
    say "$(printf '  %-7s %9.3f s %9s MiB/s  peak RSS %7s MiB' cp "$cp" "$(mib_per_s "$bytes" "$cp")" "$(mib "$cr")")"
    say "$(printf '  %-7s %9.3f s %9s MiB/s  peak RSS %7s MiB' tar "$tar" "$(mib_per_s "$bytes" "$tar")" "$(mib "$tr")")"
    say "  xferfm/cp $(ratio "$xf" "$cp")   xferfm/tar $(ratio "$xf" "$tar")"
    while IFS=$'\t' read -r name measured result; do
      say "  target: $name: $measured, $result"
    done < <(targets_of "$w" "$xf" "$cp" "$tar" "$xr")
  done <"$summary"
}

# "kbps deviation_percent verdict" of the bandwidth runs, or nothing.
bandwidth_result() {
  local location seconds bytes
  location=$(awk -F'\t' '$1 == "bandwidth" { print $3; exit }' "$RESULTS")
  [ -n "$location" ] || return 0
  seconds=$(median_seconds bandwidth limit "$location" xferfm)
  bytes=$(bytes_of bandwidth limit "$location")
  awk -v b="$bytes" -v s="$seconds" -v t="$BANDWIDTH_KBPS" 'BEGIN {
    k = b * 8 / 1000 / s; d = (k - t) / t * 100
    printf "%.0f %+.1f %s\n", k, d, (d <= 5 && d >= -5) ? "met" : "NOT_met" }'
}

print_bandwidth() {
  local result
  result=$(bandwidth_result)
  [ -n "$result" ] || return 0
  set -- $result
  say ""
  say "Bandwidth: $(human_bytes "$BANDWIDTH_BYTES") with --bandwidth $BANDWIDTH_KBPS: measured $1 kbps ($2 %), target +-5 %: ${3/_/ }"
}

# "fixed slope r2" of xferfm's scaling in a kind and location.
scaling_fit() { scaling_points "$1" "$2" xferfm | fit_line; }

print_scaling() {
  local location fit
  for location in $(scaling_locations); do
    say ""
    say "Scaling on $location (median seconds):"
    say "  files   xferfm      cp"
    paste -d' ' <(scaling_points scale-count "$location" xferfm) <(scaling_points scale-count "$location" cp | cut -d' ' -f2) |
      while read -r n xf cp; do say "$(printf '  %6s %8.3f %8.3f' "$n" "$xf" "$cp")"; done
    fit=$(scaling_fit scale-count "$location")
    [ -n "$fit" ] && set -- $fit && say "$(awk -v a="$1" -v b="$2" -v r="$3" 'BEGIN { printf "  fit: %.1f us per file + %.3f s fixed (R^2 %.4f)", b * 1e6, a, r }')"
    say "  bytes        xferfm      cp"
    paste -d' ' <(scaling_points scale-size "$location" xferfm) <(scaling_points scale-size "$location" cp | cut -d' ' -f2) |
      while read -r n xf cp; do say "$(printf '  %-10s %8.3f %8.3f' "$(human_bytes "$n")" "$xf" "$cp")"; done
    fit=$(scaling_fit scale-size "$location")
    [ -n "$fit" ] && set -- $fit && say "$(awk -v a="$1" -v b="$2" -v r="$3" 'BEGIN { printf "  fit: %.3f s per GiB (%.0f MiB/s) + %.3f s fixed (R^2 %.4f)", b * 1073741824, 1 / (b * 1048576), a, r }')"
  done
}

write_markdown() {
  local summary=$1 out=$OUT_DIR/performance.md kept
  # The link benchmark's section is that script's: carried over as it was.
  kept=$(section_of "$out" "link benchmark")
  {
    echo "# Performance"
    echo
    if [ "$QUICK" = 1 ]; then
      echo "**Quick run with tiny workloads and one run each: proves the script works, says nothing about speed.**"
      echo
    fi
    echo "Copy time of \`xferfm copy --no-progress\` (flow control off) against \`cp -r\` and"
    echo "\`tar -cf - -C src . | tar -xf - -C dest\` on the same source, written by \`bench/compare.sh\`"
    echo "(run through \`scripts/bench.sh\`). Each tool runs in turn (xferfm, cp, tar, xferfm, ...) into a"
    echo "fresh destination; the source is warm in the page cache and no tool flushes its writes (a \`sync\`"
    echo "runs before each timed run, outside the timing). Seconds are medians; peak RSS is the largest"
    echo "\"Maximum resident set size\" of \`/usr/bin/time -v\` over the runs (for tar the sum of both ends of"
    echo "the pipe, which run together)."
    echo
    echo "## Machine"
    echo
    echo "| | |"
    echo "|---|---|"
    machine_lines "$DISK_BASE"
    if [ -s "$summary" ]; then
      echo
      echo "## Comparison"
      echo
      echo "| Workload | Location | Runs | xferfm s | cp s | tar s | xferfm MiB/s | cp MiB/s | tar MiB/s | xferfm/cp | xferfm/tar | RSS xferfm MiB | RSS cp MiB | RSS tar MiB |"
      echo "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|"
      while IFS=$'\t' read -r w l bytes runs xf cp tar xr cr tr; do
        echo "| $(workload_label "$w") | $l | $runs | $xf | $cp | $tar | $(mib_per_s "$bytes" "$xf") | $(mib_per_s "$bytes" "$cp") | $(mib_per_s "$bytes" "$tar") | $(ratio "$xf" "$cp") | $(ratio "$xf" "$tar") | $(mib "$xr") | $(mib "$cr") | $(mib "$tr") |"
      done <"$summary"
      echo
      echo "![MiB/s per workload](performance.png)"
    fi
    echo
    echo "## Targets"
    echo
    echo "| Target | Workload | Location | Measured | Result |"
    echo "|---|---|---|--:|---|"
    if [ -s "$summary" ]; then
      while IFS=$'\t' read -r w l bytes runs xf cp tar xr cr tr; do
        while IFS=$'\t' read -r name measured result; do
          echo "| $name | $w | $l | $measured | $result |"
        done < <(targets_of "$w" "$xf" "$cp" "$tar" "$xr")
      done <"$summary"
    fi
    local bw
    bw=$(bandwidth_result)
    if [ -n "$bw" ]; then
      set -- $bw
      echo "| bandwidth within +-5 % of $BANDWIDTH_KBPS kbps | $(human_bytes "$BANDWIDTH_BYTES") file | $(awk -F'\t' '$1 == "bandwidth" { print $3; exit }' "$RESULTS") | $1 kbps ($2 %) | ${3/_/ } |"
    fi
    write_scaling_markdown
    if [ -s "$OUT_DIR/micro.txt" ]; then
      echo
      echo "## Engine micro-benchmarks"
      echo
      echo "\`build-bench/bench/xferfm-bench\` (64 KiB chunks, log sink installed that drops every line):"
      echo
      echo '```'
      cat "$OUT_DIR/micro.txt"
      echo '```'
    fi
    # Where the time goes, from bench/profile.sh: kept by hand beside the
    # scripts, since a profile needs reading, not just running.
    if [ "$QUICK" = 0 ] && [ -s "$HERE/analysis.md" ]; then
      echo
      cat "$HERE/analysis.md"
    fi
    if [ ${#NOTES[@]} -gt 0 ]; then
      echo
      echo "## Notes"
      echo
      printf -- '- %s\n' "${NOTES[@]}"
    fi
    if [ -n "$kept" ]; then
      echo
      echo "$kept"
    fi
  } >"$out"
  say "wrote $out"
}

write_scaling_markdown() {
  local location fit
  for location in $(scaling_locations); do
    echo
    echo "## Scaling on $location"
    echo
    echo "xferfm against cp, median of $SCALING_RUNS run(s) per point."
    echo
    echo "| Files of 4 KiB | xferfm s | cp s |"
    echo "|--:|--:|--:|"
    paste -d' ' <(scaling_points scale-count "$location" xferfm) <(scaling_points scale-count "$location" cp | cut -d' ' -f2) |
      while read -r n xf cp; do echo "| $n | $xf | $cp |"; done
    fit=$(scaling_fit scale-count "$location")
    set -- $fit
    echo
    awk -v a="$1" -v b="$2" -v r="$3" 'BEGIN { printf "Fitted: %.1f µs per file + %.3f s fixed, R² %.4f.\n", b * 1e6, a, r }'
    echo
    echo "| File size | xferfm s | cp s |"
    echo "|--:|--:|--:|"
    paste -d' ' <(scaling_points scale-size "$location" xferfm) <(scaling_points scale-size "$location" cp | cut -d' ' -f2) |
      while read -r n xf cp; do echo "| $(human_bytes "$n") | $xf | $cp |"; done
    fit=$(scaling_fit scale-size "$location")
    set -- $fit
    echo
    awk -v a="$1" -v b="$2" -v r="$3" 'BEGIN { printf "Fitted: %.3f s per GiB (%.0f MiB/s) + %.3f s fixed, R² %.4f.\n", b * 1073741824, 1 / (b * 1048576), a, r }'
  done
  if [ -n "$(scaling_locations)" ]; then
    echo
    echo "![time against file count and file size](scaling.png)"
  fi
}

plot_compare() {
  local summary=$1 data=$SCRATCH/compare.dat
  [ -s "$summary" ] || return 0
  while IFS=$'\t' read -r w l bytes runs xf cp tar xr cr tr; do
    printf '"%s %s" %s %s %s\n' "$w" "$l" "$(mib_per_s "$bytes" "$xf")" "$(mib_per_s "$bytes" "$cp")" "$(mib_per_s "$bytes" "$tar")"
  done <"$summary" >"$data"
  gnuplot <<GNUPLOT
set terminal png size 1000,560
set output '$OUT_DIR/performance.png'
set title 'Copy rate per workload (median MiB/s, higher is better)'
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set ylabel 'MiB/s'
set yrange [0:*]
set grid ytics
set key top right
plot '$data' using 2:xtic(1) title 'xferfm', '' using 3 title 'cp -r', '' using 4 title 'tar | tar'
GNUPLOT
  say "wrote $OUT_DIR/performance.png"
}

plot_scaling() {
  local locations location plots_count="" plots_size="" i=0
  locations=$(scaling_locations)
  [ -n "$locations" ] || return 0
  for location in $locations; do
    for tool in xferfm cp; do
      scaling_points scale-count "$location" "$tool" >"$SCRATCH/count-$location-$tool.dat"
      scaling_points scale-size "$location" "$tool" | awk '{ print $1 / 1048576, $2 }' >"$SCRATCH/size-$location-$tool.dat"
      i=$((i + 1))
      plots_count+="'$SCRATCH/count-$location-$tool.dat' using 1:2 with linespoints lw 2 title '$tool ($location)', "
      plots_size+="'$SCRATCH/size-$location-$tool.dat' using 1:2 with linespoints lw 2 title '$tool ($location)', "
    done
    # The fitted straight line of xferfm, drawn over the measured points.
    set -- $(scaling_fit scale-count "$location")
    [ "$1" != nan ] && plots_count+="$1 + $2 * x with lines dt 2 lc rgb 'gray40' title 'xferfm fit ($location)', "
    set -- $(scaling_fit scale-size "$location")
    [ "$1" != nan ] && plots_size+="$1 + $2 * 1048576 * x with lines dt 2 lc rgb 'gray40' title 'xferfm fit ($location)', "
  done
  gnuplot <<GNUPLOT
set terminal png size 1200,520
set output '$OUT_DIR/scaling.png'
set multiplot layout 1,2 title 'Total copy time (log-log: a slope of one is linear growth)'
set logscale xy
set samples 400
set grid
set key top left
set xlabel 'files of 4 KiB'
set ylabel 'seconds'
plot ${plots_count%, }
set xlabel 'file size (MiB)'
plot ${plots_size%, }
unset multiplot
GNUPLOT
  say "wrote $OUT_DIR/scaling.png"
}
