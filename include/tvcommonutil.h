// libtvcommonutil: a Windows-style system interface and the product's
// common utility classes on 64-bit Linux. Include this one header.
#ifndef TVCOMMONUTIL_H
#define TVCOMMONUTIL_H

#include "tvcommonutil/files.h"
#include "tvcommonutil/foundation.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/notify.h"
#include "tvcommonutil/processes.h"
#include "tvcommonutil/profile.h"
#include "tvcommonutil/registry.h"
#include "tvcommonutil/services.h"
#include "tvcommonutil/strings.h"
#include "tvcommonutil/threads.h"
#include "tvcommonutil/types.h"

#endif  // TVCOMMONUTIL_H
