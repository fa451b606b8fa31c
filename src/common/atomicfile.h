// Output files that never destroy what the user did not ask to replace.
//
// A destination that is a regular file, a directory or nothing yet is
// written to a uniquely named temporary file beside its final target and
// put in place by one rename: an existing file is either untouched or
// wholly replaced, and keeps its permission bits, while a new one gets
// 0666 under the umask. A symbolic link is followed to the file it finally
// names; that file is replaced and the link stays a link. A destination
// that exists and is something else (a character device, a FIFO, a
// descriptor such as /dev/stdout) cannot be replaced: it is written
// straight to, and a failed run may leave part of its text there, as with
// standard output. Pending temporaries are in the registry of paths removed
// when the process ends (osdep.h). Never prints.
#pragma once

#include <cstdio>
#include <string>

struct atomic_file;

enum atomic_result {
  ATOMIC_OK = 0,
  ATOMIC_CREATE_FAILED, // the temporary could not be moved onto the target
  ATOMIC_WRITE_FAILED,  // not all of the text was written
};

// Opens a stream whose text becomes `dest`. With keepAtExit, a file still
// open when the process exits normally (a fatal message, the error limit,
// a return from main) is put in place then, instead of being removed.
// Null with errno set on failure; *tried then names what could not be
// opened: the temporary file, or dest itself when it is written straight to.
atomic_file *atomic_open(const std::string &dest, bool keepAtExit, std::string *tried);
FILE *atomic_stream(const atomic_file *f);

// Closes the stream and puts the text in place; f is freed. On
// ATOMIC_WRITE_FAILED the temporary is removed and the target untouched;
// on ATOMIC_CREATE_FAILED the rename failed and the temporary is removed.
atomic_result atomic_commit(atomic_file *f);
// Closes the stream and removes the temporary, leaving the target as it
// was (text written straight to a device stays written); f is freed.
void atomic_discard(atomic_file *f);
