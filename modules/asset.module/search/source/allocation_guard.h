#pragma once
// Turns an allocation failure inside a filter operation into the framework's out-of-memory error,
// so that no exception leaves a public operation.

#include <new>

#include "kelvo/result.h"

namespace kelvo {

template <typename F> auto GuardAllocation(F&& body) -> decltype(body()) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return Error(errors::outofmemory, "Out of memory while reading filter text.");
  }
}

} // namespace kelvo
