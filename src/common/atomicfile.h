// Atomic replacement of an output file: the content is written to a
// uniquely named temporary file first and moves onto the destination only
// once it is complete, so a failed run leaves an existing file untouched.
// The temporary directory is often another filesystem (a tmpfs) than the
// destination's; then the finished file is copied beside the destination
// and renamed from there, which keeps the replacement atomic. Never prints.
#pragma once

#include <cstdio>
#include <string>

// Creates and opens for writing a fresh file in $TMPDIR (or /tmp). On
// failure returns null with errno set; *path holds the name tried either way.
FILE *atomic_createTemp(std::string *path);

enum atomic_result {
  ATOMIC_OK = 0,
  ATOMIC_CREATE_FAILED, // the destination (or a file beside it) cannot be made
  ATOMIC_WRITE_FAILED,  // writing the destination's copy failed (disk full)
};

// Moves the closed temporary file tmp onto dest and removes tmp in every
// case. A regular destination keeps its permission bits; a destination that
// is not a regular file (a device such as /dev/null, a pipe) is written in
// place instead of being replaced.
atomic_result atomic_replace(const std::string &tmp, const std::string &dest);
