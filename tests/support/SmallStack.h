// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A thread with as small a stack as an embedded agent gives its workers.
#pragma once

#include <pthread.h>

#include <exception>
#include <functional>
#include <system_error>

namespace Ipsec::Testing {

// Runs the work in a thread with a stack of 128 KB, waits for its end, and throws what the work throws.
inline void onASmallStack(const std::function<void()>& work) {
  struct Job {
    const std::function<void()>& work;
    std::exception_ptr thrown;
  } job = {work, nullptr};
  const auto check = [](int error) {
    if (error != 0) {
      throw std::system_error(error, std::generic_category(), "a thread with a small stack");
    }
  };
  const auto body = [](void* given) -> void* {
    Job& own = *static_cast<Job*>(given);
    try {
      own.work();
    } catch (...) {
      own.thrown = std::current_exception();
    }
    return nullptr;
  };
  pthread_attr_t attributes;
  pthread_t thread;
  check(pthread_attr_init(&attributes));
  check(pthread_attr_setstacksize(&attributes, std::size_t{128} * 1024));
  check(pthread_create(&thread, &attributes, body, &job));
  check(pthread_join(thread, nullptr));
  check(pthread_attr_destroy(&attributes));
  if (job.thrown) {
    std::rethrow_exception(job.thrown);
  }
}

}  // namespace Ipsec::Testing
