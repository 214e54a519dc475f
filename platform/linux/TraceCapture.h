// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The trace capture has moved to where every platform's tests find it. This path stays valid.
#pragma once

#include "platform/testing/TraceCapture.h"  // IWYU pragma: export
