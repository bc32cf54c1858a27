// Profile (INI) files: reading, writing and cache control.
#ifndef TVCOMMONUTIL_PROFILE_H
#define TVCOMMONUTIL_PROFILE_H

#include "export.h"
#include "types.h"

#endif  // TVCOMMONUTIL_PROFILE_H
