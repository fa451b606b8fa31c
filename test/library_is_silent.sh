#!/bin/sh
# The image library records error codes and never prints: no diagnostic may
# reach standard output or standard error from src/ihex. Writing HEX text to
# a stream the caller opened is the writer's job and is allowed.
cd "$(dirname "$0")/../src/ihex" || exit 2
hits=$(grep -nE '\b(printf|puts|perror|std::cout|std::cerr|stdout|stderr)\b' $(ls *.cpp *.h | grep -v '_test\.cpp$'))
if [ -n "$hits" ]; then
  echo "the image library prints:"
  echo "$hits"
  exit 1
fi
echo "no printing in the image library"
