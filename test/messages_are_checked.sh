#!/bin/sh
# Outside the message service every numbered message goes through the
# checked entry alert<N>(...), so the compiler matches its arguments against
# the message's built-in text. An unchecked alert(num, ...) call may only
# come from the service itself and its tests.
cd "$(dirname "$0")/../src" || exit 2
hits=$(grep -nE '\b(alert|valert|alert_noPos)[[:space:]]*\(' main.cpp cmdline.cpp \
  $(ls romweld/*.cpp romweld/*.h | grep -v '_test\.cpp$'))
if [ -n "$hits" ]; then
  echo "unchecked numbered messages:"
  echo "$hits"
  exit 1
fi
echo "every numbered message outside the service is checked"
