// `corvid netns list|add NAME|del NAME`: named network namespaces through
// the library's namespace utilities.
//
// The entries are the ones iproute2 uses (/var/run/netns), so what this
// command makes `ip netns` lists and the other way round. list prints every
// entry, sorted by name: a usable namespace with the inode that identifies
// it, an entry that nothing is mounted onto yet as not mounted (`ip netns
// add` leaves one for a moment; a crashed creator leaves one for good).
// add and del print nothing on success, as `ip netns` does.
#include <Brio/Exception.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/NetnsUtils.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "Command.h"

namespace CorvidTool {

namespace {

struct Entry {
  std::string name;
  bool usable = false;
  unsigned long inode = 0;
  int error = 0;  // errno when the entry could not be examined
};

// Every entry of the run directory; a missing directory is an empty list.
// Returns false (errno set) when the directory exists but cannot be read.
bool listEntries(std::vector<Entry>* entries) {
  if (access(Corvid::NS_RUN_DIR, F_OK) != 0 && errno == ENOENT) return true;
  int fd = Corvid::openNsRunDir();
  if (fd < 0) return false;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    int const e = errno;
    close(fd);
    errno = e;
    return false;
  }
  while (dirent* d = readdir(dir)) {
    if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
    entries->push_back(Entry{d->d_name});
  }
  closedir(dir);
  std::sort(entries->begin(), entries->end(), [](Entry const& a, Entry const& b) { return a.name < b.name; });
  for (Entry& e : *entries) {
    if (!Corvid::validateNetNs(e.name.c_str(), &e.usable)) {
      e.error = errno;
    } else if (e.usable) {
      e.inode = Corvid::netNsInode(e.name.c_str());
    }
  }
  return true;
}

void printEntry(Entry const& e, bool json, std::ostream& out) {
  if (json) {
    nlohmann::ordered_json j = {{"name", e.name}, {"usable", e.usable}};
    j["inode"] = e.usable ? nlohmann::ordered_json(e.inode) : nlohmann::ordered_json(nullptr);
    if (e.error) j["error"] = std::strerror(e.error);
    // Names are bytes; a name that is not UTF-8 is printed with
    // replacement characters rather than refused.
    out << j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
  } else if (e.error) {
    out << e.name << " (" << std::strerror(e.error) << ")\n";
  } else if (e.usable) {
    out << e.name << " inode " << e.inode << "\n";
  } else {
    out << e.name << " (not mounted)\n";
  }
}

// The name argument: a single path component that a NamespaceName can hold.
std::string nameArgument(Args const& args, std::string const& verb) {
  if (args.size() < 2) throw UsageError("missing NAME for " + verb);
  if (args.size() > 2) throw UsageError("unexpected argument '" + args[2] + "'");
  std::string const& name = args[1];
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos || name[0] == '-') {
    throw UsageError("invalid namespace name '" + name + "'");
  }
  try {
    Corvid::NamespaceName checked(name.c_str());
    (void)checked;
  } catch (Brio::RangeException const& e) {
    throw UsageError(e.what());
  }
  return name;
}

}  // namespace

int netnsCommand(Args const& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) throw UsageError("missing list, add or del");
  std::string const& verb = args[0];
  if (verb == "list") {
    bool json = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
      if (args[i] != "--json") throw UsageError("unexpected argument '" + args[i] + "'");
      json = true;
    }
    std::vector<Entry> entries;
    if (!listEntries(&entries)) {
      err << "corvid netns list: " << Corvid::NS_RUN_DIR << ": " << std::strerror(errno) << "\n";
      return 1;
    }
    for (Entry const& e : entries) printEntry(e, json, out);
    return 0;
  }
  if (verb != "add" && verb != "del") throw UsageError("unknown netns command '" + verb + "'");
  std::string const name = nameArgument(args, verb);
  try {
    if (verb == "add") {
      Corvid::netNsAdd(name.c_str());
    } else {
      // The library only traces a missing entry (agents delete what may
      // already be gone); an operator asked for this one and must hear.
      if (!Corvid::netNsExists(name.c_str())) {
        err << "corvid netns del: " << name << ": " << std::strerror(ENOENT) << "\n";
        return 1;
      }
      Corvid::netNsDelete(name.c_str());
    }
  } catch (Brio::ErrnoException const& e) {
    err << "corvid netns " << verb << ": " << name << ": " << e.what();
    if ((e.errorNumber() == EPERM || e.errorNumber() == EACCES) && geteuid() != 0) err << " (run as root)";
    err << "\n";
    return 1;
  }
  return 0;
}

}  // namespace CorvidTool
