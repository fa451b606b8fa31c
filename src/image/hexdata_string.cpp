#include "image/hexdata_string.h"

#include "image/hexdata_serial.h"

bool hex_string(hexdata *h, const stringspec *s) {
  if (!h || !s) {
    hex_setError(ENULL);
    return false;
  }
  if (!s->hasStart) {
    hex_setError(ENOSTART);
    return false;
  }
  serialspec one;
  one.start = s->start;
  one.hasStart = true;
  one.codeBytes = stringspec_bytes(s);
  one.policy = s->policy;
  return hex_serial(h, &one);
}
