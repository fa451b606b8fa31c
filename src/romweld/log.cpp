#include "romweld/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <string>
#include <unordered_map>
#include <vector>

#include "image/hexdata.h"
#include "image/hexobject.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

bool log_isOpen() { return romweld.log.fp != nullptr; }

void log_print(const char *fmt, ...) {
  if (!romweld.log.fp)
    return;
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(romweld.log.fp, fmt, ap);
  va_end(ap);
}

void log_write(const char *text, size_t n) {
  if (romweld.log.fp)
    std::fwrite(text, 1, n, romweld.log.fp);
}

void log_findSection() {
  if (!log_isOpen() || romweld.log.findSection)
    return;
  log_print("### OP Code find / replace / delete results ###\n");
  romweld.log.findSection = true;
}

// ---- the report's sections ----------------------------------------------------

namespace {

std::string formatText(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatText(const char *fmt, ...) {
  char buf[64];
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return std::string(buf, n > 0 ? std::min<size_t>(size_t(n), sizeof buf - 1) : 0);
}

// The row address with the column's digit count, as "%.*lX" prints it,
// without a format call per row: a map can have a million rows.
void appendHex(std::string &out, uint64_t v, int digits) {
  char buf[16];
  int n = 0;
  do {
    buf[n++] = "0123456789ABCDEF"[v & 15];
    v >>= 4;
  } while (v != 0);
  for (int i = n; i < digits; ++i)
    out += '0';
  while (n > 0)
    out += buf[--n];
}

std::string repeat(const std::string &cell, uint64_t n) {
  std::string out;
  out.reserve(cell.size() * n);
  for (uint64_t i = 0; i < n; ++i)
    out += cell;
  return out;
}

// A map cell: a blank, then the key with the record's number.
std::string cellText(const char *key, unsigned n) {
  char buf[32];
  buf[0] = ' ';
  const int len = std::snprintf(buf + 1, sizeof buf - 1, key, n);
  return std::string(buf, 1 + size_t(std::clamp(len, 0, int(sizeof buf) - 2)));
}

// The kinds that place data, in the order of the memory usage; the last row
// stands for unused memory.
struct log_kind {
  uint32_t id;
  const char *name;     // memory usage heading
  const char *legend;   // legend description
  const char *key;      // map cell, with the record's number
  const char *trailKey; // trailing-code cell; null when the kind has none
  trail_cells (*trail)(const romweld_arg *); // where the family put them
};
constexpr uint32_t LOG_UNUSED = 20;
constexpr log_kind kKinds[] = {
    {ARGT_INFILE, "Intel Hex-file", "Intel Hex-file", "H%u", nullptr, nullptr},
    {ARGT_CHECKSUM, "Stored checksum result", "Stored checksum result", "C%u", "T%u",
     trailCellsCHECKSUM},
    {ARGT_DELETE, "Find & delete opcode", "Find & delete opcode", "X%u", nullptr, nullptr},
    {ARGT_REPLACE, "Find & replace opcode", "Find & replace opcode", "R%u", nullptr, nullptr},
    {ARGT_SERIAL, "Stored serial code", "Stored serial code", "S%u", nullptr, nullptr},
    {ARGT_STRING, "Stored ASCII string", "Stored ASCII string", "A%u", "B%u", trailCellsSTRING},
    {ARGT_STRPACK, "Packed ASCII string", "Packed ASCII string", "P%u", nullptr, nullptr},
    {ARGT_FILL, "Filled ROM", "Filled ROM", "F%u", nullptr, nullptr},
    {LOG_UNUSED, "Unused", "Unused memory", "--", nullptr, nullptr},
};
constexpr size_t kUnusedRow = std::size(kKinds) - 1;

size_t kindRow(uint32_t id) {
  for (size_t i = 0; i < std::size(kKinds); ++i)
    if (kKinds[i].id == id)
      return i;
  return kUnusedRow;
}

// A record's cells in the map: its key and, where it has one, its
// trailing-code key, each with its number and a leading blank.
struct log_owner {
  const romweld_arg *arg;
  size_t row;
  std::string cell, trailCell;
  trail_cells trail;
};

// Numbers every record whose kind has a key, per kind from 1 in
// command-line order; these are the legend's lines and the map's cells.
std::vector<log_owner> numberOwners() {
  std::vector<log_owner> owners;
  unsigned counters[std::size(kKinds)] = {};
  for (const auto &a : args_all()) {
    const size_t row = kindRow(a->id);
    if (row == kUnusedRow)
      continue;
    const log_kind &k = kKinds[row];
    const unsigned n = ++counters[row];
    log_owner o{a.get(), row, cellText(k.key, n), {}, {}};
    if (k.trail) {
      o.trail = k.trail(a.get());
      if (o.trail.layout.group)
        o.trailCell = cellText(k.trailKey, n);
    }
    owners.push_back(std::move(o));
  }
  return owners;
}

// The owner of the note at an address, or null for unused memory.
struct owner_index {
  std::unordered_map<const void *, const log_owner *> byNote;
  const log_owner *last = nullptr;
  const log_owner *find(const void *note) {
    if (!note)
      return nullptr;
    if (last && last->arg == note)
      return last;
    auto it = byNote.find(note);
    last = it == byNote.end() ? nullptr : it->second;
    return last;
  }
};

// Calls fn(first, last, owner) for each stretch of one owner (or unused)
// from lo to hi, without wrapping at the top of the address space.
template <class Fn>
void eachStretch(const hexdata *h, owner_index &idx, uint64_t lo, uint64_t hi, Fn fn) {
  if (lo > hi)
    return;
  for (uint64_t a = lo;;) {
    const uint64_t last = hex_findNoteRange(h, a, hi);
    fn(a, last, idx.find(hex_getNote(h, a)));
    if (last >= hi)
      return;
    a = last + 1;
  }
}

void writeMemoryUsage(const hexdata *h, owner_index &idx) {
  if (romweld.log.findSection)
    log_print("\n");
  log_print("### Memory Usage ###\n");
  const uint64_t lo = romweld.log.lo, hi = romweld.log.noExtent ? 0 : romweld.log.hi;
  // One walk per kind keeps the section free of lists as long as the image.
  for (size_t row = 0; row < std::size(kKinds); ++row) {
    bool headed = false;
    auto head = [&] {
      if (!headed)
        log_print(" %s ranges:\n", kKinds[row].name);
      headed = true;
    };
    if (row == kUnusedRow && lo != 0) {
      head();
      log_print("  0h - %lXh\n", lo - 1);
    }
    if (romweld.log.noExtent)
      continue;
    eachStretch(h, idx, lo, hi, [&](uint64_t first, uint64_t last, const log_owner *o) {
      if ((o ? o->row : kUnusedRow) != row)
        return;
      head();
      if (o)
        log_print("  %lXh - %lXh\t\t(%s)\n", first, last, o->arg->str.c_str());
      else
        log_print("  %lXh - %lXh\n", first, last);
    });
  }
  log_print("\n");
}

void writeChecksumReports() {
  unsigned n = 0;
  for (const auto &a : args_all()) {
    if (a->id != ARGT_CHECKSUM)
      continue;
    if (n == 0)
      log_print("### Checksum Reports ###\n");
    const ck_arg &c = arg_spec<ck_arg>(a.get());
    std::string digits;
    for (uint8_t b : valueCHECKSUM(a.get()))
      digits += formatText("%02X", b);
    log_print(" Checksum %u (%s): (%lXh to %lXh) = 0x%s\n", n++, a->str.c_str(), c.start, c.end,
              digits.c_str());
  }
  if (n > 0)
    log_print("\n");
}

void writeLegend(const std::vector<log_owner> &owners) {
  log_print("### Hex Memory Map ###\n Legend:\n");
  log_print("  %s = %s\n", "--", "Unused memory");
  for (const log_owner &o : owners) {
    const log_kind &k = kKinds[o.row];
    log_print(" %s = %-22s (%s)\n", o.cell.c_str(), k.legend, o.arg->str.c_str());
    if (!o.trailCell.empty())
      log_print(" %s = Trailing code          (%s)\n", o.trailCell.c_str(), o.arg->str.c_str());
  }
}

// Where the map's rows lie: rows of `width` cells (the record length),
// addresses printed with `digits` digits, from the row holding the
// extents' low end to `last`.
struct map_geometry {
  uint64_t width;
  int digits;
  uint64_t first; // the first row's address
  uint64_t last;  // the last address mapped
  bool endsAtRowStart; // the last row holds only the extents' high end: no line end after it
};

map_geometry mapGeometry() {
  map_geometry g{ihex_getMaxLength(romweld.hex), 2 * int(romweld.output.format->addrBytes), 0, 0,
                 false};
  const uint64_t w = g.width, H = romweld.log.hi;
  g.first = romweld.log.lo - romweld.log.lo % w;
  // The map stops after H when H starts a row, else at the end of H's row
  // (or of the address space, should that row run past it).
  const uint64_t toRowEnd = w - 1 - H % w;
  g.endsAtRowStart = H % w == 0;
  g.last = g.endsAtRowStart ? H : (H > ~toRowEnd ? ~uint64_t(0) : H + toRowEnd);
  return g;
}

// Appends one row's cells, a stretch of one owner at a time from runs of
// that owner's cell.
struct row_emitter {
  const hexdata *h;
  owner_index &idx;
  const std::vector<log_owner> &owners;
  std::string unusedRun;
  std::vector<std::string> runs;

  row_emitter(const hexdata *image, owner_index &index, const std::vector<log_owner> &o,
              uint64_t w)
      : h(image), idx(index), owners(o), unusedRun(repeat(" --", w)) {
    for (const log_owner &owner : owners)
      runs.push_back(repeat(owner.cell, w));
  }

  void cells(std::string &out, uint64_t rowStart, uint64_t rowLast) {
    eachStretch(h, idx, rowStart, rowLast, [&](uint64_t first, uint64_t last, const log_owner *o) {
      const uint64_t k = last - first + 1;
      const trail_layout &t = o ? o->trail.layout : trail_layout{};
      if (!o) {
        out.append(unusedRun, 0, k * 3);
      } else if (!t.group) {
        out.append(runs[size_t(o - owners.data())], 0, k * o->cell.size());
      } else {
        for (uint64_t a = first;; ++a) {
          out += (a - o->trail.base) % t.group >= t.lead ? o->trailCell : o->cell;
          if (a == last)
            break;
        }
      }
    });
  }
};

void writeMap(const hexdata *h, owner_index &idx, const std::vector<log_owner> &owners) {
  writeLegend(owners);
  const map_geometry g = mapGeometry();
  std::string header(size_t(g.digits), ' ');
  header += " |";
  for (uint64_t c = 0; c < g.width; ++c)
    header += formatText(" %02X", unsigned(c));
  const std::string rule(header.size(), '-');
  log_print("%s\n%s\n", rule.c_str(), header.c_str());
  if (romweld.log.noExtent)
    return;

  row_emitter emit(h, idx, owners, g.width);
  bool separate = true;
  std::string out;
  for (uint64_t rowStart = g.first;;) {
    const uint64_t rowLast = std::min(rowStart + (g.width - 1), g.last);
    if (!hex_getNote(h, rowStart)) {
      // Wholly unused rows are skipped, however many: the next printed row
      // is the one where the unused stretch ends.
      const uint64_t unusedTo = hex_findNoteRange(h, rowStart, g.last);
      if (unusedTo >= rowLast) {
        separate = true;
        if (unusedTo == g.last)
          break;
        rowStart = unusedTo + 1 - (unusedTo + 1) % g.width;
        continue;
      }
    }
    if (separate)
      out += rule + '\n';
    separate = false;
    appendHex(out, rowStart, g.digits);
    out += " |";
    emit.cells(out, rowStart, rowLast);
    if (!(rowLast == g.last && g.endsAtRowStart))
      out += '\n';
    if (out.size() >= (size_t(1) << 20)) {
      log_write(out.data(), out.size());
      out.clear();
    }
    if (rowLast >= g.last)
      break;
    rowStart += g.width;
  }
  log_write(out.data(), out.size());
}

} // namespace

void log_writeOpening() {
  log_print("### ROMWeld logfile and output summary ###\n\n");
  log_print("### Command-line arguments ###\n");
  for (const auto &a : args_all())
    log_print(" %s\n", a->str.c_str());
  log_print("\n");
}

void log_writeClosing() {
  const hexdata *h = ihex_getImage(romweld.hex);
  const std::vector<log_owner> owners = numberOwners();
  owner_index idx;
  for (const log_owner &o : owners)
    idx.byNote.emplace(o.arg, &o);
  writeMemoryUsage(h, idx);
  if (romweld.sizeRequested) {
    const uint64_t n = hex_getByteCount(h);
    log_print("Total data: %lu (%lXh) bytes\n\n", n, n);
  }
  writeChecksumReports();
  writeMap(h, idx, owners);
}
