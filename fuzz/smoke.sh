#!/bin/sh
# Runs every fuzz target in $1 over its seeds in $2/<target>/ (read only: new inputs land in a
# scratch directory), with a fixed seed and run count so that a run repeats exactly, and at most
# $3 seconds each. Fails when a target finds a crash, after trying them all.
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
  if "$target" -seed=1 -runs=200000 -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=0 \
      -artifact_prefix="$scratch/" "$scratch/$name" $seeds >"$scratch/$name.log" 2>&1; then
    echo "fuzz $name: ok"
  else
    echo "fuzz $name: FAILED"; tail -40 "$scratch/$name.log"; status=1
  fi
done
exit $status
