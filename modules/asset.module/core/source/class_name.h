#pragma once
// The readable C++ class name of an object, for messages that name an unsupported class.

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>

namespace kelvo {

// The dynamic class of obj, demangled when the runtime can; the raw type name otherwise.
template <typename T> std::string ClassNameOf(const T& obj) {
  const char* raw = typeid(obj).name();
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(raw, nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(raw);
}

} // namespace kelvo
