# Source trees for compare.sh. Sourced, not run. Contents are random so no
# layer can shortcut zeros; each generator prints nothing and fails loudly.

# One file of $2 bytes at $1.
make_file() {
  local path=$1 bytes=$2
  head -c "$bytes" /dev/urandom >"$path"
}

# $2 files of $3 bytes under $1, at most $4 files per directory
# (directories d000, d001, ...). A random blob is cut into the files by
# split, one call per directory, so 100,000 files take seconds, not minutes.
make_many_files() {
  local root=$1 count=$2 size=$3 per_dir=$4
  local blob=$root.blob dir index=0 left=$count take
  mkdir -p "$root"
  make_file "$blob" $((per_dir * size))
  while [ "$left" -gt 0 ]; do
    take=$((left < per_dir ? left : per_dir))
    dir=$(printf '%s/d%03d' "$root" "$index")
    mkdir -p "$dir"
    head -c $((take * size)) "$blob" | split -b "$size" -a 5 -d - "$dir/f"
    left=$((left - take))
    index=$((index + 1))
  done
  rm -f "$blob"
}

# The three comparison workloads: make_workload NAME ROOT -> tree at ROOT.
#   A: one big file; B: many 4 KiB files in 100 directories; C: mid-size files.
make_workload() {
  local name=$1 root=$2
  mkdir -p "$root"
  case $name in
    A) make_file "$root/big.bin" "$A_BYTES" ;;
    B) make_many_files "$root" "$B_FILES" 4096 $(((B_FILES + 99) / 100)) ;;
    C) make_many_files "$root" "$C_FILES" "$C_BYTES" "$C_FILES" ;;
  esac
}

# Bytes a workload's source holds.
workload_bytes() {
  case $1 in
    A) echo "$A_BYTES" ;;
    B) echo $((B_FILES * 4096)) ;;
    C) echo $((C_FILES * C_BYTES)) ;;
  esac
}

# Room one copy takes on disk: the data plus a block per file and directory.
workload_room() {
  case $1 in
    A) echo $((A_BYTES + 65536)) ;;
    B) echo $((B_FILES * 8192 + 100 * 4096)) ;;
    C) echo $((C_FILES * (C_BYTES + 4096))) ;;
  esac
}

workload_label() {
  case $1 in
    A) echo "A: 1 file of $(human_bytes "$A_BYTES")" ;;
    B) echo "B: $B_FILES files of 4 KiB in 100 dirs" ;;
    C) echo "C: $C_FILES files of $(human_bytes "$C_BYTES")" ;;
  esac
}

human_bytes() {
  awk -v b="$1" 'BEGIN {
    split("B KiB MiB GiB TiB", u, " "); i = 1
    while (b >= 1024 && i < 5) { b /= 1024; i++ }
    if (b == int(b)) printf "%d %s\n", b, u[i]; else printf "%.1f %s\n", b, u[i] }'
}
