// Placeholder for the -MASK spec record; its family replaces it.
#pragma once

struct maskspec {};
