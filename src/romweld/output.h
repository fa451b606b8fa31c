// The files of a run: the output and the log, each written in full before
// either is put in place, so that a run that fails replaces nothing.
#pragma once

// Step 2: refuses an output whose directory cannot take it (message 378)
// and a log that names an input or the output (141), then opens the log and
// writes its opening sections. False stops the run.
bool output_prepare();
// Steps 18 to 21: start addresses into the hex object, the text written to
// its temporary file (or standard output). False stops the run.
bool output_write();
// Step 22: the log's closing sections; the log's text is then complete.
bool output_closeLog();
// Step 23: both complete texts put in place. False when one could not be.
bool output_place();
