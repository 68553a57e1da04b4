#include <Fennel/Fennel.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace Fennel {

namespace {
void report(char const* expression, char const* file, int line, char const* function) {
  std::fprintf(stderr, "Assertion failed: %s\n  at %s:%d in %s\n", expression, file, line, function);
}
}  // namespace

void assertFail(char const* expression, char const* file, int line, char const* function) {
  report(expression, file, line, function);
  std::fflush(stderr);
  std::abort();
}

void assertFailFormat(char const* expression, char const* file, int line, char const* function,
                      char const* format, ...) {
  report(expression, file, line, function);
  std::va_list args;
  va_start(args, format);
  std::fputs("  ", stderr);
  std::vfprintf(stderr, format, args);
  std::fputs("\n", stderr);
  va_end(args);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Fennel
