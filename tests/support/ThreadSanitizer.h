// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Says whether this is a build with ThreadSanitizer. ThreadSanitizer has its own allocation, which cannot be replaced,
// and cannot be single-stepped. Tests that need either are left out of its builds.
#pragma once

#ifdef __SANITIZE_THREAD__
#define WITH_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WITH_THREAD_SANITIZER
#endif
#endif
