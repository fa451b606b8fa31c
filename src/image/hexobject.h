// Hex object: a memory image together with the start addresses a firmware
// file can carry (start segment address CS:IP, start linear address EIP),
// the writer's record breaks and its maximum data record length. Merging
// one hex object into another reconciles their start addresses. Problems
// are recorded in the error list (hex_errno.h); nothing prints.
#pragma once

#include <cstdint>
#include <set>

#include "image/hexdata.h"

struct ihex {
  hexdata *image = nullptr; // owned
  uint64_t CS = 0;
  bool hasCS = false;
  uint64_t IP = 0;
  bool hasIP = false;
  uint32_t EIP = 0;
  bool hasEIP = false;
  std::set<uint64_t> breaks;
  uint32_t maxLength = 16;
};

ihex *ihex_create();
void ihex_destroy(ihex *x);
hexdata *ihex_getImage(ihex *x);
bool ihex_setMaxLength(ihex *x, uint32_t len); // 0 records EARG
uint32_t ihex_getMaxLength(const ihex *x);
bool ihex_addBreak(ihex *x, uint64_t addr);    // above 0xFFFFFFFFFFFFFFFE records EARG
bool ihex_hasSSA(const ihex *x);
uint32_t ihex_getSSA(const ihex *x);            // CS*65536+IP, 0 when absent
bool ihex_setSSA(ihex *x, uint64_t cs, uint64_t ip); // wider than 16 bits: EARG, cut
void ihex_clearSSA(ihex *x);
bool ihex_hasSLA(const ihex *x);
uint32_t ihex_getSLA(const ihex *x);
void ihex_setSLA(ihex *x, uint32_t eip);
void ihex_clearSLA(ihex *x);
// Empties the image and forgets both start addresses: where a reader
// starts, so a hex object never mixes two files.
void ihex_clearForRead(ihex *x);

// Merges src into dst, reconciling start addresses; src may be emptied.
// EIPCONFLICT / EEIPCONFLICT when both carry different start addresses and
// force is off, and the image's merge refusals.
bool ihex_merge(ihex *dst, ihex *src, bool force);
