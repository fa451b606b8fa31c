// Placeholder for the -FIND, ,REPLACE and ,DELETE spec record; its family replaces it.
#pragma once

struct findspec {};
