// The framework's exception family. Every exception derives from
// Brio::Exception (itself a std::exception) and what() returns exactly the
// message text, with no prefix: callers and tests compare it verbatim.
#pragma once

#include <exception>
#include <string>

namespace Brio {

class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  char const* what() const noexcept override { return message_.c_str(); }
  std::string const& message() const { return message_; }

 private:
  std::string message_;
};

// Malformed text or an out-of-range value.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A broken internal expectation that is not worth an abort.
class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// An allocation that could not be satisfied.
class MemoryException : public Exception {
 public:
  using Exception::Exception;
};

// A size or length outside what the receiver can hold (for example reading
// past the end of an attribute log).
class SizeException : public Exception {
 public:
  using Exception::Exception;
};

// A failed system call: the call's name and errno. The message is
// "<call>: <strerror text>".
class ErrnoException : public Exception {
 public:
  ErrnoException(std::string callName, int errorNumber);
  std::string const& callName() const { return callName_; }
  int errorNumber() const { return errorNumber_; }

 private:
  std::string callName_;
  int errorNumber_;
};

[[noreturn]] void throwRangeException(std::string const& message);

}  // namespace Brio
