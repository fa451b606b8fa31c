// Placeholder for the -SERIAL spec record; its family replaces it.
#pragma once

struct serialspec {};
