// Linux failures as the Win32 errors the core branches on, shared by PosixEnv and
// the units it forwards to, so that each errno means one Win32 error everywhere.
#pragma once

#include "platform/env.h"

namespace platform::posix {

// ERROR_INVALID_FUNCTION for an errno with no counterpart here.
DWORD FromErrno(int e);

}  // namespace platform::posix
