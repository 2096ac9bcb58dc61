// Whether a Fusion process runs anywhere on the machine.
#pragma once

namespace qv {

// True when any process, of any account or session, is named
// fusion360.exe or fusionlauncher.exe (case of A to Z ignored). An unreadable
// process list counts as no Fusion running.
bool IsFusionActive();

}  // namespace qv
