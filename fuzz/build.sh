#!/bin/sh
# Builds the reader's fuzz target with clang (libFuzzer + AddressSanitizer):
#   fuzz/build.sh [outdir]   then   outdir/ihex_fuzz -max_total_time=300 outdir/corpus fuzz/seeds
set -e
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/build/fuzz}
mkdir -p "$out/corpus"
src=$(ls "$root"/src/ihex/*.cpp "$root"/src/common/*.cpp | grep -v '_test\.cpp$')
clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$root/src" "$root/fuzz/ihex_fuzz.cpp" $src -o "$out/ihex_fuzz"
echo "$out/ihex_fuzz"
