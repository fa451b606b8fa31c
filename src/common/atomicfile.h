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
// standard output. A temporary not yet put in place when the process ends
// is removed, so a run that ends early leaves every target as it was.
// Never prints.
#pragma once

#include <cstdio>
#include <string>

struct atomic_file;

enum atomic_result {
  ATOMIC_OK = 0,
  ATOMIC_CREATE_FAILED, // the temporary could not be moved onto the target
  ATOMIC_WRITE_FAILED,  // not all of the text was written
};

// Opens a stream whose text becomes `dest`. Null with errno set on
// failure; *tried then names what could not be opened: the temporary file,
// or dest itself when it is written straight to.
atomic_file *atomic_open(const std::string &dest, std::string *tried);
// The file whose text dest would become: links followed, the directory
// made absolute, so that two names of one file compare equal even before
// the file exists.
std::string atomic_targetOf(const std::string &dest);
FILE *atomic_stream(const atomic_file *f);

// Closes the stream and checks that all of the text was written; false
// when not (the temporary is then removed and the target untouched). The
// text is not yet in place: atomic_place does that.
bool atomic_finish(atomic_file *f);
// Puts a finished text in place; false when the rename failed (the
// temporary is removed). f is freed either way.
bool atomic_place(atomic_file *f);
// Finish and place in one: ATOMIC_OK, or what went wrong.
atomic_result atomic_commit(atomic_file *f);
// Closes the stream and removes the temporary, leaving the target as it
// was (text written straight to a device stays written); f is freed.
void atomic_discard(atomic_file *f);
