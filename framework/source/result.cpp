#include "kelvo/result.h"

namespace kelvo {

std::string FormatArgs(std::string_view fmt, const std::string* args, std::size_t count) {
  std::string out;
  out.reserve(fmt.size() + 16 * count);
  std::size_t next = 0;
  for (char c : fmt) {
    if (c == '@' && next < count)
      out += args[next++];
    else
      out += c;
  }
  return out;
}

Error::Error(Id errorClass, std::string message, SourceLocation location, std::shared_ptr<const Error> cause)
    : _rep(std::make_shared<const Rep>(Rep{std::move(errorClass), std::move(message), location, std::move(cause)})) {}

const Id& Error::GetClass() const {
  static const Id none;
  return _rep ? _rep->errorClass : none;
}

const std::string& Error::GetMessage() const {
  static const std::string none;
  return _rep ? _rep->message : none;
}

const SourceLocation& Error::GetLocation() const {
  static const SourceLocation none;
  return _rep ? _rep->location : none;
}

std::string Error::ToString() const {
  if (!_rep) return std::string();
  std::string text = _rep->message.empty() ? _rep->errorClass.ToString() : _rep->message;
  for (const Error* c = GetCause(); c && c->IsSet(); c = c->GetCause()) text += ": " + c->GetMessage();
  return text;
}

Error OperationCancelledError(SourceLocation loc) {
  return Error(errors::OperationCancelledError, "Operation cancelled.", loc);
}

Error ErrorWithCause(const Error& cause, Id errorClass, std::string message, SourceLocation loc) {
  return Error(std::move(errorClass), std::move(message), loc, std::make_shared<const Error>(cause));
}

} // namespace kelvo
