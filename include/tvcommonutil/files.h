// File handles and file-system functions, KWSuperGlob, directory search, file mappings.
#ifndef TVCOMMONUTIL_FILES_H
#define TVCOMMONUTIL_FILES_H

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

#endif  // TVCOMMONUTIL_FILES_H
