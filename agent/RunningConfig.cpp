#include "agent/RunningConfig.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

template <class M>
std::vector<typename M::key_type> keysInOrder(const M& map) {
   std::vector<typename M::key_type> keys;
   for (const auto& kv : map) keys.push_back(kv.first);
   std::sort(keys.begin(), keys.end());
   return keys;
}

std::string number(uint64_t n) { return std::to_string(n); }

std::string labels(const Ipkit::MplsLabelOperation& op) {
   std::string out = "labels";
   for (uint32_t i = 0; i < op.stackSize(); ++i) {
      out += " " + Show::labelText(op.label(Ipkit::MplsStackEntryIndex(i)));
   }
   return out;
}

// Protocols by name when they have one, so that the script reads as a user would write it.
std::string protocolWord(Protocol p) { return protocolEnumToString(p); }

std::string vias(const Mpls::ViaSet& set) {
   std::string out;
   for (const Mpls::Via& v : set) {
      const std::string action = Ipkit::mplsLabelActionName(v.labelAction);
      out += " via " + v.nexthop.stringValue() + " " + v.intfId.stringValue() + " action " +
             (action == "unknown" ? number(static_cast<uint32_t>(v.labelAction)) : action);
      if (!v.label.isNull()) out += " label " + v.label.stringValue();
   }
   return out;
}

void configPart(Host& host, std::string& out) {
   const Config& c = *host.config();
   out += "config enabled " + std::string(Show::onOff(c.enabled())) + "\n";
   out += "config specified-bsid-only " + std::string(Show::onOff(c.specifiedBsidOnly())) + "\n";
   out += "config segment-list-sharing " + std::string(Show::onOff(c.segmentListSharingEnabled())) +
          "\n";
   out += "config discriminator-tie-break " +
          std::string(Show::onOff(c.useDiscriminatorInTieBreaking())) + "\n";
   for (const PolicyKey& key : keysInOrder(c.policy())) {
      const StaticPolicy& p = *c.policy(key);
      const std::string name = key.endpoint.stringValue() + " color " + number(key.color.value);
      out += "static policy " + name;
      if (!p.bindingSid().isNull()) out += " bsid " + p.bindingSid().stringValue();
      out += "\n";
      for (const Preference& pref : keysInOrder(p.candidatePath())) {
         const CandidatePath& path = *p.candidatePath(pref);
         const std::string pathName = name + " preference " + number(pref.value);
         out += "static path " + pathName + "\n";
         for (const auto& [stack, list] : path.staticSegmentListByIndex()) {
            out += "static segment-list " + pathName + " " + labels(stack) + " weight " +
                   number(list.weight.value) + " index " + number(list.index.value) + "\n";
         }
      }
   }
}

void colorDscpPart(Host& host, std::string& out) {
   const ColorDscpMap& m = *host.colorDscpMap();
   for (const Color& color : keysInOrder(m.colorToDscp())) {
      const DscpList& l = *m.colorToDscp(color);
      std::vector<Ipkit::DscpValue> values(l.dscp().begin(), l.dscp().end());
      std::sort(values.begin(), values.end());
      std::string plain, symbolic;
      for (const auto& v : values) {
         const bool byName = l.cliSaveUseSymbolic_(v).value_or(false);
         (byName ? symbolic : plain) +=
             " " + (byName && !v.symbolicName().empty() ? v.symbolicName() : v.stringValue());
      }
      const std::string head = "color-dscp " + number(color.value) + " dscp";
      if (!plain.empty()) out += head + plain + "\n";
      if (!symbolic.empty()) out += head + symbolic + " symbolic\n";
      if (values.empty()) {
         // A color whose values were all removed is still there: make it, then empty it.
         out += head + " 0\nno " + head + " 0\n";
      }
   }
}

void mplsPart(Host& host, std::string& out) {
   const Mpls::Config& config = *host.mplsConfig();
   const Mpls::Status& status = *host.mplsStatus();
   for (const auto& name : keysInOrder(config.labelRange())) {
      const Mpls::LabelRange& r = *config.labelRange(name);
      out +=
          "label-range " + name + " base " + number(r.base()) + " size " + number(r.size()) + "\n";
   }
   for (const auto& key : keysInOrder(status.lfibRoute())) {
      const Mpls::LFib::Route& r = *status.lfibRoute(key);
      out += "lfib route " + key.topLabel().stringValue() + " adjacency " +
             number(r.adjKey.index()) + " adjacency-type " +
             number(static_cast<uint32_t>(r.adjKey.type())) + " route-type " +
             number(static_cast<uint32_t>(r.type)) + " source " +
             number(static_cast<uint32_t>(r.source)) + "\n";
   }
   for (const auto& index : keysInOrder(status.adjacency())) {
      out += "adjacency " + number(index) + vias(*status.adjacency(index)) + "\n";
   }
   for (const auto& index : keysInOrder(status.adjacencyExt())) {
      const auto& ext = *status.adjacencyExt(index);
      out += "adjacency-ext " + number(index) + " fec " + number(ext.fecId.value()) +
             vias(ext.via) + "\n";
   }
   if (auto depth = host.hardwareStatus()->nexthopGroupMplsLabelStackSize()) {
      out += "platform max-label-depth " + number(*depth) + "\n";
   }
   const auto& counters = host.counterTable()->counter();
   for (const auto& id : keysInOrder(counters)) {
      const auto& c = counters.at(id);
      out += "counter tunnel " + number(id.value) + " packets " + number(c.packets) + " bytes " +
             number(c.bytes) + "\n";
   }
}

void inputPart(Host& host, std::string& out) {
   const auto& tables = host.policyInputSource()->policyInput();
   for (const Protocol& p : keysInOrder(tables)) {
      const PolicyInput& table = *host.policyInputSource()->policyInput(p);
      out += "input-table " + protocolWord(p) + "\n";
      std::vector<const PolicyInputEntry*> records;
      for (const PolicyInputEntry& e : table.policyInputEntry()) records.push_back(&e);
      std::sort(records.begin(), records.end(),
                [](auto* a, auto* b) { return a->key() < b->key(); });
      for (const PolicyInputEntry* e : records) out += inputLine(*e) + "\n";
      if (p == Protocol::staticConfig) {
         // Creating the static table fills it from the configuration; a configured path whose
         // record was deleted from the table must be deleted again.
         for (const PolicyKey& key : keysInOrder(host.config()->policy())) {
            for (const Preference& pref :
                 keysInOrder(host.config()->policy(key)->candidatePath())) {
               const PolicyId id(key, p, Discriminator(pref.value));
               if (table.policyInputEntryFind(id)) continue;
               out += noInputLine(id) + "\n";
            }
         }
      }
   }
}

} // namespace

std::string inputLine(const PolicyInputEntry& e) {
   const PolicyId& id = e.key();
   std::string out = "input " + protocolWord(id.protocol) + " " + id.key.endpoint.stringValue() +
                     " color " + number(id.key.color.value) + " discriminator " +
                     number(id.discriminator.value) + " originator " + number(e.originator().asn) +
                     " " + e.originator().address.stringValue() + " preference " +
                     number(e.preference().value);
   if (!e.bindingSid().isNull()) out += " bsid " + e.bindingSid().stringValue();
   for (uint32_t s = 0; s < e.segmentListCount(); ++s) {
      const WeightedSegList& l = e.segmentList(SegmentListIndex(s));
      out += " segment-list weight " + number(l.weight.value) + " " + labels(l.segList);
   }
   return out;
}

std::string noInputLine(const PolicyId& id) {
   return "no input " + protocolWord(id.protocol) + " " + id.key.endpoint.stringValue() +
          " color " + number(id.key.color.value) + " discriminator " +
          number(id.discriminator.value);
}

std::string runningConfig(Host& host) {
   std::string out = "# The inputs of srte: run this script in a fresh srte to rebuild them.\n";
   configPart(host, out);
   colorDscpPart(host, out);
   mplsPart(host, out);
   if (host.attrLog().isAttrLogOutClogged()) out += "attrlog congested on\n";
   // The static source's records follow from the configuration above once its table exists;
   // writing them again below changes nothing, and keeps records written by other means.
   inputPart(host, out);
   return out;
}

void registerRunningConfig(Host& host) {
   host.verbIs("show running-config", "show running-config [json]",
               "print the current inputs as a script that rebuilds them (json: its commands)",
               [&host](Args& a) -> Host::Apply {
                  const bool json = a.accept("json");
                  return [&host, json] {
                     const std::string script = runningConfig(host);
                     if (!json) {
                        host.out() << script;
                        return;
                     }
                     // The commands, one string each, without the comment lines.
                     Json::Value commands = Json::Value::array();
                     size_t start = 0;
                     while (start < script.size()) {
                        size_t end = script.find('\n', start);
                        if (end == std::string::npos) end = script.size();
                        const std::string line = script.substr(start, end - start);
                        if (!line.empty() && line[0] != '#') {
                           commands.push(Json::Value::string(line));
                        }
                        start = end + 1;
                     }
                     Json::Value top = Json::Value::object();
                     top.set("runningConfig", std::move(commands));
                     host.out() << top.render();
                  };
               });
   host.verbIs(
       "write", "write <file> [force]",
       "save the current inputs (show running-config) to a file; force: replace it",
       [&host](Args& a) -> Host::Apply {
          const std::string path = a.word("file");
          const bool force = a.accept("force");
          return [&host, path, force] {
             // Replacing a saved file by accident loses work: ask for it.
             struct stat st {};
             if (!force && ::stat(path.c_str(), &st) == 0) {
                throw ScriptError("'" + path + "' exists; 'write " + path + " force' replaces it");
             }
             const std::string script = runningConfig(host);
             std::ofstream file(path, std::ios::trunc);
             if (file) file << script;
             if (!file || !file.flush()) {
                throw ScriptError("cannot write '" + path + "': " + std::strerror(errno));
             }
             size_t lines = 0;
             for (char c : script) lines += c == '\n';
             if (host.verbose()) {
                host.out() << "wrote " << Show::count(lines, "line") << " to '" << path << "'\n";
             }
          };
       });
}

} // namespace Agent
