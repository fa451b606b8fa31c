// Output stage of a run: start addresses into the hex object, the writer to
// a temporary file that replaces the output file only when writing
// succeeded (or to standard output), and the messages of a failed write.
#pragma once

// Processing steps 18 to 21; false stops the run.
bool output_stage();
