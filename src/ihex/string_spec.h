// Placeholder for the -STRING and -STRPACK spec record; its family replaces it.
#pragma once

struct stringspec {};
