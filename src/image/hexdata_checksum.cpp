// The checksum engine. The data stream is produced in spans: where no
// reversal or skipping applies, whole rows go to the algorithm straight from
// the image (an absent slot holds 0, which is what an undefined byte is fed
// as); otherwise the mapped bytes are gathered into a small buffer first.
// Untouched address space is never walked: a stretch of whole reversal words
// that holds no byte is a run of zeros, which each algorithm takes in one
// step (the CRCs through zero-run matrices, the Fletcher sums in closed
// form, a hash from a static block of zeros), so the cost follows the rows
// that hold data, not the length of the range. The CRCs process eight bytes
// per step from tables built for the record's polynomial and width.
#include "image/hexdata_checksum.h"

#include "common/check.h"
#include "common/shahash.h"
#include "image/checksum_walk.h"

using namespace ckwalk;

namespace {

// ---- result bytes and storing ---------------------------------------------------

std::vector<uint8_t> numericResult(uint64_t value, uint32_t w, bool bigEndian) {
  std::vector<uint8_t> out(w);
  for (uint32_t i = 0; i < w; ++i)
    out[bigEndian ? w - 1 - i : i] = uint8_t(value >> (8 * i));
  return out;
}

std::vector<uint8_t> compute(const hexdata *h, const ckspec *s) {
  const uint32_t w = s->resultWidth;
  const bool big = s->bigEndianResult;
  if (s->algorithm == CK_SHA1 || s->algorithm == CK_SHA256) {
    std::vector<uint8_t> d(s->algorithm == CK_SHA1 ? 20 : 32);
    if (s->algorithm == CK_SHA1)
      checksumSHA1(h, s, d.data());
    else
      checksumSHA256(h, s, d.data());
    // A positive width asks for the digest the other way round.
    if (big)
      std::reverse(d.begin(), d.end());
    return d;
  }
  uint64_t value = 0;
  switch (s->algorithm) {
  case CK_CRC:
    value = checksumCRC(h, s);
    break;
  case CK_REFCRC:
    value = checksumRefCRC(h, s);
    break;
  case CK_FLETCHER8:
    value = checksumFletcher8(h, s);
    break;
  case CK_FLETCHER16:
    value = checksumFletcher16(h, s);
    break;
  default:
    value = checksumAdditive(h, s);
    break;
  }
  return numericResult(value, w, big);
}

// One byte of the result: an empty slot takes it, data already there is
// overwritten only with clobber, and otherwise must already be that byte.
bool storeResultByte(hexdata *h, const ckspec *s, uint64_t addr, uint8_t v) {
  const hex_row *r = hex_getRow(h, hex_rowOf(addr));
  const unsigned c = unsigned(addr & 0xFF);
  if (r && plane_bit(r->present, c)) {
    if (!s->policy.clobber) {
      if (r->data[c] == v)
        return true;
      hex_setAddrError(ECLASH, addr);
      return false;
    }
    if (!hex_forceByte(h, addr, v))
      return false;
  } else if (!hex_storeByte(h, addr, v)) {
    return false;
  }
  if (s->policy.preserve && !hex_preserveData(h, addr, addr, 1))
    return false;
  if (s->policy.owner && !hex_setNote(h, addr, addr, s->policy.owner))
    return false;
  return true;
}

} // namespace

uint64_t checksumAdditive(const hexdata *h, const ckspec *s) {
  const unsigned n = unsigned(s->algorithm < 0 ? -s->algorithm : s->algorithm);
  const bool subtract = s->algorithm < 0;
  const uint64_t end = s->range.end;
  uint64_t sum = s->offset;
  undef_log undef;
  // Present runs are found a row at a time, untouched space is jumped.
  for (uint64_t a = s->range.start;;) {
    uint64_t p;
    if (!hex_nextPresent(h, a, &p) || p > end) {
      undef.span(a, end);
      break;
    }
    if (p > a)
      undef.span(a, p - 1);
    const hex_row *r = hex_getRow(h, hex_rowOf(p));
    const unsigned c0 = unsigned(p & 0xFF);
    const unsigned c1 = c0 + unsigned(std::min<uint64_t>(end - p, 255 - c0));
    const unsigned run = plane_next(r->present, c0, c1, false) - c0;
    for (unsigned i = 0; i < run; ++i) {
      const uint64_t at = p + i;
      if (skipped(s, at))
        continue;
      // Intended: the word's term is formed in 32 bits and sign-extended,
      // so a top byte of 0x80 or more in a 4-byte word subtracts 2^32.
      const int32_t term = int32_t(uint32_t(r->data[c0 + i]) << (8 * (at % n)));
      sum = subtract ? sum - uint64_t(int64_t(term)) : sum + uint64_t(int64_t(term));
    }
    const uint64_t last = p + run - 1;
    if (last == end)
      break;
    a = last + 1;
  }
  undef.record(true);
  return sum;
}

namespace {

// Runs of zeros for a hash, in pieces of the static zero block.
auto zeroHash(sha_ctx *c) {
  return [c](uint64_t n) {
    for (; n; n -= std::min<uint64_t>(n, sizeof kZeros))
      sha_add(c, kZeros, size_t(std::min<uint64_t>(n, sizeof kZeros)));
  };
}

} // namespace

void checksumSHA1(const hexdata *h, const ckspec *s, uint8_t digest[20]) {
  sha_ctx c(SHA_1);
  undef_log undef;
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { sha_add(&c, p, n); }, zeroHash(&c));
  undef.record(false);
  sha_finish(&c, digest);
}

void checksumSHA256(const hexdata *h, const ckspec *s, uint8_t digest[32]) {
  sha_ctx c(SHA_256);
  undef_log undef;
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { sha_add(&c, p, n); }, zeroHash(&c));
  undef.record(false);
  sha_finish(&c, digest);
}

bool hex_checksum(hexdata *h, const ckspec *s, std::vector<uint8_t> *resultOut) {
  if (!h || !s || (!resultOut && !s->hasResultDest)) {
    hex_setError(ENULL);
    return false;
  }
  if (!s->range.hasStart) {
    hex_setError(ENODATA);
    return false;
  }
  if (s->skipWordWidth != 0 && s->skipBytes >= s->skipWordWidth) {
    hex_setError(EBADSKIP);
    return false;
  }
  if (!ckspec_isKnownAlgorithm(s->algorithm)) {
    hex_setError(EUNKNOWNTYPE);
    return false;
  }
  if (ckspec_isCRC(s->algorithm) && s->poly == 0) {
    hex_setError(EBADPOLY);
    return false;
  }
  if ((s->algorithm == CK_SHA1 || s->algorithm == CK_SHA256) &&
      s->range.end - s->range.start >= kMaxHashBytes) {
    hex_setError(EARG);
    return false;
  }
  ROMWELD_ASSERT(s->resultWidth >= ckspec_getMinWidth(s->algorithm) &&
                 s->resultWidth <= ckspec_getMaxWidth(s->algorithm));
  ROMWELD_ASSERT(s->codeBase > 0);
  if (s->hasResultDest) {
    // The result's last byte must lie in the address space: past the top it
    // would wrap round to address 0.
    const uint64_t last = ckspec_getTotalResultBytes(s) - 1;
    if (last > UINT64_MAX - s->resultDest) {
      hex_setError(EBELOWZERO);
      return false;
    }
    const uint64_t from = s->resultDest, to = from + last;
    if (!hex_takeRows(h, hex_rowOf(to) - hex_rowOf(from) + 1 - hex_rowsHeld(h, from, to)))
      return false;
  }

  const uint32_t mark = hex_errorCount();
  const std::vector<uint8_t> result = compute(h, s);
  if (resultOut)
    *resultOut = result;
  if (s->hasResultDest) {
    std::vector<uint8_t> stored;
    for (uint32_t i = 0; i < result.size(); ++i) {
      stored.push_back(result[i]);
      if ((i + 1) % s->codeBase == 0)
        stored.insert(stored.end(), s->codeBytes.begin(), s->codeBytes.end());
    }
    for (size_t i = 0; i < stored.size(); ++i)
      if (!storeResultByte(h, s, s->resultDest + i, stored[i]))
        return false;
  }
  for (uint32_t i = mark; i < hex_errorCount(); ++i)
    if (hex_errorAt(i).code != EUNDEFADDR)
      return false;
  return hex_errno() == EOK || hex_errno() == EUNDEFADDR || hex_errorsDropped() == 0;
}
