// Profile (INI) files: reading, writing and cache control.
//
// Every profile file a process touches is cached whole, comments and blank
// lines included, and written back with them. All functions are thread-safe:
// one process-wide lock serialises them. Between processes, a flush takes the
// lock file "/tmp/<path with each '/' turned into '-'>-lock"; a lock file left
// behind by a crashed process is broken by the next writer. File paths must be shorter than 256
// characters; longer ones are refused (default answer on read, 0 on write, errno ENAMETOOLONG).
//
// Section names, keys and file names compare without regard to case (the same
// file reached through two spellings of its path is cached twice). The one
// exception: deleting a key matches the key case-sensitively.
#ifndef TVCOMMONUTIL_PROFILE_H
#define TVCOMMONUTIL_PROFILE_H

#include "export.h"
#include "types.h"

// Reads from a profile file; returns the number of characters placed in buffer.
//
// - section and key given: the value of the first matching key in the first
//   matching section, trimmed, with one pair of quotes removed ("text" or
//   `text'). Comments are not removed from values: "k = v ; note" reads as
//   "v ; note". Cut to size - 1 characters and NUL-terminated.
// - section given, key null: the section's keys, each NUL-terminated, followed
//   by one more NUL. A bare line without '=' is listed as a key too.
// - section null: the file's section names in the same form.
// - a missing section or key, or an unreadable file: defaultValue (cut to
//   size - 1), or an empty string when defaultValue is null.
//
// Spare-byte contract of the two list forms: a list that fills the buffer
// exactly gets its closing NUL at buffer[size], one byte past the given size;
// callers must provide size + 1 bytes. A list that does not fit ends in two
// NULs at buffer[size - 2] and buffer[size - 1], with the last entry cut, and
// the result is size - 2 (0 for a size below 2).
//
// The cached copy is replaced by the disk copy whenever the file on disk is no
// longer the one loaded or last written (status-change time to the
// nanosecond, size, inode); changes this process has not written yet are
// kept on top of it, so a process always reads its own writes.
TV_API unsigned long GetPrivateProfileString(const char* section, const char* key,
                                             const char* defaultValue, char* buffer,
                                             unsigned long size, const char* fileName);

// The integer value of a key: decimal, or hexadecimal after "0x"; reading
// stops at the first other character. defaultValue when the section or key
// is missing, 0 for a negative or non-numeric value.
TV_API unsigned int GetPrivateProfileInt(const char* section, const char* key, int defaultValue,
                                         const char* fileName);

// The lines of a section other than blank and comment lines ("key=value" as
// written, trimmed), each NUL-terminated, followed by one more NUL; nothing
// is written past size. A list that does not fit ends in two NULs at
// buffer[size - 2] and buffer[size - 1] and the result is size - 2. A missing
// section or file gives an empty list (result 0).
TV_API unsigned long GetPrivateProfileSection(const char* section, char* buffer, unsigned long size,
                                              const char* fileName);

// The section names of a file in the same list form as GetPrivateProfileSection.
TV_API unsigned long GetPrivateProfileSectionNames(char* buffer, unsigned long size,
                                                   const char* fileName);

// Changes a profile file (creating it when missing):
// - section, key, value: set the key (an existing line keeps its key's spelling;
//   a new key goes before the section's trailing comment and blank lines; a new
//   section is appended);
// - section, key, null value: delete the key (case-sensitive match);
// - section, null key: delete the section;
// - all three null: flush cached writes of the file to disk; returns 0.
// A file whose owner-write permission bit is clear is never written (0).
// With write caching on (the default) changes stay in memory and the result
// is 1; with it off each change is flushed at once and the result is that of
// the flush, which is 0 for a flush that completed normally.
//
// A flush takes the file's lock file, re-reads the file if another process
// changed it and re-applies this process's changes over it in the order they
// were made (for one key the later flush wins; comments and untouched lines
// stay), then replaces the file by rename (owner and mode kept), so readers
// never see a partial file. A lock file whose holder has died, or that is
// older than 30 seconds, is removed by the next writer; a live holder is
// waited for up to about 2 seconds. Cached changes are flushed at normal exit.
TV_API int WritePrivateProfileString(const char* section, const char* key, const char* value,
                                     const char* fileName);

// Turns write caching on or off. Turning it off first flushes every file that
// holds cached changes.
TV_API void yuSetProfileWriteCaching(bool on);

// Flushes every cached file that holds changes (failures ignored) and empties
// the cache.
TV_API void yuWriteAndFreeAllProfiles();

#endif  // TVCOMMONUTIL_PROFILE_H
