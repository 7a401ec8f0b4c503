#!/usr/bin/env bash
# scripts/test.sh [MODE...]: builds and runs the tests. Modes (default: all):
#   unit     release build with warnings as errors; every test; a benchmark smoke run
#   asan     every test under AddressSanitizer and UndefinedBehaviorSanitizer
#   tsan     every test under ThreadSanitizer
#   fuzz     the libFuzzer targets (clang): loaders for FUZZ_SECONDS seconds (60), colour
#            tools for COLOUR_FUZZ_SECONDS (20), the EXIF reader for a third of FUZZ_SECONDS
#   package  install, then build a consumer with find_package(Vload) and pkg-config
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh
need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"

modes=("$@")
[ ${#modes[@]} -eq 0 ] && modes=(unit asan tsan fuzz package)

configure() {  # configure DIR [cmake options...] [-- targets...]
  local dir=$1 options=() targets=()
  shift
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do options+=("$1"); shift; done
  [ $# -gt 0 ] && shift && targets=(--target "$@")
  cmake -S . -B "$dir" -G Ninja -DVLOAD_WERROR=ON "${options[@]}" >/dev/null
  cmake --build "$dir" -j "$(jobs)" "${targets[@]}"
}

run_unit() {
  configure build/unit -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLOAD_BENCH=ON
  ctest --test-dir build/unit -j "$(jobs)" --output-on-failure
  build/unit/bench/loaders_bench --benchmark_min_time=0.01 --benchmark_filter=bmp8 >/dev/null
  echo "== unit: passed"
}

run_asan() {
  configure build/asan -DCMAKE_BUILD_TYPE=Debug -DVLOAD_SANITIZE=ON
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build/asan -j "$(jobs)" --output-on-failure
  echo "== asan: passed"
}

run_tsan() {
  CC=clang CXX=clang++ configure build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLOAD_TSAN=ON
  TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build/tsan -j "$(jobs)" --output-on-failure
  echo "== tsan: passed"
}

fuzz_target() {  # fuzz_target NAME SECONDS DIR... : runs one libFuzzer target, fails the run on a find
  local name=$1 seconds=$2 work=build/fuzz/run rc=0
  shift 2
  mkdir -p "$work/$name-artifacts"
  "build/fuzz/fuzz/$name" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -print_final_stats=1 -artifact_prefix="$work/$name-artifacts/" "$@" >"$work/$name.log" 2>&1 || rc=$?
  grep -E '^(stat::|SUMMARY)' "$work/$name.log" || true
  if [ "$rc" -ne 0 ] || [ -n "$(ls -A "$work/$name-artifacts")" ]; then
    tail -n 60 "$work/$name.log" >&2
    echo "== fuzz: $name failed (exit $rc); inputs in $work/$name-artifacts" >&2
    exit 1
  fi
}

run_fuzz() {
  CC=clang CXX=clang++ configure build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLOAD_FUZZ=ON \
    -DVLOAD_TESTS=OFF -- loader_fuzzer colour_fuzzer exif_fuzzer make_seeds
  local work=build/fuzz/run
  rm -rf "$work" && mkdir -p "$work/corpus" "$work/seeds" "$work/colour-corpus" "$work/exif-corpus" \
    "$work/exif-seeds"
  build/fuzz/fuzz/make_seeds "$work/seeds" "$work/exif-seeds" >/dev/null
  local dirs=("$work/corpus" "$work/seeds")
  [ -d fuzz/regressions ] && dirs+=(fuzz/regressions)
  for d in bmp wif gif pcx pnm psd palette png jpeg tiff webp; do
    [ -d "../shared/corpus/$d" ] && dirs+=("../shared/corpus/$d")
  done
  local exif_dirs=("$work/exif-corpus" "$work/exif-seeds")
  [ -d fuzz/regressions/exif ] && exif_dirs+=(fuzz/regressions/exif)
  local seconds=${FUZZ_SECONDS:-60}
  fuzz_target loader_fuzzer "$seconds" "${dirs[@]}"
  fuzz_target colour_fuzzer "${COLOUR_FUZZ_SECONDS:-20}" "$work/colour-corpus" fuzz/colour-regressions
  fuzz_target exif_fuzzer $(( (seconds + 2) / 3 )) "${exif_dirs[@]}"
  echo "== fuzz: passed"
}

run_package() {
  configure build/package -DCMAKE_BUILD_TYPE=Release -DVLOAD_TESTS=OFF
  local prefix
  prefix=$(realpath build/package)/prefix
  rm -rf "$prefix"
  cmake --install build/package --prefix "$prefix" >/dev/null
  cmake -S tests/package -B build/package/consumer -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build build/package/consumer
  build/package/consumer/consumer
  cc tests/package/consumer.c -o build/package/pc-consumer \
    $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs vload) -Wl,-rpath,"$prefix/lib"
  build/package/pc-consumer
  "$prefix/bin/vload" formats >/dev/null
  echo "== package: passed"
}

for mode in "${modes[@]}"; do
  case "$mode" in
    unit | asan | tsan | fuzz | package) "run_$mode" ;;
    *) echo "unknown mode: $mode (unit asan tsan fuzz package)" >&2; exit 2 ;;
  esac
done
