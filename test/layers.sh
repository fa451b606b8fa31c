#!/bin/sh
# Each layer includes only itself and the layers below it: support
# (common) <- image library (image) <- codecs (formats) <- options
# (romweld) <- the program. The image library knows no file format, and a
# codec knows the image only through its public headers.
cd "$(dirname "$0")/../src" || exit 2
bad=$(
  grep -n '#include "' common/*.[ch]* | grep -v '"common/'
  grep -n '#include "' image/*.[ch]* | grep -v '"common/\|"image/'
  grep -n '#include "' formats/*.[ch]* | grep -v '"common/\|"image/\|"formats/' 
  grep -n '#include "image/hexdata_internal.h"' formats/* romweld/* main.cpp cmdline.*
  grep -n '#include "' romweld/*.[ch]* | grep '"cmdline\|"main'
)
if [ -n "$bad" ]; then
  echo "includes that point up a layer or into a layer's insides:"
  echo "$bad"
  exit 1
fi
echo "every include points down a layer"
