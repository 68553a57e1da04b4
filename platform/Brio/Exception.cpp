#include <Brio/Exception.h>

#include <cstring>

namespace Brio {

ErrnoException::ErrnoException(std::string callName, int errorNumber)
    : Exception(callName + ": " + std::strerror(errorNumber)),
      callName_(std::move(callName)),
      errorNumber_(errorNumber) {}

void throwRangeException(std::string const& message) { throw RangeException(message); }

}  // namespace Brio
