// ELF reader. libelf decodes the headers in either class and byte order;
// the section contents are taken as raw file bytes (a section's data is
// what the target loads, never converted to this host's byte order). The
// whole file is checked and its pieces collected before the first byte is
// placed, so a file with any problem places nothing.
#include <gelf.h>
#include <libelf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "formats/elffile.h"
#include "image/hex_errno.h"

namespace {

constexpr size_t READ_BLOCK = size_t(1) << 16;

// A section's bytes and the address they load at.
struct piece {
  uint64_t lma;
  const uint8_t *d;
  uint64_t n;
};

// The file as libelf sees it: mapped from a regular file, else read whole
// into memory. Its handle is released on every path.
struct source {
  Elf *e = nullptr;
  std::vector<char> mem;
  uint64_t size = 0;
  unsigned char ident[EI_NIDENT] = {}; // the file's first bytes, for a file libelf refuses
  size_t identLen = 0;
  ~source() {
    if (e)
      elf_end(e);
  }
};

bool libelfReady() {
  static const bool ready = elf_version(EV_CURRENT) != EV_NONE;
  return ready;
}

// False, with EIO recorded, when the stream cannot be read; a file libelf
// cannot open leaves e null.
bool openSource(source &s, FILE *in) {
  const int fd = fileno(in);
  struct stat st;
  if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    s.size = static_cast<uint64_t>(st.st_size);
    s.identLen = static_cast<size_t>(std::max<ssize_t>(0, pread(fd, s.ident, EI_NIDENT, 0)));
    s.e = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    return true;
  }
  for (size_t got = READ_BLOCK; got == READ_BLOCK;) {
    const size_t had = s.mem.size();
    s.mem.resize(had + READ_BLOCK);
    got = std::fread(s.mem.data() + had, 1, READ_BLOCK, in);
    s.mem.resize(had + got);
  }
  if (std::ferror(in)) {
    hex_setError(EIO);
    return false;
  }
  s.size = s.mem.size();
  s.identLen = std::min<size_t>(EI_NIDENT, s.mem.size());
  std::memcpy(s.ident, s.mem.data(), s.identLen);
  if (!s.mem.empty())
    s.e = elf_memory(s.mem.data(), s.mem.size());
  return true;
}

// Whether n entries of esize bytes from off lie inside a file of size bytes.
bool fits(uint64_t off, uint64_t n, uint64_t esize, uint64_t size) {
  return off <= size && (n == 0 || (esize > 0 && n <= (size - off) / esize));
}

// The header tables: both must lie within the file with entries of the
// size this class has. libelf quietly reads fewer entries than the header
// states where a table runs past the end, so the counts stated are checked
// here. 0 or an ELFFILE_ reason.
uint32_t checkTables(Elf *e, const GElf_Ehdr &eh, uint64_t size, size_t *phnum) {
  // A section header table's first entry may hold the real counts.
  if (eh.e_shoff != 0 && !fits(eh.e_shoff, 1, eh.e_shentsize, size))
    return ELFFILE_TRUNCATED;
  size_t shnum = 0;
  if (elf_getshdrnum(e, &shnum) != 0 || elf_getphdrnum(e, phnum) != 0)
    return ELFFILE_MALFORMED;
  const uint64_t shStated = eh.e_shnum != 0 ? eh.e_shnum : shnum;
  const uint64_t phStated = eh.e_phnum != PN_XNUM ? eh.e_phnum : *phnum;
  if ((shStated > 0 && eh.e_shentsize != gelf_fsize(e, ELF_T_SHDR, 1, EV_CURRENT)) ||
      (phStated > 0 && eh.e_phentsize != gelf_fsize(e, ELF_T_PHDR, 1, EV_CURRENT)))
    return ELFFILE_MALFORMED;
  if (!fits(eh.e_shoff, shStated, eh.e_shentsize, size) ||
      !fits(eh.e_phoff, phStated, eh.e_phentsize, size))
    return ELFFILE_TRUNCATED;
  return shnum == shStated && *phnum == phStated ? 0 : ELFFILE_MALFORMED;
}

// The loadable segments, physical addresses as the file states them. A
// file whose program headers all leave the physical address 0 and that
// has more than one loadable segment states none: its sections load at
// their own addresses, or they would all pile up at 0.
uint32_t segments(Elf *e, size_t phnum, std::vector<GElf_Phdr> *loads) {
  bool anyPaddr = false;
  for (size_t i = 0; i < phnum; ++i) {
    GElf_Phdr ph;
    if (!gelf_getphdr(e, static_cast<int>(i), &ph))
      return ELFFILE_MALFORMED;
    anyPaddr |= ph.p_paddr != 0;
    if (ph.p_type == PT_LOAD && ph.p_memsz != 0)
      loads->push_back(ph);
  }
  if (!anyPaddr && loads->size() > 1)
    loads->clear();
  return 0;
}

// Where a section loads: inside a loadable segment (by address and by
// file offset) at the segment's physical address plus its distance from
// the segment's start, else at its own address.
uint64_t loadAddress(const GElf_Shdr &sh, const std::vector<GElf_Phdr> &loads) {
  for (const GElf_Phdr &ph : loads) {
    const bool inMemory = sh.sh_addr >= ph.p_vaddr && sh.sh_addr - ph.p_vaddr <= ph.p_memsz &&
                          sh.sh_size <= ph.p_memsz - (sh.sh_addr - ph.p_vaddr);
    const bool inFile = sh.sh_offset >= ph.p_offset &&
                        sh.sh_offset - ph.p_offset <= ph.p_filesz &&
                        sh.sh_size <= ph.p_filesz - (sh.sh_offset - ph.p_offset);
    if (inMemory && inFile)
      return ph.p_paddr + (sh.sh_addr - ph.p_vaddr);
  }
  return sh.sh_addr;
}

// Every allocated section with contents, in section order. 0 or an
// ELFFILE_ reason.
uint32_t sections(Elf *e, uint64_t size, const std::vector<GElf_Phdr> &loads,
                  std::vector<piece> *out) {
  for (Elf_Scn *scn = elf_nextscn(e, nullptr); scn; scn = elf_nextscn(e, scn)) {
    GElf_Shdr sh;
    if (!gelf_getshdr(scn, &sh))
      return ELFFILE_MALFORMED;
    if (!(sh.sh_flags & SHF_ALLOC) || sh.sh_type == SHT_NOBITS || sh.sh_type == SHT_NULL ||
        sh.sh_size == 0)
      continue;
    if (!fits(sh.sh_offset, sh.sh_size, 1, size))
      return ELFFILE_TRUNCATED;
    const uint64_t lma = loadAddress(sh, loads);
    if (sh.sh_size - 1 > UINT64_MAX - lma)
      return ELFFILE_MALFORMED; // runs past the top of the address space
    Elf_Data *d = elf_rawdata(scn, nullptr);
    if (!d || !d->d_buf || d->d_size != sh.sh_size)
      return ELFFILE_MALFORMED;
    out->push_back({lma, static_cast<const uint8_t *>(d->d_buf), sh.sh_size});
  }
  return out->empty() ? ELFFILE_NOTHING : 0;
}

// Why libelf refused a file: an identification of a class it knows on a
// file too short for that class's header is a truncated file.
uint32_t refused(const source &s) {
  const unsigned char *id = s.ident;
  if (s.identLen < EI_NIDENT || std::memcmp(id, ELFMAG, SELFMAG) != 0 ||
      (id[EI_CLASS] != ELFCLASS32 && id[EI_CLASS] != ELFCLASS64))
    return ELFFILE_UNREADABLE;
  const size_t header = id[EI_CLASS] == ELFCLASS32 ? elf32_fsize(ELF_T_EHDR, 1, EV_CURRENT)
                                                   : elf64_fsize(ELF_T_EHDR, 1, EV_CURRENT);
  return s.size < header ? ELFFILE_TRUNCATED : ELFFILE_UNREADABLE;
}

// Decodes the file into its pieces and entry point. 0 or an ELFFILE_ reason.
uint32_t decode(const source &s, std::vector<piece> *out, uint64_t *entry) {
  Elf *e = s.e;
  if (!e || elf_kind(e) != ELF_K_ELF)
    return refused(s);
  GElf_Ehdr eh;
  if (s.size < gelf_fsize(e, ELF_T_EHDR, 1, EV_CURRENT) || !gelf_getehdr(e, &eh))
    return refused(s);
  size_t phnum = 0;
  std::vector<GElf_Phdr> loads;
  if (const uint32_t why = checkTables(e, eh, s.size, &phnum))
    return why;
  if (const uint32_t why = segments(e, phnum, &loads))
    return why;
  *entry = eh.e_entry;
  return sections(e, s.size, loads, out);
}

// False, with EBUDGET recorded, when the pieces would fill more rows than
// the budget allows: sections may share their contents in the file, so a
// small file can describe an image of any size.
bool withinBudget(const std::vector<piece> &pieces, const ihex_readspec *settings) {
  uint64_t rows = 0;
  for (const piece &p : pieces) {
    rows += place_rows(settings, p.lma, p.n);
    if (rows > HEX_ROW_BUDGET) {
      hex_setBudgetError(rows, 0);
      return false;
    }
  }
  return true;
}

// Gives back the whole pages of a mapped file inside [d, d + n): what is
// placed is held by the image, and a firmware file of hundreds of
// megabytes must not be held twice. A page touched again is read from the
// file anew.
void release(const source &s, const uint8_t *d, uint64_t n) {
  if (!s.mem.empty())
    return; // read into memory, freed with the source
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t lo = (reinterpret_cast<uintptr_t>(d) + page - 1) & ~(page - 1);
  const uintptr_t hi = (reinterpret_cast<uintptr_t>(d) + n) & ~(page - 1);
  if (hi > lo)
    madvise(reinterpret_cast<void *>(lo), hi - lo, MADV_DONTNEED);
}

// Places the pieces a block at a time; false when a byte was refused or
// reading had to stop.
bool place(const source &s, place_sink *sink, const std::vector<piece> &pieces) {
  constexpr uint64_t BLOCK = uint64_t(1) << 20;
  bool ok = true;
  for (const piece &p : pieces) {
    for (uint64_t at = 0; at < p.n; at += BLOCK) {
      const uint64_t n = std::min(BLOCK, p.n - at);
      const place_result r = place_piece(sink, p.lma + at, p.d + at, n);
      release(s, p.d + at, n);
      ok &= r == PLACE_OK;
      if (r == PLACE_STOP)
        return false;
    }
  }
  return ok;
}

} // namespace

bool elffile_readToMerge(ihex *x, FILE *in, const ihex_readspec *settings, const hexdata *dst,
                         ihex_extent *placed) {
  return place_read(x, in, settings, dst, placed, [&](place_sink &sink) {
    if (!libelfReady()) {
      hex_setNumError(EBADFILE, ELFFILE_UNREADABLE);
      return false;
    }
    source s;
    if (!openSource(s, in))
      return false;
    std::vector<piece> pieces;
    uint64_t entry = 0;
    if (const uint32_t why = decode(s, &pieces, &entry)) {
      hex_setNumError(EBADFILE, why);
      return false;
    }
    if (!withinBudget(pieces, settings))
      return false;
    if (entry != 0 && entry <= UINT32_MAX)
      ihex_setSLA(x, static_cast<uint32_t>(entry));
    return place(s, &sink, pieces);
  });
}
