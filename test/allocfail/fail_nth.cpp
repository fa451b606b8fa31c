// The tool built with an allocator that fails one allocation on purpose:
// with ROMWELD_FAIL_ALLOC=n the n-th allocation made after the tool has set
// up its out-of-memory handling fails as if the heap were exhausted. At the
// end of a run that got through, the number of allocations counted goes to
// the file ROMWELD_ALLOC_COUNT names, so a sweep knows when it is done.
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

long g_failAt = -2; // -2: not read yet; -1: never fail
long g_count = 0;

void report() {
  if (const char *path = std::getenv("ROMWELD_ALLOC_COUNT"))
    if (FILE *f = std::fopen(path, "w")) {
      std::fprintf(f, "%ld\n", g_count);
      std::fclose(f);
    }
}

// True when this allocation is the one to fail. Counting starts once a
// new-handler is in place: allocations before it (static set-up) are the
// C++ runtime's, not the tool's.
bool failNow() {
  if (g_failAt == -2) {
    const char *v = std::getenv("ROMWELD_FAIL_ALLOC");
    g_failAt = v ? std::atol(v) : -1;
    std::atexit(report);
  }
  if (!std::get_new_handler())
    return false;
  return ++g_count == g_failAt;
}

void *allocate(std::size_t n, bool nothrow) {
  for (bool fail = failNow();; fail = false) {
    void *p = fail ? nullptr : std::malloc(n ? n : 1);
    if (p)
      return p;
    if (std::new_handler h = std::get_new_handler())
      h(); // the tool's handler ends the run
    else if (nothrow)
      return nullptr;
    else
      throw std::bad_alloc();
  }
}

} // namespace

void *operator new(std::size_t n) { return allocate(n, false); }
void *operator new[](std::size_t n) { return allocate(n, false); }
void *operator new(std::size_t n, const std::nothrow_t &) noexcept {
  try {
    return allocate(n, true);
  } catch (...) {
    return nullptr;
  }
}
void *operator new[](std::size_t n, const std::nothrow_t &t) noexcept { return operator new(n, t); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
