#include "formats/elffile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <gelf.h>
#include <unistd.h>

#include "formats/testutil.h"

namespace {

using namespace testutil;

// A section of a test file; `back` > 0 puts it that far into a loadable
// segment whose physical address is `paddr`.
struct sec {
  uint32_t type;
  uint64_t flags, addr;
  std::string bytes;
  uint64_t back = 0, paddr = 0;
  bool loaded = false;
  uint64_t nobits = 0; // the size of a NOBITS section
};

// Writes an ELF file through libelf into a temporary file, positioned at 0.
FILE *makeElf(int cls, int order, uint64_t entry, const std::vector<sec> &secs) {
  elf_version(EV_CURRENT);
  FILE *f = std::tmpfile();
  Elf *e = elf_begin(fileno(f), ELF_C_WRITE, nullptr);
  GElf_Ehdr eh{}; // libelf fills in the rest of the identification
  eh.e_ident[EI_DATA] = static_cast<unsigned char>(order);
  eh.e_entry = entry;
  gelf_newehdr(e, cls);
  gelf_update_ehdr(e, &eh);
  const auto loads = std::count_if(secs.begin(), secs.end(), [](const sec &s) { return s.loaded; });
  if (loads)
    gelf_newphdr(e, size_t(loads));
  std::vector<Elf_Scn *> scns;
  for (const sec &s : secs) {
    Elf_Scn *scn = scns.emplace_back(elf_newscn(e));
    const bool nobits = s.type == SHT_NOBITS;
    *elf_newdata(scn) = {nobits ? nullptr : const_cast<char *>(s.bytes.data()), ELF_T_BYTE, EV_CURRENT,
                         nobits ? s.nobits : s.bytes.size(), 0, 1};
    GElf_Shdr sh{0, s.type, s.flags, s.addr, 0, 0, 0, 0, 1, 0};
    gelf_update_shdr(scn, &sh);
  }
  elf_update(e, ELF_C_NULL); // lays the file out: the segments need its offsets
  for (size_t i = 0, p = 0; i < secs.size(); ++i) {
    if (!secs[i].loaded)
      continue;
    GElf_Shdr sh;
    gelf_getshdr(scns[i], &sh);
    const uint64_t back = secs[i].back, n = back + sh.sh_size;
    GElf_Phdr ph{PT_LOAD, PF_R, sh.sh_offset - back, sh.sh_addr - back, secs[i].paddr, n, n, 1};
    gelf_update_phdr(e, int(p++), &ph);
  }
  EXPECT_GT(elf_update(e, ELF_C_WRITE), 0) << elf_errmsg(-1);
  elf_end(e);
  std::rewind(f);
  return f;
}

struct elfFixture : ::testing::Test {
  Hex x = newHex();
  bool read(FILE *f, const ihex_readspec *settings = nullptr) {
    hex_clearErrors();
    const bool ok = elffile_readToMerge(x.get(), f, settings, nullptr, nullptr);
    std::fclose(f);
    return ok;
  }
};

const std::vector<sec> sample = {
    {SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR, 0x08000000, "\x01\x02", 0, 0x08000000, true},
    // Runs in RAM, loads from flash: at the segment's physical address.
    {SHT_PROGBITS, SHF_ALLOC | SHF_WRITE, 0x20000010, "\xAA\xBB", 0x10, 0x08000100, true},
    {SHT_NOBITS, SHF_ALLOC | SHF_WRITE, 0x20000020, "", 0, 0, false, 8},
    {SHT_PROGBITS, 0, 0, "comment"},
    // Words, in no segment: the file's bytes as they are, never turned
    // into this host's byte order.
    {SHT_HASH, SHF_ALLOC, 0x300, std::string("\0\0\0\x07", 4)},
};

// Either class and byte order, mapped from a file or read from a stream;
// the entry point is the start address only when non-zero and 32 bits wide.
TEST_F(elfFixture, PlacesAllocatedContentsAtTheirLoadAddresses) {
  struct { int cls, order; uint64_t entry; bool sla; } cases[] = {
      {ELFCLASS32, ELFDATA2LSB, 0x08000001, true}, {ELFCLASS32, ELFDATA2MSB, 0, false},
      {ELFCLASS64, ELFDATA2LSB, 0xFFFFFFFF, true}, {ELFCLASS64, ELFDATA2MSB, 1ull << 32, false}};
  for (const auto &c : cases)
    for (bool mapped : {true, false}) {
      FILE *f = makeElf(c.cls, c.order, c.entry, sample);
      std::string bytes(size_t(lseek(fileno(f), 0, SEEK_END)), '\0');
      if (!mapped && pread(fileno(f), bytes.data(), bytes.size(), 0) > 0 && std::fclose(f) == 0)
        f = fmemopen(bytes.data(), bytes.size(), "r");
      EXPECT_TRUE(read(f)) << errors();
      EXPECT_EQ(present(x->image), "300=00 301=00 302=00 303=07 8000000=01 8000001=02 8000110=AA 8000111=BB");
      EXPECT_EQ(x->hasEIP, c.sla);
      EXPECT_EQ(x->EIP, c.sla ? c.entry : 0);
    }
}

// A file whose program headers all leave the physical address 0 states
// none when it has more than one loadable segment; with one, it is taken.
TEST_F(elfFixture, LoadAddressesOfSegmentsAndReadSettings) {
  const std::vector<sec> two = {{SHT_PROGBITS, SHF_ALLOC, 0x1000, "\x01", 0, 0, true},
                                {SHT_PROGBITS, SHF_ALLOC, 0x2004, "\x02", 4, 0, true}};
  EXPECT_TRUE(read(makeElf(ELFCLASS32, ELFDATA2LSB, 0, two))) << errors();
  EXPECT_EQ(present(x->image), "1000=01 2004=02");
  EXPECT_TRUE(read(makeElf(ELFCLASS32, ELFDATA2LSB, 0, {two[1]}))) << errors();
  EXPECT_EQ(present(x->image), "4=02");
  // The range crops by load address; the offset moves what is left.
  ihex_readspec settings;
  ASSERT_TRUE(ihex_readspec_setStart(&settings, 0x08000001) && ihex_readspec_setOffset(&settings, -0x08000000));
  EXPECT_TRUE(read(makeElf(ELFCLASS64, ELFDATA2LSB, 0, sample), &settings)) << errors();
  EXPECT_EQ(present(x->image), "1=02 110=AA 111=BB");
}

// A 64-bit little-endian file of a good section and a NOBITS one of n
// bytes, then edited on the disk and grown (sparsely) to `grow` bytes.
enum edit { CUT_HEADER, CUT_TABLE, HAS_CONTENTS, ENTRY_SIZE };
FILE *broken(uint64_t n, edit how, uint64_t grow = 0) {
  FILE *f = makeElf(ELFCLASS64, ELFDATA2LSB, 0, {sample[0], {SHT_NOBITS, SHF_ALLOC, 0, "", 0, 0, false, n}});
  const int fd = fileno(f);
  Elf64_Ehdr eh;
  EXPECT_EQ(pread(fd, &eh, sizeof eh, 0), ssize_t(sizeof eh));
  const off_t type = off_t(eh.e_shoff + 2 * eh.e_shentsize + offsetof(Elf64_Shdr, sh_type));
  const bool done = how == CUT_HEADER   ? ftruncate(fd, 40) == 0
                    : how == CUT_TABLE  ? ftruncate(fd, off_t(eh.e_shoff + 100)) == 0
                    : how == HAS_CONTENTS ? pwrite(fd, "\x01\0\0\0", 4, type) == 4 // SHT_PROGBITS
                                          : pwrite(fd, "\x3F\0", 2, offsetof(Elf64_Ehdr, e_shentsize)) == 2;
  EXPECT_TRUE(done && (grow == 0 || ftruncate(fd, off_t(grow)) == 0));
  return f;
}

// A file with any problem places nothing, not even the sections before it.
TEST_F(elfFixture, BrokenFilesPlaceNothing) {
  const uint64_t budget = HEX_ROW_BUDGET * 256;
  char junk[] = "MZ, not an ELF file";
  struct { const char *what; FILE *f; const char *errs; } cases[] = {
      {"not ELF", fmemopen(junk, sizeof junk - 1, "r"), "EBADFILE(1)"},
      {"empty", std::tmpfile(), "EBADFILE(1)"},
      {"header cut", broken(1, CUT_HEADER), "EBADFILE(2)"},
      {"section table cut", broken(1, CUT_TABLE), "EBADFILE(2)"},
      {"contents past the end", broken(1 << 20, HAS_CONTENTS), "EBADFILE(2)"},
      {"section header size", broken(1, ENTRY_SIZE), "EBADFILE(3)"},
      {"no allocated contents", makeElf(ELFCLASS32, ELFDATA2MSB, 0, {sample[2], sample[3]}), "EBADFILE(4)"},
      {"over the row budget", broken(budget + 1, HAS_CONTENTS, 2 * budget), "EBUDGET@200002"},
  };
  for (const auto &c : cases) {
    EXPECT_FALSE(read(c.f)) << c.what;
    EXPECT_EQ(errors(), c.errs) << c.what;
    EXPECT_EQ(present(x->image), "") << c.what;
  }
}

} // namespace
