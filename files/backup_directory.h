// The directory branch of CreateFile with backup semantics: a directory is
// opened as a change notification handle rather than as a descriptor.
#ifndef TV_FILES_BACKUP_DIRECTORY_H
#define TV_FILES_BACKUP_DIRECTORY_H

#include "tvcommonutil/handles.h"

namespace tv {
namespace detail {

// A new handle on directory `name` (an existing directory): no subtree, no
// filter, not registered with the directory watcher.
Handle* OpenDirectoryForNotification(const char* name);

}  // namespace detail
}  // namespace tv

#endif  // TV_FILES_BACKUP_DIRECTORY_H
