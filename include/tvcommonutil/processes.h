// Child processes: spawning, waiting, exit codes, termination, enumeration.
#ifndef TVCOMMONUTIL_PROCESSES_H
#define TVCOMMONUTIL_PROCESSES_H

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

#endif  // TVCOMMONUTIL_PROCESSES_H
