// libFuzzer target for message description files: the input is parsed as
// a file, and every entry it yields is looked up and formatted the way the
// message service would.
#include <cstdint>
#include <cstdio>

#include "common/msgfile.h"
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  FILE *fp = size ? fmemopen(const_cast<uint8_t *>(data), size, "r") : std::tmpfile();
  if (!fp)
    return 0;
  try {
    std::shared_ptr<msg_table> t = msgfile_parse(fp).table;
    if (t)
      for (const msg_entry *e : *t)
        if (e)
          (void)msgfile_sameConversions(e->text.c_str(), e->text.c_str());
  } catch (const fuzz_exit &) {
  }
  std::fclose(fp);
  return 0;
}
