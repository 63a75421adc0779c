#!/usr/bin/env bash
# Runs every fuzz target of a build for a bounded time each.
#   fuzz/run.sh <build-dir> <seconds-per-target>
# Exits non-zero when a target reports a finding; the input that caused it is
# left in <build-dir>/fuzz/findings/.
set -euo pipefail
if [[ $# -ne 2 ]]; then
  echo "usage: $0 <build-dir> <seconds-per-target>" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)

mapfile -t targets < <(find "$build/fuzz" -maxdepth 1 -type f -executable -name 'fuzz_*' | sort)
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "no fuzz targets in $build/fuzz (configure with -DCORVANTH_BUILD_FUZZ=ON)" >&2
  exit 2
fi

# The library's log assertions fire on most hostile inputs; writing them out
# would only slow the run.
export CORVANTH_LOG=none
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

findings="$build/fuzz/findings"
mkdir -p "$findings"
failed=0
for target in "${targets[@]}"; do
  name=$(basename "$target")
  corpus="$build/fuzz/corpus/$name"
  mkdir -p "$corpus"
  seeds=()
  [[ -d "$here/corpus/$name" ]] && seeds=("$here/corpus/$name")
  echo "=== $name: ${seconds}s"
  if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/$name-" "$corpus" "${seeds[@]}"; then
    echo "=== $name: FINDING (see $findings)" >&2
    failed=1
  fi
done
exit $failed
