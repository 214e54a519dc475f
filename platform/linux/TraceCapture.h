// The trace capture has moved to where every platform's tests find it. This path stays valid.
#pragma once

#include "platform/testing/TraceCapture.h"  // IWYU pragma: export
