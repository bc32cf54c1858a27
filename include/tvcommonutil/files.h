// File handles and file-system functions, KWSuperGlob, directory search, file mappings.
#ifndef TVCOMMONUTIL_FILES_H
#define TVCOMMONUTIL_FILES_H

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// File handles and file-system functions
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Temporary names and copies
// ---------------------------------------------------------------------------
// A name for a temporary file in dir: "dir/<name>.<tick>", where <name> is
// the last component of a fresh temporary-file name (shaped like tempnam's,
// "file" and six random characters) and <tick> the millisecond clock cut to
// an int. The name is very likely unused but not reserved: create it with
// O_EXCL.
TV_API CKWString KWTempNam(CKWString dir);
// Copies from to to, both held under FileLock locks for the copy. A missing
// source gives 0 and is never created. With failIfExists an existing
// destination gives 0; otherwise the destination is truncated first. Unless
// the process runs as a server (bRunningInServer), the copy gets the
// source's owner, group and mode. 1 on success, 0 when an open, the stat,
// the allocation, a read or a write fails.
TV_API BOOL CopyFile(const char* from, const char* to, unsigned char failIfExists);

// ---------------------------------------------------------------------------
// Glob engine
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Directory search
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// File mappings
// ---------------------------------------------------------------------------

#endif  // TVCOMMONUTIL_FILES_H
