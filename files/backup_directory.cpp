#include "files/backup_directory.h"

#include "tvcommonutil/notify.h"

namespace tv {
namespace detail {

// Watch subtree 0 and filter 0: the handle only stands for the directory;
// callers that want records register it themselves.
Handle* OpenDirectoryForNotification(const char* name) {
    return new ChangeNotificationHandle(name, 0, 0);
}

}  // namespace detail
}  // namespace tv
