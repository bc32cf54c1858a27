// The shared registry: Reg* functions, CRegistry, FileLock, start-up and lazy writer.
#ifndef TVCOMMONUTIL_REGISTRY_H
#define TVCOMMONUTIL_REGISTRY_H

#include <sys/stat.h>

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

#endif  // TVCOMMONUTIL_REGISTRY_H
