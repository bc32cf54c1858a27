// UUIDs, host names, dynamic libraries and FormatMessage, system information and calendar time, the server load region, CTvAsciiEncode, integer/text conversions, KwRandom.
#ifndef TVCOMMONUTIL_SERVICES_H
#define TVCOMMONUTIL_SERVICES_H

#include "export.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// UUIDs
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Host names (CTvOS)
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Dynamic libraries, message catalogs and FormatMessage
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// System information and calendar time
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Server load region
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Small conversions: CTvAsciiEncode, integer/text, case, KwRandom
// ---------------------------------------------------------------------------

#endif  // TVCOMMONUTIL_SERVICES_H
