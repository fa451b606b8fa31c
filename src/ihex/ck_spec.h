// Placeholder for the -CK spec record; its family replaces it.
#pragma once

struct ckspec {};
