// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// MadeOnce holds an object that is created at first use and is then shared, unchanged, by all threads until the process
// ends. The object is never freed: static destructors that run before OpenSSL's clean-up may still compute with it.
#pragma once

#include <atomic>
#include <memory>

namespace Base {

template <class Owner>
class MadeOnce;

// A static MadeOnce is constant-initialised and has nothing to destroy.
template <class T, class Free>
class MadeOnce<std::unique_ptr<T, Free>> {
 public:
  // Returns the object and creates it with make() if there is none. When several threads create it at once, all get the
  // one that was stored first. Null if it cannot be created; the next call tries again.
  template <class Make>
  T* get(const Make& make) {
    T* held = slot.load(std::memory_order_acquire);
    if (held != nullptr) {
      return held;
    }
    std::unique_ptr<T, Free> made = make();
    if (made && slot.compare_exchange_strong(held, made.get(), std::memory_order_acq_rel)) {
      held = made.release();
    }
    return held;
  }

 private:
  std::atomic<T*> slot = nullptr;
};

}  // namespace Base
