// The report of /status.
#pragma once

#include "paths/installation.h"

namespace qv {

// Prints the report; 0 when every add-in is healthy and the list is not
// empty, else 1.
int ReportStatus(const FusionInstallationList& installations, bool fusionActive);

// The file version of an executable as "a.b.c.d", or empty.
WString GetFileVersionText(const WString& path);

}  // namespace qv
