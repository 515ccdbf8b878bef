#!/bin/sh
# Runs every fuzz target in $1 for $3 seconds over its seeds in $2/<target>/ (read only: new
# inputs land in a scratch directory). Fails on the first target that finds a crash.
set -eu
bin=$1 corpus=$2 seconds=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
for target in "$bin"/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  mkdir -p "$scratch/$name"
  seeds=""
  [ -d "$corpus/$name" ] && seeds="$corpus/$name"
  if "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=0 \
      -artifact_prefix="$scratch/" "$scratch/$name" $seeds >"$scratch/$name.log" 2>&1; then
    echo "fuzz $name: ok"
  else
    echo "fuzz $name: FAILED"; tail -40 "$scratch/$name.log"; status=1
  fi
done
exit $status
