// Hex object: creation, settings, start addresses and merging.
#include "image/hexobject.h"

#include "image/hex_errno.h"

// True, with ENULL recorded, when a required object is missing.
template <class T> static bool missing(const T *p) {
  if (p)
    return false;
  hex_setError(ENULL);
  return true;
}

ihex *ihex_create() {
  ihex *x = new ihex;
  x->image = hex_create();
  return x;
}

void ihex_destroy(ihex *x) {
  if (!x)
    return;
  hex_destroy(x->image);
  delete x;
}

hexdata *ihex_getImage(ihex *x) {
  if (missing(x))
    return nullptr;
  return x->image;
}

bool ihex_setMaxLength(ihex *x, uint32_t len) {
  if (missing(x))
    return false;
  if (len == 0) {
    hex_setError(EARG);
    return false;
  }
  x->maxLength = len;
  return true;
}

uint32_t ihex_getMaxLength(const ihex *x) {
  if (missing(x))
    return 0;
  return x->maxLength;
}

bool ihex_addBreak(ihex *x, uint64_t addr) {
  if (missing(x))
    return false;
  if (addr > 0xFFFFFFFFFFFFFFFEull) {
    hex_setError(EARG);
    return false;
  }
  x->breaks.insert(addr);
  return true;
}

bool ihex_hasSSA(const ihex *x) {
  if (missing(x))
    return false;
  return x->hasCS && x->hasIP;
}

uint32_t ihex_getSSA(const ihex *x) {
  if (!ihex_hasSSA(x))
    return 0;
  return static_cast<uint32_t>((x->CS << 16) + x->IP);
}

bool ihex_setSSA(ihex *x, uint64_t cs, uint64_t ip) {
  if (missing(x))
    return false;
  bool ok = true;
  if (cs > 0xFFFF) {
    hex_setError(EARG);
    cs &= 0xFFFF;
    ok = false;
  }
  if (ip > 0xFFFF) {
    hex_setError(EARG);
    ip &= 0xFFFF;
    ok = false;
  }
  x->CS = cs;
  x->IP = ip;
  x->hasCS = x->hasIP = true;
  return ok;
}

void ihex_clearSSA(ihex *x) {
  if (missing(x))
    return;
  x->CS = x->IP = 0;
  x->hasCS = x->hasIP = false;
}

bool ihex_hasSLA(const ihex *x) {
  if (missing(x))
    return false;
  return x->hasEIP;
}

uint32_t ihex_getSLA(const ihex *x) { return ihex_hasSLA(x) ? x->EIP : 0; }

void ihex_setSLA(ihex *x, uint32_t eip) {
  if (missing(x))
    return;
  x->EIP = eip;
  x->hasEIP = true;
}

void ihex_clearSLA(ihex *x) {
  if (missing(x))
    return;
  x->EIP = 0;
  x->hasEIP = false;
}

bool ihex_merge(ihex *dst, ihex *src, bool force) {
  if (!dst || !src) {
    hex_setError(ENULL);
    return false;
  }
  bool ok = true;
  if (src->hasCS && src->hasIP) {
    if (dst->hasCS && dst->hasIP && !force) {
      if (dst->CS != src->CS || dst->IP != src->IP) {
        hex_setNumError(EIPCONFLICT, 0);
        ok = false;
      }
    } else if (!ihex_setSSA(dst, src->CS, src->IP)) {
      ok = false;
    }
  }
  if (src->hasEIP) {
    if (dst->hasEIP && !force && dst->EIP != src->EIP) {
      hex_setError(EEIPCONFLICT);
      hex_mergeFrom(dst->image, src->image, force);
      return false;
    }
    ihex_setSLA(dst, src->EIP);
  }
  if (!hex_mergeFrom(dst->image, src->image, force))
    ok = false;
  return ok;
}

void ihex_clearForRead(ihex *x) {
  ihex_clearSSA(x);
  ihex_clearSLA(x);
  hex_clear(x->image);
}
