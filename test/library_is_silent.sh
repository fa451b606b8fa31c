#!/bin/sh
# The image library and the codecs record error codes and never print or
# end the process: no object file of theirs may call a function that
# prints, reach standard output or standard error, call the message
# service, or exit. The one out-of-memory path (alert_outOfMemory) and the
# assertion (check_failed) are its only ways out. Writing HEX text with
# fwrite/fflush to a stream the caller passed is the writer's job.
# Usage: library_is_silent.sh path/to/libromweld_image.a [more libraries]
for lib in "$@"; do
[ -f "$lib" ] || { echo "no library at \"$lib\""; exit 2; }
undefined=$(nm -u -P "$lib") || exit 2
# clang calls std::terminate from a helper of its own where an exception
# would leave a noexcept function; that is the compiler's path, not ours.
clangTerminate=$(nm -P --defined-only "$lib" | awk '/:$/ { o = $1 } $1 == "__clang_call_terminate" { printf "%s ", o }')
hits=$(printf '%s\n' "$undefined" | awk -v clang="$clangTerminate" '
  BEGIN {
    split(clang, objs, " ")
    for (i in objs) compilerTerminate[objs[i]] = 1
    n = split("printf fprintf vprintf vfprintf dprintf vdprintf " \
              "__printf_chk __fprintf_chk __vprintf_chk __vfprintf_chk __dprintf_chk " \
              "puts fputs putc fputc putchar puts_unlocked fputs_unlocked putc_unlocked " \
              "fputc_unlocked putchar_unlocked perror psignal psiginfo syslog vsyslog " \
              "err errx verr verrx warn warnx vwarn vwarnx error error_at_line " \
              "stdout stderr _ZSt4cout _ZSt4cerr _ZSt4clog _ZSt5wcout _ZSt5wcerr _ZSt5wclog " \
              "exit _exit _Exit quick_exit abort __assert_fail _ZSt9terminatev " \
              "_Z7version_printv", names, " ")
    for (i = 1; i <= n; i++) banned[names[i]] = 1
  }
  /:$/ { object = $1; next }
  {
    sym = $1
    sub(/@.*/, "", sym)
    # The message service prints: only its out-of-memory path is allowed.
    if (sym == "_ZSt9terminatev" && compilerTerminate[object])
      next
    if (banned[sym] || (sym ~ /^_Z[0-9]+alert/ && sym != "_Z17alert_outOfMemoryv"))
      print object " " sym
  }')
if [ -n "$hits" ]; then
  echo "$(basename "$lib") prints or exits:"
  echo "$hits"
  exit 1
fi
echo "no printing or exiting in $(basename "$lib")"
done
