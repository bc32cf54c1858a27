// Directory watch table, WatchDirsThread, change notification handles, completion ports.
#ifndef TVCOMMONUTIL_NOTIFY_H
#define TVCOMMONUTIL_NOTIFY_H

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

#endif  // TVCOMMONUTIL_NOTIFY_H
