#pragma once

// sameContents() and filesUnder(), for the fault tests that run processes.
#include "support/EngineSession.h"
