// How FindFirstFile divides its argument into the directory to list and the
// name pattern to match there. Shared with the tests and the fuzz target.
#ifndef TV_FILES_FIND_SPLIT_H
#define TV_FILES_FIND_SPLIT_H

#include "tvcommonutil/strings.h"

namespace tv {
namespace detail {

// The text is split after its last '/' unless that slash is at position 1
// ("./x*", "~/x": deliberately taken whole), is the last character, or the
// text is not wild and names an existing directory. When it is not split,
// the whole text is the directory and "*" the name pattern.
void SplitFindPattern(const char* pattern, CKWString* directory, CKWString* namePattern);

}  // namespace detail
}  // namespace tv

#endif  // TV_FILES_FIND_SPLIT_H
