#pragma once
// Result<T>: a value or an error. Errors carry a class Id, a message, a source location and an
// optional cause. No exception crosses a public operation of the system; fallible operations
// return Result instead.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "kelvo/id.h"

namespace kelvo {

// The error classes, each behind "net.kelvo.error.".
namespace errors {
inline const Id illegalargument{"net.kelvo.error.illegalargument"};
inline const Id illegalstate{"net.kelvo.error.illegalstate"};
inline const Id unexpected{"net.kelvo.error.unexpected"};
inline const Id unknown{"net.kelvo.error.unknown"};
inline const Id nullptr_{"net.kelvo.error.nullptr"};
inline const Id unsupportedoperation{"net.kelvo.error.unsupportedoperation"};
inline const Id unsupportedargument{"net.kelvo.error.unsupportedargument"};
inline const Id functionnotimplemented{"net.kelvo.error.functionnotimplemented"};
inline const Id OperationCancelledError{"net.kelvo.error.OperationCancelledError"};
inline const Id io{"net.kelvo.error.io"};
inline const Id fileformat{"net.kelvo.error.fileformat"};
inline const Id outofmemory{"net.kelvo.error.outofmemory"};
} // namespace errors

// Fills each "@" of fmt with the next argument. Surplus arguments are ignored, missing ones leave
// "@" in place. Arguments are turned into text by an ADL-found ToString(x), or by the overloads
// below for strings and numbers.
inline std::string ToString(std::string_view s) { return std::string(s); }
inline std::string ToString(const std::string& s) { return s; }
inline std::string ToString(const char* s) { return s ? s : "(null)"; }
inline std::string ToString(char c) { return std::string(1, c); }
inline std::string ToString(bool b) { return b ? "true" : "false"; }
template <typename N>
  requires(std::is_arithmetic_v<N> && !std::is_same_v<N, bool> && !std::is_same_v<N, char>)
std::string ToString(N n) {
  return std::to_string(n);
}

std::string FormatArgs(std::string_view fmt, const std::string* args, std::size_t count);

template <typename... A> std::string FormatString(std::string_view fmt, const A&... args) {
  const std::string texts[sizeof...(A) + 1] = {ToString(args)..., std::string()};
  return FormatArgs(fmt, texts, sizeof...(A));
}

// Where an error was made. Filled by the compiler builtins that both GCC and clang provide
// (SourceLocation needs a newer clang than Debian's default).
struct SourceLocation {
  static constexpr SourceLocation Current(const char* file = __builtin_FILE(), unsigned line = __builtin_LINE(),
                                          const char* function = __builtin_FUNCTION()) {
    return SourceLocation{file, line, function};
  }
  const char* file = "";
  unsigned line = 0;
  const char* function = "";
};

class Error {
public:
  Error() = default;
  Error(Id errorClass, std::string message, SourceLocation location = SourceLocation::Current(),
        std::shared_ptr<const Error> cause = nullptr);

  bool IsSet() const { return _rep != nullptr; }
  explicit operator bool() const { return IsSet(); }
  const Id& GetClass() const;
  const std::string& GetMessage() const;
  const SourceLocation& GetLocation() const;
  const Error* GetCause() const { return _rep ? _rep->cause.get() : nullptr; }
  bool Is(const Id& errorClass) const { return _rep && _rep->errorClass == errorClass; }
  // Message, then the causes in order, separated by ": ".
  std::string ToString() const;

private:
  struct Rep {
    Id errorClass;
    std::string message;
    SourceLocation location;
    std::shared_ptr<const Error> cause;
  };
  std::shared_ptr<const Rep> _rep;
};

inline std::string ToString(const Error& e) { return e.ToString(); }

// Named constructors for the error classes. The message is a format text filled with the
// arguments ("@" per argument).
#define KELVO_ERROR_CTOR(name, cls)                                                                \
  template <typename... A> struct name : Error {                                                   \
    name(std::string_view fmt, const A&... args,                                                   \
         SourceLocation loc = SourceLocation::Current())                               \
        : Error(cls, FormatString(fmt, args...), loc) {}                                           \
  };                                                                                               \
  template <typename... A> name(std::string_view, const A&...) -> name<A...>;

KELVO_ERROR_CTOR(IllegalArgumentError, errors::illegalargument)
KELVO_ERROR_CTOR(IllegalStateError, errors::illegalstate)
KELVO_ERROR_CTOR(UnexpectedError, errors::unexpected)
KELVO_ERROR_CTOR(NullptrError, errors::nullptr_)
KELVO_ERROR_CTOR(UnsupportedOperationError, errors::unsupportedoperation)
KELVO_ERROR_CTOR(UnsupportedArgumentError, errors::unsupportedargument)
KELVO_ERROR_CTOR(FunctionNotImplementedError, errors::functionnotimplemented)
KELVO_ERROR_CTOR(IoError, errors::io)
KELVO_ERROR_CTOR(FileFormatError, errors::fileformat)
#undef KELVO_ERROR_CTOR

Error OperationCancelledError(SourceLocation loc = SourceLocation::Current());

// An error wrapping another as its cause.
Error ErrorWithCause(const Error& cause, Id errorClass, std::string message,
                     SourceLocation loc = SourceLocation::Current());

template <typename T> class [[nodiscard]] Result {
public:
  using ValueType = T;
  Result() requires std::is_default_constructible_v<T> : _v(std::in_place_index<0>) {}
  Result(const T& value) : _v(std::in_place_index<0>, value) {}
  Result(T&& value) : _v(std::in_place_index<0>, std::move(value)) {}
  template <typename U>
    requires(std::is_constructible_v<T, U &&> && !std::is_same_v<std::decay_t<U>, T> &&
             !std::is_same_v<std::decay_t<U>, Error> && !std::is_base_of_v<Error, std::decay_t<U>>)
  Result(U&& value) : _v(std::in_place_index<0>, std::forward<U>(value)) {}
  Result(const Error& error) : _v(std::in_place_index<1>, error) {}

  bool HasValue() const { return _v.index() == 0; }
  bool HasError() const { return _v.index() == 1; }
  explicit operator bool() const { return HasValue(); }

  T& GetValue() & { return std::get<0>(_v); }
  const T& GetValue() const& { return std::get<0>(_v); }
  T&& GetValue() && { return std::get<0>(std::move(_v)); }
  T& operator*() & { return GetValue(); }
  const T& operator*() const& { return GetValue(); }
  T* operator->() { return &GetValue(); }
  const T* operator->() const { return &GetValue(); }
  const Error& GetError() const { return std::get<1>(_v); }
  T GetValueOr(T fallback) const { return HasValue() ? GetValue() : std::move(fallback); }

private:
  std::variant<T, Error> _v;
};

template <> class [[nodiscard]] Result<void> {
public:
  Result() = default;
  Result(const Error& error) : _error(error) {}
  bool HasValue() const { return !_error.IsSet(); }
  bool HasError() const { return _error.IsSet(); }
  explicit operator bool() const { return HasValue(); }
  const Error& GetError() const { return _error; }

private:
  Error _error;
};

// Returns the error of a Result expression from the enclosing function.
#define KELVO_RETURN_ON_ERROR(expr)                                                                \
  do {                                                                                             \
    auto&& kelvo_r_ = (expr);                                                                      \
    if (kelvo_r_.HasError()) return kelvo_r_.GetError();                                           \
  } while (0)

#define KELVO_CONCAT_INNER(a, b) a##b
#define KELVO_CONCAT(a, b) KELVO_CONCAT_INNER(a, b)
// Declares `var` from the value of a Result expression, or returns its error.
#define KELVO_ASSIGN_OR_RETURN(var, expr)                                                          \
  auto KELVO_CONCAT(kelvo_a_, __LINE__) = (expr);                                                  \
  if (KELVO_CONCAT(kelvo_a_, __LINE__).HasError()) return KELVO_CONCAT(kelvo_a_, __LINE__).GetError(); \
  var = std::move(KELVO_CONCAT(kelvo_a_, __LINE__)).GetValue()

} // namespace kelvo
