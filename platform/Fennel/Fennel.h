// Fennel: fatal assertions whose message carries the failed expression.
//
// FENNEL_ASSERT(expr) aborts the process when expr is false. The message
// names the expression text *after* macro expansion, which is why it
// stringizes through a second macro level: `errno != EINTR` reads as
// "(*__errno_location ()) != 4". These texts are part of the interface
// (death tests match them), so never build them by hand.
//
// FENNEL_ASSERT_MSG(expr, fmt, ...) adds a printf-formatted explanation.
// The check costs one predicted branch; the failure path is out of line.
#pragma once

#define FENNEL_STRINGIZE_(x) #x
#define FENNEL_EXPAND_AND_STRINGIZE_(x) FENNEL_STRINGIZE_(x)

namespace Fennel {

[[noreturn]] void assertFail(char const* expression, char const* file, int line, char const* function);
[[noreturn]] __attribute__((format(printf, 5, 6))) void assertFailFormat(char const* expression,
                                                                         char const* file, int line,
                                                                         char const* function,
                                                                         char const* format, ...);

}  // namespace Fennel

#define FENNEL_ASSERT(expr)                                                                       \
  (__builtin_expect(static_cast<bool>(expr), 1)                                                   \
       ? static_cast<void>(0)                                                                     \
       : ::Fennel::assertFail(FENNEL_EXPAND_AND_STRINGIZE_(expr), __FILE__, __LINE__, __func__))

#define FENNEL_ASSERT_MSG(expr, ...)                                                                  \
  (__builtin_expect(static_cast<bool>(expr), 1)                                                       \
       ? static_cast<void>(0)                                                                         \
       : ::Fennel::assertFailFormat(FENNEL_EXPAND_AND_STRINGIZE_(expr), __FILE__, __LINE__, __func__, \
                                    __VA_ARGS__))
