#!/usr/bin/env bash
# Whole-run benchmark: romweld against GNU objcopy (conversion) and
# srec_cat (merging) on generated images. Builds a release romweld, makes the
# inputs with hexgen_gen, checks that every output holds the same memory,
# and prints median times, ratios and peak memory.
#   bench/run.sh            RUNS=5 by default; ROMWELD=path to use a given binary
set -euo pipefail
export LC_NUMERIC=C # EPOCHREALTIME with a decimal point
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BENCH_BUILD:-$root/build/bench}
runs=${RUNS:-5}
seed=${SEED:-1}

need=()
command -v objcopy >/dev/null || need+=(binutils)
command -v srec_cat >/dev/null || need+=(srecord)
[ -x /usr/bin/time ] || need+=(time)
if [ ${#need[@]} -gt 0 ]; then
  apt-get install -y -q "${need[@]}" >/dev/null || { apt-get update -q >/dev/null && apt-get install -y -q "${need[@]}" >/dev/null; }
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DROMWELD_BENCH=ON \
  -DROMWELD_STATIC=ON -DROMWELD_TESTS=OFF \
  ${BENCH_CXXFLAGS:+-DCMAKE_CXX_FLAGS="$BENCH_CXXFLAGS"} >/dev/null
ninja -C "$build" hexgen_gen $([ -z "${ROMWELD:-}" ] && echo romweld) >/dev/null
romweld=${ROMWELD:-$build/romweld}

data=$build/data
out=$build/out
mkdir -p "$data" "$out"
mark="inputs-v2-seed-$seed" # bump when hexgen_gen writes other files
if [ ! -f "$data/$mark" ]; then
  rm -f "$data"/*
  "$build/hexgen_gen" "$data" "$seed"
  touch "$data/$mark"
fi
tiny=$data/tiny.hex # one data record: a run that is all start-up
[ -f "$tiny" ] || printf ':0400000001020304F2\n:00000001FF\n' > "$tiny"

# measure NAME CMD...: runs CMD $runs times; sets med (seconds) and peak (KiB).
# The command must exit with status $want (0 unless set).
measure() {
  local name=$1; shift
  local times=() peaks=() rc
  for ((i = 0; i < runs; i++)); do
    rc=0
    /usr/bin/time -f "%e %M" -o "$out/$name.time" "$@" >/dev/null 2>"$out/$name.err" || rc=$?
    if [ "$rc" != "${want:-0}" ]; then
      echo "$name exited with $rc:"; cat "$out/$name.err"; exit 1; fi
    read -r t m < <(tail -n 1 "$out/$name.time") # a failing command adds a line first
    times+=("$t"); peaks+=("$m")
  done
  med=$(printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
  peak=$(printf '%s\n' "${peaks[@]}" | sort -n | tail -1)
}

# batch N CMD...: runs CMD N times back to back; prints the time of one run
# (seconds), for commands too short for time's 10 ms steps.
batch() {
  local n=$1 s e j; shift
  s=$EPOCHREALTIME
  for ((j = 0; j < n; j++)); do
    "$@" >/dev/null 2>"$out/batch.err" || { echo "$* failed:" >&2; cat "$out/batch.err" >&2; exit 1; }
  done
  e=$EPOCHREALTIME
  awk -v s="$s" -v e="$e" -v n="$n" 'BEGIN { printf "%.6f", (e - s) / n }'
}
median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# side_by_side NAME N: the commands in the arrays rw_cmd and other_cmd, in
# $runs batches of N runs each, the two taken in turn so that a passing load
# falls on both; sets rmed and med (seconds per run) and rpeak (KiB, one
# more run of rw_cmd).
side_by_side() {
  local name=$1 n=$2 rt=() ot=() i t
  for ((i = 0; i < runs; i++)); do
    t=$(batch "$n" "${rw_cmd[@]}"); rt+=("$t")
    t=$(batch "$n" "${other_cmd[@]}"); ot+=("$t")
  done
  rmed=$(median "${rt[@]}"); med=$(median "${ot[@]}")
  /usr/bin/time -f "%M" -o "$out/$name.time" "${rw_cmd[@]}" >/dev/null 2>&1
  rpeak=$(tail -n 1 "$out/$name.time")
}

same() { # same MEMORY-A MEMORY-B LABEL
  local a b
  a=$(python3 "$root/bench/hexsum.py" "$1"); b=$(python3 "$root/bench/hexsum.py" "$2")
  if [ "$a" != "$b" ]; then echo "MISMATCH in $3: $a vs $b"; exit 1; fi
  echo "$a"
}

printf '%-14s %9s %9s %7s %10s %8s  %s\n' case romweld other ratio "peak KiB" "B/byte" "memory (bytes lo-hi sha)"
row() { # row CASE ROMWELD-MED OTHER-MED PEAK-KIB SUM
  local bytes=${5%% *}
  local ratio per
  ratio=$(awk -v a="$2" -v b="$3" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
  per=$(awk -v k="$4" -v n="$bytes" 'BEGIN { printf "%.2f", k * 1024 / n }')
  printf '%-14s %8ss %8ss %7s %10s %8s  %s\n' "$1" "$2" "$3" "$ratio" "$4" "$per" "$5"
  eval "ratio_$1=$ratio; per_$1=$per; peak_$1=$4"
}

# gen16m FILE STEP LEN ff|ramp|ramp/ff: an Intel HEX file of LEN bytes of
# data at every STEP bytes of the first 16 MiB, all 0xFF, a ramp of values,
# or the ramp in the first half of each LEN bytes and 0xFF in the second.
gen16m() {
  python3 - "$@" <<'PY'
import sys
path, step, n, kind = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
with open(path, "w") as f:
    for addr in range(0, 1 << 24, step):
        if addr % 0x10000 == 0:
            hi = addr >> 16
            s = (2 + 4 + (hi >> 8) + (hi & 0xFF)) & 0xFF
            f.write(":02000004%04X%02X\n" % (hi, -s & 0xFF))
        ramp = n if kind == "ramp" else n // 2 if kind == "ramp/ff" else 0
        rec = bytes((addr + 7 * i) & 0xFF if i < ramp else 0xFF for i in range(n))
        lo = addr & 0xFFFF
        s = (n + (lo >> 8) + (lo & 0xFF) + sum(rec)) & 0xFF
        f.write(":%02X%04X00%s%02X\n" % (n, lo, rec.hex().upper(), -s & 0xFF))
    f.write(":00000001FF\n")
PY
}

# Most images are small, so most runs are mostly start-up: a one-record
# file and the 256 KiB image take a few milliseconds each, timed in batches.
for img in tiny mcu big sparse; do
  if [ "$img" = tiny ] || [ "$img" = mcu ]; then
    rw_cmd=("$romweld" "$data/$img.hex" "-O$out/rw_$img.hex")
    other_cmd=(objcopy -I ihex -O ihex "$data/$img.hex" "$out/oc_$img.hex")
    side_by_side "conv_$img" "$([ "$img" = tiny ] && echo 200 || echo 20)"
  else
    measure "rw_$img" "$romweld" "$data/$img.hex" "-O$out/rw_$img.hex"
    rmed=$med; rpeak=$peak
    measure "oc_$img" objcopy -I ihex -O ihex "$data/$img.hex" "$out/oc_$img.hex"
  fi
  sum=$(same "$out/rw_$img.hex" "$out/oc_$img.hex" "conversion of $img")
  same "$data/$img.hex" "$out/rw_$img.hex" "input of $img" >/dev/null
  row "conv_$img" "$rmed" "$med" "$rpeak" "$sum"
done

measure rw_merge "$romweld" "$data/overlap_a.hex" "$data/overlap_b.hex" "-O$out/rw_merge.hex"
rmed=$med; rpeak=$peak
measure sc_merge srec_cat -redundant-bytes=ignore "$data/overlap_a.hex" -intel \
  "$data/overlap_b.hex" -intel -o "$out/sc_merge.hex" -intel
sum=$(same "$out/rw_merge.hex" "$out/sc_merge.hex" "merge")
row merge "$rmed" "$med" "$rpeak" "$sum"
cleanmed=$rmed; cleanpeak=$rpeak

# The same merge where every overlapping byte differs: the run fails after
# the error limit; it must cost no more than about the clean merge.
want=1 measure rw_conflict "$romweld" "$data/overlap_a.hex" "$data/conflict_b.hex" "-O$out/rw_conflict.hex"
ratio_conflict=$(awk -v a="$med" -v b="$cleanmed" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
mem_conflict=$(awk -v a="$peak" -v b="$cleanpeak" 'BEGIN { printf "%.2f", a / b }')
printf '%-14s %8ss %8ss %7s %10s %8s  %s\n' conflict "$med" "$cleanmed" "$ratio_conflict" "$peak" "" \
  "(other: the clean merge; memory x$mem_conflict)"

# ---- -SERIAL: a long series ----------------------------------------------
# A million 4-byte copies counted up from 1 should cost about what writing
# the same 4 MB costs; "other" is objcopy turning those bytes, made here
# independently, into Intel HEX.
python3 -c 'import sys; sys.stdout.buffer.write(b"".join(i.to_bytes(4, "big") for i in range(1, 1000001)))' \
  > "$out/serial.bin"
measure rw_serial "$romweld" -SERIAL=00000001+1@0+4r1000000 "-O$out/rw_serial.hex"
rmed=$med; rpeak=$peak
measure oc_serial objcopy -I binary -O ihex "$out/serial.bin" "$out/oc_serial.hex"
sum=$(same "$out/rw_serial.hex" "$out/oc_serial.hex" "serial series")
row serial_1M "$rmed" "$med" "$rpeak" "$sum"
# ---- end of -SERIAL --------------------------------------------------------

# ---- find and replace -------------------------------------------------------
# A 4-byte code under a mask, found and replaced over the whole 16 MiB image,
# against converting the same image in the same run. The search must stay
# linear: it may add at most 30% to the conversion. Replacing never changes
# which addresses hold data.
findarg='-find=C000FFE8MF000F0FF@0-FFFFFFFF,replace=5200FFFFMFF00FFFF'
measure rw_conv_again "$romweld" "$data/big.hex" "-O$out/rw_conv_again.hex"
convmed=$med; convpeak=$peak
measure rw_find "$romweld" "$data/big.hex" "$findarg" "-O$out/rw_find.hex"
sum=$(python3 "$root/bench/hexsum.py" "$out/rw_find.hex")
insum=$(python3 "$root/bench/hexsum.py" "$data/big.hex")
[ "${sum% *}" = "${insum% *}" ] || { echo "MISMATCH in find_replace: $sum vs $insum"; exit 1; }
matches=$("$romweld" "$data/big.hex" "$findarg" -O/dev/null -LOGFILE="$out/rw_find.log" >/dev/null 2>&1; grep -c replaced "$out/rw_find.log" || true)
ratio_find=$(awk -v a="$med" -v b="$convmed" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
printf '%-14s %8ss %8ss %7s %10s %8s  %s\n' find_replace "$med" "$convmed" "$ratio_find" "$peak" "" \
  "(other: romweld converting big; $matches matches replaced)"

# A match at every address of big but its last (a limit is left out): 16
# million matches, all deleted. Matches are kept as runs and a run of them
# is deleted at once, so this may take at most 3 times the conversion's
# time and twice its memory.
measure rw_fdel "$romweld" "$data/big.hex" -FIND=00M00@0-FFFFFFFF,DELETE "-O$out/rw_fdel.hex"
left=$(python3 "$root/bench/hexsum.py" "$out/rw_fdel.hex")
[ "${left%% *}" = 1 ] || { echo "MISMATCH in find_delete: $left left"; exit 1; }
ratio_fdel=$(awk -v a="$med" -v b="$convmed" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
mem_fdel=$(awk -v a="$peak" -v b="$convpeak" 'BEGIN { printf "%.2f", a / b }')
printf '%-14s %8ss %8ss %7s %10s %8s  %s\n' find_delete "$med" "$convmed" "$ratio_fdel" "$peak" "" \
  "(other: romweld converting big, $convpeak KiB; memory x$mem_fdel)"
# ---- end of find and replace --------------------------------------------------

# ---- fill and mask ---------------------------------------------------------
# Filling the gaps of big.hex (it starts at 0, so objcopy's gap fill, which
# begins at the first byte, does the same work), the merge pair filled, and
# a 2-byte mask over all 16 MiB against the same run without it.
measure rw_fill "$romweld" "$data/big.hex" -FILL=w1:FF@0:0xFFFFFF "-O$out/rw_fill.hex"
rmed=$med; rpeak=$peak
measure oc_fill objcopy -I ihex -O ihex --gap-fill 0xFF --pad-to 0x1000000 "$data/big.hex" "$out/oc_fill.hex"
sum=$(same "$out/rw_fill.hex" "$out/oc_fill.hex" "fill vs objcopy")
row fill_oc "$rmed" "$med" "$rpeak" "$sum"
measure sc_fill srec_cat "$data/big.hex" -intel -fill 0xFF 0 0x1000000 -o "$out/sc_fill.hex" -intel
sum=$(same "$out/rw_fill.hex" "$out/sc_fill.hex" "fill vs srec_cat")
row fill_sc "$rmed" "$med" "$rpeak" "$sum"

# The gaps of a half-full 16 MiB image (16 bytes of data every 32): every
# row gets two owners, the file's and the fill's, so this is what the notes
# of rows with mixed owners cost. objcopy takes minutes over the half
# million pieces of this file, so "other" is romweld converting it, and the
# result is checked against the filled image made by the script.
half=$data/half16m.hex
[ -f "$half" ] || gen16m "$half" 32 16 ramp
[ -f "$data/half16m_filled.hex" ] || gen16m "$data/half16m_filled.hex" 32 32 ramp/ff
measure rw_hfill "$romweld" "$half" -FILL=w1:FF@0:0xFFFFFF "-O$out/rw_hfill.hex"
rmed=$med; rpeak=$peak
measure rw_hconv "$romweld" "$half" "-O$out/rw_hconv.hex"
sum=$(same "$out/rw_hfill.hex" "$data/half16m_filled.hex" "half-full fill")
row fill_half "$rmed" "$med" "$rpeak" "$sum"

measure rw_mfill "$romweld" "$data/overlap_a.hex" "$data/overlap_b.hex" -FILL=w1:FF@0:0xFFFFFF "-O$out/rw_mfill.hex"
rmed=$med; rpeak=$peak
measure sc_mfill srec_cat -redundant-bytes=ignore "(" "$data/overlap_a.hex" -intel "$data/overlap_b.hex" -intel ")" \
  -fill 0xFF 0 0x1000000 -o "$out/sc_mfill.hex" -intel
sum=$(same "$out/rw_mfill.hex" "$out/sc_mfill.hex" "merge and fill")
row merge_fill "$rmed" "$med" "$rpeak" "$sum"

measure rw_mask "$romweld" "$data/big.hex" -MASK=3FFF@0-FFFFFF "-O$out/rw_mask.hex"
rmed=$med; rpeak=$peak
measure rw_nomask "$romweld" "$data/big.hex" "-O$out/rw_nomask.hex"
row mask "$rmed" "$med" "$rpeak" "$(python3 "$root/bench/hexsum.py" "$out/rw_mask.hex")"

# ---- log file ------------------------------------------------------------------
# The 16 MiB image with its full log (about a million map lines) against the
# same run without it: the log may at most double the time, and adds no
# memory in proportion to the image.
measure rw_log "$romweld" "$data/big.hex" "-O$out/rw_log.hex" "-LOGFILE=$out/rw_log.log"
logmed=$med; logpeak=$peak
measure rw_nolog "$romweld" "$data/big.hex" "-O$out/rw_nolog.hex"
ratio_log=$(awk -v a="$logmed" -v b="$med" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
printf '%-14s %8ss %8ss %7s %10s %8s  %s\n' log "$logmed" "$med" "$ratio_log" "$logpeak" "" \
  "(other: the same run without -LOGFILE, $peak KiB; $(wc -l < "$out/rw_log.log") log lines)"
# ---- end of log file -----------------------------------------------------------

# ---- other formats ---------------------------------------------------------
# The 16 MiB image through each new path against objcopy doing the same job:
# to S-records, to a raw binary, that binary back to Intel HEX, and an ELF of
# the whole image (one 16 MiB section, as a linker leaves firmware) to Intel
# HEX. Every result must hold the memory objcopy's does.
measure rw_srec "$romweld" "$data/big.hex" -FORMAT=SREC "-O$out/rw_big.srec"
rmed=$med; rpeak=$peak
measure oc_srec objcopy -I ihex -O srec "$data/big.hex" "$out/oc_big.srec"
srec_cmp "$out/rw_big.srec" "$out/oc_big.srec" || { echo "MISMATCH in hex_to_srec"; exit 1; }
row hex_to_srec "$rmed" "$med" "$rpeak" "$(python3 "$root/bench/hexsum.py" "$data/big.hex")"
measure rw_tobin "$romweld" "$data/big.hex" -FORMAT=BIN "-O$out/rw_big.bin"
rmed=$med; rpeak=$peak
measure oc_tobin objcopy -I ihex -O binary "$data/big.hex" "$out/oc_big.bin"
cmp "$out/rw_big.bin" "$out/oc_big.bin" || { echo "MISMATCH in hex_to_bin"; exit 1; }
row hex_to_bin "$rmed" "$med" "$rpeak" "$(python3 "$root/bench/hexsum.py" "$data/big.hex")"
measure rw_frombin "$romweld" "$out/oc_big.bin" "-O$out/rw_frombin.hex"
rmed=$med; rpeak=$peak
measure oc_frombin objcopy -I binary -O ihex "$out/oc_big.bin" "$out/oc_frombin.hex"
sum=$(same "$out/rw_frombin.hex" "$out/oc_frombin.hex" "bin to hex")
row bin_to_hex "$rmed" "$med" "$rpeak" "$sum"
objcopy -I binary -O elf32-little "$out/oc_big.bin" "$out/big.elf"
measure rw_elf "$romweld" "$out/big.elf" "-O$out/rw_elf.hex"
rmed=$med; rpeak=$peak
measure oc_elf objcopy -O ihex "$out/big.elf" "$out/oc_elf.hex"
sum=$(same "$out/rw_elf.hex" "$out/oc_elf.hex" "elf to hex")
row elf_to_hex "$rmed" "$med" "$rpeak" "$sum"
# ---- end of other formats ------------------------------------------------------

echo
goal() { awk -v v="$2" -v lim="$3" -v op="$4" 'BEGIN { ok = (op == "<=" ? v <= lim : v < lim); exit !ok }' \
  && echo "met:    $1 ($2 $4 $3)" || echo "missed: $1 ($2, goal $4 $3)"; }
goal "converting one record vs objcopy" "$ratio_conv_tiny" 1.0 "<="
goal "converting mcu (256 KiB) vs objcopy" "$ratio_conv_mcu" 0.6 "<="
goal "converting big vs objcopy" "$ratio_conv_big" 0.7 "<="
goal "merging vs srec_cat" "$ratio_merge" 0.25 "<="
goal "converting sparse vs objcopy" "$ratio_conv_sparse" 0.5 "<="
goal "peak memory, sparse (MiB)" "$(awk -v k="$peak_conv_sparse" 'BEGIN { printf "%.1f", k / 1024 }')" 15 "<="
goal "conflicting merge vs clean merge, time" "$ratio_conflict" 2 "<="
goal "conflicting merge vs clean merge, memory" "$mem_conflict" 2 "<="
goal "peak memory per byte, big" "$per_conv_big" 2.5 "<="
goal "peak memory per byte, merge" "$per_merge" 2.5 "<="
goal "find-and-replace vs conversion, big" "$ratio_find" 1.30 "<="
goal "deleting a match at every byte vs conversion, time" "$ratio_fdel" 3 "<="
goal "deleting a match at every byte vs conversion, memory" "$mem_fdel" 2 "<="
goal "log vs no log, big" "$ratio_log" 2 "<="
goal "fill vs objcopy" "$ratio_fill_oc" 0.5 "<="
goal "fill vs srec_cat" "$ratio_fill_sc" 0.2 "<="
goal "merge and fill vs srec_cat" "$ratio_merge_fill" 0.2 "<="
goal "2-byte mask vs no mask" "$ratio_mask" 1.3 "<="
goal "peak memory per byte, fill" "$per_fill_oc" 2.5 "<="
goal "peak memory per byte, half-full fill" "$per_fill_half" 2.5 "<="
for f in hex_to_srec hex_to_bin bin_to_hex elf_to_hex; do
  goal "$f vs objcopy" "$(eval echo \$ratio_$f)" 0.5 "<="
  goal "peak memory per byte, $f" "$(eval echo \$per_$f)" 2.5 "<="
done

# ---- checksums (-CK) ---------------------------------------------------------
# CRC-32 and SHA-256 stored after 16 MiB of 0xFF, side by side with srec_cat
# filling the same range and storing the same value; the memory written must
# match. romweld fills with -FILL where it has it, else reads the same bytes
# from a HEX file (and then srec_cat reads that file too, so both pay the
# same reading cost). Then the engine alone over 16 MiB in memory.
echo
echo "checksums"
printf '%-14s %9s %9s %7s %10s %8s  %s\n' case romweld srec_cat ratio "peak KiB" "" "memory (bytes lo-hi sha)"
ck_ff=$data/ck_ff16m.hex
[ -f "$ck_ff" ] || gen16m "$ck_ff" 32 32 ff
if "$romweld" -FILL=w1:0xFF@0:0 -O/dev/null >/dev/null 2>&1; then
  # srec_cat refuses a file without data; it generates the same bytes.
  ck_in=(-FILL=w1:0xFF@0:0xFFFFFF); sc_in=(-generate 0 0x1000000 -constant 0xFF); ck_how="fill"
else
  ck_in=("$ck_ff"); sc_in=("$ck_ff" -intel); ck_how="read"
fi
ck_case() { # ck_case NAME ROMWELD-CK SREC_CAT-OPTION...
  local name=$1 ck=$2; shift 2
  measure "rw_$name" "$romweld" "${ck_in[@]}" "$ck" "-O$out/rw_$name.hex"
  local rmed=$med rpeak=$peak
  measure "sc_$name" srec_cat "${sc_in[@]}" "$@" -o "$out/sc_$name.hex" -intel
  local sum; sum=$(same "$out/rw_$name.hex" "$out/sc_$name.hex" "$name")
  row "${name}_$ck_how" "$rmed" "$med" "$rpeak" "$sum"
}
ck_case crc32 "-CK=0-FFFFFF@1000000g-5w-4p04C11DB7+FFFFFFFFoFFFFFFFF" -crc32-l-e 0x1000000
ck_case sha256 "-CK=0-FFFFFF@1000000g10" -sha256 0x1000000
goal "CRC-32 after 16 MiB vs srec_cat ($ck_how)" "$(eval echo \$ratio_crc32_$ck_how)" 0.2 "<="
goal "SHA-256 after 16 MiB vs srec_cat ($ck_how)" "$(eval echo \$ratio_sha256_$ck_how)" 0.2 "<="
ninja -C "$build" checksum_bench >/dev/null 2>&1 && "$build/checksum_bench" --benchmark_min_time=0.5 2>/dev/null |
  awk '/^BM_/ { printf "  %-26s %10s %s  %s\n", $1, $2, $3, $NF }'
# ---- end of checksums ----------------------------------------------------------
