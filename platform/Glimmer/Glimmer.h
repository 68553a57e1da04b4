// Glimmer: tracing at numbered levels 0..9, enabled per facility at run time.
//
//   static Glimmer::Facility& tr = Glimmer::facility("Corvid");
//   GLIMMER_TRACE(tr, 5, "connect: sd=" << sd);
//
// A facility holds a bit per level. A disabled trace costs one load and one
// predicted branch: the stream expression is not evaluated and nothing is
// allocated. Levels are switched on by the environment variable
// GLIMMER_TRACE when a facility is first made ("Corvid=0-5,Brio=9,*=0":
// a single number N means levels 0..N, "a-b" a range, * every facility) or
// programmatically with enable(). Lines go to stderr, or to the file named by
// GLIMMER_TRACE_FILE, as "<facility>[<level>] <text>". A Capture collects the
// lines emitted while it lives, for tests of trace texts.
//
// Facilities are process-wide and meant for the single activity thread;
// emitting from several threads is safe (the sink is locked) but switching
// levels while others trace is not.
#pragma once

#include <Brio/Types.h>

#include <sstream>
#include <string>

namespace Glimmer {

class Facility {
 public:
  explicit Facility(std::string name) : name_(std::move(name)) {}
  Facility(Facility const&) = delete;
  Facility& operator=(Facility const&) = delete;

  bool enabled(int level) const { return (levels_ >> level) & 1u; }
  std::string const& name() const { return name_; }
  U16 levels() const { return levels_; }
  void levelsIs(U16 mask) { levels_ = mask; }

 private:
  std::string name_;
  U16 levels_ = 0;
};

// The facility of that name, made (and configured from GLIMMER_TRACE) on
// first use. The reference stays valid for the life of the process.
Facility& facility(std::string const& name);

// Applies level settings in the GLIMMER_TRACE syntax to the existing
// facilities and to those made later. Returns false, changing nothing, when
// the text is malformed.
bool enable(std::string const& settings);
// Enables levels 0..maxLevel of one facility (-1 disables it).
void enable(std::string const& name, int maxLevel);

// Sends lines to a file (appending); an empty path means stderr again.
bool sinkFileIs(std::string const& path);

// Collects every emitted line while alive (lines still go to the sink).
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(Capture const&) = delete;
  Capture& operator=(Capture const&) = delete;
  std::string text() const;
  void clear();
  bool contains(std::string const& s) const { return text().find(s) != std::string::npos; }
};

// One trace line; emitted when it goes out of scope.
class Line {
 public:
  Line(Facility const& f, int level) : facility_(f), level_(level) {}
  ~Line();
  std::ostream& stream() { return text_; }

 private:
  Facility const& facility_;
  int level_;
  std::ostringstream text_;
};

}  // namespace Glimmer

#define GLIMMER_TRACE(fac, level, expr)                         \
  do {                                                          \
    if (__builtin_expect((fac).enabled(level), 0)) {            \
      ::Glimmer::Line glimmerLine_((fac), (level));             \
      glimmerLine_.stream() << expr; /* NOLINT */               \
    }                                                           \
  } while (0)
