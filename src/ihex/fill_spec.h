// Placeholder for the -FILL spec record; its family replaces it.
#pragma once

struct fillspec {};
