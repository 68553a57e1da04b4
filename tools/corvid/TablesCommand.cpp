// `corvid vrf` and `corvid tables`: the shared tables from the command line.
//
// vrf add/del name VRFs through the VRF id map's writer (so they fail, with
// the reason, while an agent owns the table); vrf list reads the table.
// tables dump prints every entry of any table under SHOAL_ROOT; tables watch
// follows one as a reader and prints each per-key notification, the mount
// status and quiescence as they happen. Known table types print their keys
// and values as text; others as the hex of their attribute-log bytes. With
// --json every line is one JSON object.
#include <Brio/ActivityManager.h>
#include <Corvid/VrfIdMap.h>
#include <Shoal/Shoal.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <functional>
#include <map>
#include <ostream>

#include "Command.h"
#include "Options.h"

namespace CorvidTool {

namespace {

using Shoal::MountMode;
using Shoal::MountStatus;

char const* const vrfTable = "vrfIdMap/status";
char const* const vrfWriterName = "corvid";

// The options of vrf and tables, read with the tool's option reader.
struct Flags {
  explicit Flags(Args const& args) : Flags(Options(args, {"--seconds", "--table"}, {"--json"})) {}
  explicit Flags(Options const& o)
      : json(o.has("--json")), seconds(o.seconds("--seconds", -1)), table(o.get("--table")), words(o.rest) {}
  bool json = false;
  double seconds = -1;  // watch: run until interrupted
  std::string table;
  std::vector<std::string> words;
};

// Text of one raw key or value, by table type and collection.
using Formatter = std::function<std::string(Shoal::RawBytes const&, bool isKey)>;

std::string hexOf(Shoal::RawBytes const& b) { return Shoal::valueToStrep(b).str(); }

template <class T>
std::string decodeAs(Shoal::RawBytes const& b) {
  Brio::NboAttrLog log;
  log.dataIs(b.bytes.data(), b.bytes.bytes());
  using Brio::attrLogRead;
  using Brio::valueToStrep;
  try {
    T v = attrLogRead(log, static_cast<T*>(nullptr));
    if (!log.atEnd()) return hexOf(b);
    return valueToStrep(v).str();
  } catch (std::exception const&) {
    return hexOf(b);
  }
}

Formatter formatterFor(std::string const& typeName, std::string const& collection) {
  using namespace Vrf::VrfIdMap;
  if (typeName == Status::typeNameText && collection == "vrfIdToName") {
    return [](Shoal::RawBytes const& b, bool isKey) { return isKey ? decodeAs<VrfId>(b) : decodeAs<VrfEntry>(b); };
  }
  return [](Shoal::RawBytes const& b, bool) { return hexOf(b); };
}

// Mounts a raw reader of `path` and reads it once; false with the reason
// when there is no readable table there.
bool mountRaw(Brio::Ptr<Shoal::RawTable> const& t, std::string const& path, std::ostream& err) {
  t->mount(Brio::String(path), MountMode::reader);
  if (t->mountStatus() != MountStatus::mounted) {
    err << "corvid: cannot read table " << Shoal::filePath(path).view() << ": " << t->reason().view() << "\n";
    return false;
  }
  return true;
}

class Watcher : public Shoal::RawTable::Notifiee {
 public:
  Watcher(Brio::Ptr<Shoal::RawTable> const& t, bool json, std::ostream& out) : Notifiee(t), json_(json), out_(out) {}

  void handleEntry(Shoal::RawBytes const& key) override {
    auto* c = notifier()->collection(key.collection);
    if (!c) return;
    bool present = c->contains(key);
    std::string k = format(c, key, true);
    std::string v = present ? format(c, c->get(key), false) : "";
    if (json_) {
      nlohmann::json j = {{"event", "entry"}, {"collection", c->name().str()}, {"key", k}, {"present", present}};
      if (present) j["value"] = v;
      out_ << j.dump() << std::endl;
    } else if (present) {
      out_ << "entry " << c->name().view() << " " << k << " = " << v << std::endl;
    } else {
      out_ << "entry " << c->name().view() << " " << k << " removed" << std::endl;
    }
  }
  void handleMountStatus() override {
    char const* s = Shoal::mountStatusText(notifier()->mountStatus());
    if (json_) {
      nlohmann::json j = {{"event", "mountStatus"}, {"mountStatus", s}, {"reason", notifier()->reason().str()}};
      out_ << j.dump() << std::endl;
    } else {
      out_ << "mountStatus " << s;
      if (!notifier()->reason().empty()) out_ << " (" << notifier()->reason().view() << ")";
      out_ << std::endl;
    }
  }
  void handleQuiesced() override {
    bool q = notifier()->quiesced();
    if (json_) {
      out_ << nlohmann::json({{"event", "quiesced"}, {"quiesced", q}}).dump() << std::endl;
    } else {
      out_ << "quiesced " << (q ? "true" : "false") << std::endl;
    }
  }

 private:
  std::string format(Shoal::CollectionBase const* c, Shoal::RawBytes const& b, bool isKey) {
    auto key = notifier()->fileTypeName().str() + "/" + c->name().str();
    auto it = formatters_.find(key);
    if (it == formatters_.end()) {
      it = formatters_.emplace(key, formatterFor(notifier()->fileTypeName().str(), c->name().str())).first;
    }
    return it->second(b, isKey);
  }
  bool json_;
  std::ostream& out_;
  std::map<std::string, Formatter> formatters_;
};

int dump(Flags const& f, std::ostream& out, std::ostream& err) {
  if (f.words.size() != 2) throw UsageError("tables dump takes one PATH");
  auto t = Shoal::RawTable::rawTableFactory("dump");
  if (!mountRaw(t, f.words[1], err)) return 1;
  std::string type = t->fileTypeName().str();
  for (U32 i = 0; i < t->collections().size(); ++i) {
    auto* c = t->collection(i);
    auto fmt = formatterFor(type, c->name().str());
    if (!f.json) {
      out << "table " << t->mountPath().view() << " type " << type << " collection " << c->name().view()
          << " capacity " << c->capacity() << " entries " << c->size() << "\n";
    }
    for (auto const& [k, v] : c->snapshot()) {
      if (f.json) {
        nlohmann::json j = {{"table", t->mountPath().str()}, {"type", type},     {"collection", c->name().str()},
                            {"key", fmt(k, true)},           {"value", fmt(v, false)}};
        out << j.dump() << "\n";
      } else {
        out << "  " << fmt(k, true) << " = " << fmt(v, false) << "\n";
      }
    }
  }
  return 0;
}

volatile std::sig_atomic_t interrupted = 0;

int watch(Flags const& f, std::ostream& out, std::ostream& err) {
  if (f.words.size() != 2) throw UsageError("tables watch takes one PATH");
  Brio::ActivityManager loop;
  auto t = Shoal::RawTable::rawTableFactory("watch");
  Watcher w(t, f.json, out);
  interrupted = 0;
  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::signal(SIGTERM, [](int) { interrupted = 1; });
  t->mount(Brio::String(f.words[1]), MountMode::reader);
  F64 const end = f.seconds < 0 ? Brio::never : Brio::monotonicNow() + f.seconds;
  while (!interrupted && Brio::monotonicNow() < end) loop.runOnce(std::min(0.1, end - Brio::monotonicNow()));
  return 0;
}

int vrfWrite(Flags const& f, std::ostream& out, std::ostream& err) {
  using namespace Vrf::VrfIdMap;
  if (f.words.size() != 2) throw UsageError("vrf " + f.words[0] + " takes one NAME");
  Brio::String name(f.words[1]);
  auto status = Status::statusFactory("vrf");
  if (!status->mount(Brio::String(f.table.empty() ? vrfTable : f.table), MountMode::writer)) {
    err << "corvid: " << status->reason().view() << "\n";
    return 1;
  }
  auto writer = Writer::writerFactory(vrfWriterName, status);
  writer->handleInitialized();
  if (!writer->initialized()) {
    err << "corvid: cannot attach the VRF id counter: " << writer->reason().view() << "\n";
    return 1;
  }
  bool add = f.words[0] == "add";
  VrfId id = add ? writer->vrfIs(name) : writer->nameToIdMap()->vrfNameToId(name);
  if (!add) writer->vrfDel(name);
  status->unmount();  // commits
  if (add && !id.valid()) {
    err << "corvid: no VRF id for " << name.view() << ": the table is full\n";
    return 1;
  }
  if (f.json) {
    nlohmann::json j = {{"vrf", name.str()}, {add ? "vrfId" : "released", id.valid() ? nlohmann::json(id.value()) : nullptr}};
    out << j.dump() << "\n";
  } else if (add) {
    out << name.view() << " " << id << "\n";
  } else {
    out << name.view() << (id.valid() ? " released" : " had no id") << "\n";
  }
  return 0;
}

int vrfList(Flags const& f, std::ostream& out, std::ostream& err) {
  using namespace Vrf::VrfIdMap;
  if (f.words.size() != 1) throw UsageError("vrf list takes no NAME");
  auto status = Status::statusFactory("vrf");
  status->mount(Brio::String(f.table.empty() ? vrfTable : f.table), MountMode::reader);
  if (status->mountStatus() != MountStatus::mounted) {
    err << "corvid: no VRF table: " << status->reason().view() << "\n";
    return 1;
  }
  for (auto const& [id, entry] : status->vrfIdToNameSnapshot()) {
    if (f.json) {
      out << nlohmann::json({{"vrfId", id.value()}, {"vrf", entry.vrfName().str()}}).dump() << "\n";
    } else {
      out << id << " " << entry.vrfName().view() << "\n";
    }
  }
  return 0;
}

}  // namespace

int tablesCommand(Args const& args, std::ostream& out, std::ostream& err) {
  Flags f(args);
  if (f.words.empty()) throw UsageError("missing dump or watch");
  if (f.words[0] == "dump") return dump(f, out, err);
  if (f.words[0] == "watch") return watch(f, out, err);
  throw UsageError("unknown tables command '" + f.words[0] + "'");
}

int vrfCommand(Args const& args, std::ostream& out, std::ostream& err) {
  Flags f(args);
  if (f.words.empty()) throw UsageError("missing add, del or list");
  if (f.words[0] == "add" || f.words[0] == "del") return vrfWrite(f, out, err);
  if (f.words[0] == "list") return vrfList(f, out, err);
  throw UsageError("unknown vrf command '" + f.words[0] + "'");
}

}  // namespace CorvidTool
