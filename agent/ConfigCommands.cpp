// The SR-TE configuration: Config flags, static policies and the color-to-DSCP map; the tables
// `config` and `color-dscp`. The configuration process that turns static policies into input
// records (StaticInputWriter) lives here too, as long as the host.
#include <algorithm>
#include <ostream>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/StaticInputWriter.h"
#include "agent/TextTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

// The configuration process: writes the static source's input records (see StaticInputWriter.h).
struct ConfigProcess {
   StaticInputWriter writer;
   explicit ConfigProcess(Host& host) : writer(host.config(), host.policyInputSource()) {}
};

// Keeps Status.agentEnabled equal to Config.enabled while the agent runs.
struct AgentStatus : Config::Notifiee {
   Mox::Ptr<Status> status;
   explicit AgentStatus(Host& host) : status(host.status()) {
      notifierIs(host.config());
      onEnabled();
   }
   void onEnabled() override { status->agentEnabledIs(notifier()->enabled()); }
};

// The words of the static commands, all optional here; each verb says which it needs.
struct StaticWords {
   EndPoint endpoint;
   std::optional<Color> color;
   std::optional<Preference> preference;
   std::optional<Ipkit::MplsLabelOperation> labels;
   std::optional<Ipkit::MplsLabel> bsid;
   std::optional<Weight> weight;
   std::optional<Index> index;
};

StaticWords readStatic(Args& a, std::initializer_list<std::string_view> keywords) {
   StaticWords w;
   w.endpoint = a.address("endpoint");
   while (!a.done()) {
      const std::string k = a.keyword(keywords);
      if (k == "color") {
         w.color = a.bounded<Color>("color");
      } else if (k == "preference") {
         w.preference = a.bounded<Preference>("preference");
      } else if (k == "labels") {
         w.labels = a.labelStack();
      } else if (k == "bsid") {
         w.bsid = a.label("bsid");
      } else if (k == "weight") {
         w.weight = a.bounded<Weight>("weight");
      } else if (k == "index") {
         w.index = a.bounded<Index>("index");
      }
   }
   return w;
}

PolicyKey keyOf(const Args& a, const StaticWords& w) {
   return PolicyKey(w.endpoint, need(a, w.color, "color"));
}

Mox::Ptr<StaticPolicy> existingPolicy(Host& host, const Args& a, const PolicyKey& key) {
   Mox::Ptr<StaticPolicy> p = host.config()->policy(key);
   if (!p) a.fail("no static policy " + key.stringValue());
   return p;
}

Mox::Ptr<CandidatePath> existingPath(Host& host, const Args& a, const PolicyKey& key,
                                     Preference preference) {
   Mox::Ptr<CandidatePath> c = existingPolicy(host, a, key)->candidatePath(preference);
   if (!c) {
      a.fail("static policy " + key.stringValue() + " has no path of preference " +
             std::to_string(preference.value));
   }
   return c;
}

void registerFlag(Host& host, const char* word, const char* summary, void (Config::*setter)(bool)) {
   const std::string name = std::string("config ") + word;
   host.verbIs(name, name + " on|off", summary, [&host, name, setter](Args& a) -> Host::Apply {
      const bool on = a.onOff(name);
      return [&host, setter, on] { (host.config().get()->*setter)(on); };
   });
}

// DSCP values: numbers 0..63 or names (ef, af41, cs3, ...).
Ipkit::DscpValue readDscp(Args& a) {
   std::string text(a.peek());
   if (auto named = Ipkit::DscpValue::fromName(lowercase(text))) {
      a.word("dscp");
      return *named;
   }
   uint64_t ignored = 0;
   if (Args::parseDecimal(text, ignored) == Args::Decimal::notANumber) {
      a.fail("expected a DSCP value (0 to 63, or a name such as ef, af41, cs3), got '" + text +
             "'");
   }
   return a.bounded<Ipkit::DscpValue>("dscp");
}

std::vector<Ipkit::DscpValue> readDscpList(Args& a) {
   std::vector<Ipkit::DscpValue> values;
   while (!a.done() && a.peek() != "symbolic") values.push_back(readDscp(a));
   if (values.empty()) a.failUsage("missing DSCP value");
   return values;
}

// ---- show config

std::vector<Mox::Ptr<StaticPolicy>> policiesByKey(const Config& config) {
   std::vector<Mox::Ptr<StaticPolicy>> out;
   for (const auto& [key, p] : config.policy()) out.push_back(p);
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a->key() < b->key(); });
   return out;
}

void configText(Host& host, std::string& out) {
   const Config& c = *host.config();
   out += "SR-TE configuration\n";
   Show::TextTable flags({"Setting", "Value"});
   flags.rowIs({"enabled", Show::onOff(c.enabled())});
   flags.rowIs({"specified-bsid-only", Show::onOff(c.specifiedBsidOnly())});
   flags.rowIs({"segment-list-sharing", Show::onOff(c.segmentListSharingEnabled())});
   flags.rowIs({"discriminator-tie-break", Show::onOff(c.useDiscriminatorInTieBreaking())});
   flags.rowIs({"agent enabled (status)", Show::onOff(host.status()->agentEnabled())});
   flags.render(out, 2);
   Mox::appendf(out, "Static policies: %zu\n", c.policyCount());
   Show::TextTable t({"Endpoint", "Color", "BSID", "Preference", "Index", "Weight", "Labels"});
   for (const auto& p : policiesByKey(c)) {
      std::vector<std::string> head{p->key().endpoint.stringValue(),
                                    std::to_string(p->key().color.value),
                                    Show::labelText(p->bindingSid())};
      bool first = true;
      auto emit = [&](std::vector<std::string> rest) {
         std::vector<std::string> cells = first ? head : std::vector<std::string>(3);
         cells.insert(cells.end(), rest.begin(), rest.end());
         first ? t.rowIs(std::move(cells)) : t.continuationIs(std::move(cells));
         first = false;
      };
      if (p->candidatePathCount() == 0) emit({});
      for (const auto& [preference, path] : p->candidatePath()) {
         bool firstList = true;
         for (const auto& [labels, list] : path->staticSegmentListByIndex()) {
            emit({firstList ? std::to_string(preference.value) : "",
                  std::to_string(list.index.value), std::to_string(list.weight.value),
                  Show::labelStackText(labels)});
            firstList = false;
         }
         if (firstList) emit({std::to_string(preference.value), "", "", "(no segment lists)"});
      }
   }
   t.render(out, 2);
}

Json::Value configJson(Host& host) {
   const Config& c = *host.config();
   Json::Value policies = Json::Value::array();
   for (const auto& p : policiesByKey(c)) {
      Json::Value paths = Json::Value::inlineArray();
      for (const auto& [preference, path] : p->candidatePath()) {
         Json::Value lists = Json::Value::inlineArray();
         for (const auto& [labels, list] : path->staticSegmentListByIndex()) {
            lists.push(Json::Value::row()
                           .set("index", list.index.value)
                           .set("weight", list.weight.value)
                           .set("labels", Show::labelStackJson(labels)));
         }
         paths.push(Json::Value::row()
                        .set("preference", preference.value)
                        .set("segmentLists", std::move(lists)));
      }
      policies.push(Json::Value::row()
                        .set("endpoint", Json::Value::address(p->key().endpoint))
                        .set("color", p->key().color.value)
                        .set("bindingSid", Json::Value::label(p->bindingSid()))
                        .set("candidatePaths", std::move(paths)));
   }
   return Json::Value::object()
       .set("enabled", c.enabled())
       .set("specifiedBsidOnly", c.specifiedBsidOnly())
       .set("segmentListSharingEnabled", c.segmentListSharingEnabled())
       .set("useDiscriminatorInTieBreaking", c.useDiscriminatorInTieBreaking())
       .set("agentEnabled", host.status()->agentEnabled())
       .set("policies", std::move(policies));
}

// ---- show color-dscp

std::vector<Mox::Ptr<DscpList>> colorsInOrder(const ColorDscpMap& m) {
   std::vector<Mox::Ptr<DscpList>> out;
   for (const auto& [color, list] : m.colorToDscp()) out.push_back(list);
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a->color() < b->color(); });
   return out;
}

// Every value named by either collection of the list, ascending.
std::vector<Ipkit::DscpValue> valuesOf(const DscpList& l) {
   std::vector<Ipkit::DscpValue> v(l.dscp().begin(), l.dscp().end());
   for (const auto& [value, flag] : l.cliSaveUseSymbolic_()) {
      if (!l.dscp(value)) v.push_back(value);
   }
   std::sort(v.begin(), v.end());
   return v;
}

void colorDscpText(Host& host, std::string& out) {
   const ColorDscpMap& m = *host.colorDscpMap();
   Mox::appendf(out, "Color to DSCP map: %s\n", Show::count(m.colorToDscpCount(), "color").c_str());
   Show::TextTable t({"Color", "DSCP", "Saved as"});
   for (const auto& l : colorsInOrder(m)) {
      std::string numbers, saved;
      for (const auto& v : valuesOf(*l)) {
         const bool symbolic = l->cliSaveUseSymbolic_(v).value_or(false);
         if (!l->dscp(v)) continue;
         numbers += (numbers.empty() ? "" : " ") + v.stringValue();
         saved += (saved.empty() ? "" : " ") +
                  (symbolic && !v.symbolicName().empty() ? v.symbolicName() : v.stringValue());
      }
      t.rowIs({std::to_string(l->color().value), numbers, saved});
   }
   t.render(out, 2);
}

Json::Value colorDscpJson(Host& host) {
   Json::Value rows = Json::Value::array();
   for (const auto& l : colorsInOrder(*host.colorDscpMap())) {
      Json::Value values = Json::Value::inlineArray();
      for (const auto& v : valuesOf(*l)) {
         auto flag = l->cliSaveUseSymbolic_(v);
         Json::Value item = Json::Value::row()
                                .set("value", uint32_t{v.value})
                                .set("member", l->dscp(v))
                                .set("cliSaveUseSymbolic",
                                     flag ? Json::Value::boolean(*flag) : Json::Value::null());
         if (!v.symbolicName().empty()) item.set("name", v.symbolicName());
         values.push(std::move(item));
      }
      rows.push(Json::Value::row().set("color", l->color().value).set("dscp", std::move(values)));
   }
   return rows;
}

} // namespace

void registerConfig(Host& host) {
   host.shared<ConfigProcess>();
   host.stageIs(0, "agent status", [&host] { host.process<AgentStatus>(); });

   registerFlag(host, "enabled", "SR-TE on or off", &Config::enabledIs);
   registerFlag(host, "specified-bsid-only",
                "on: a candidate path without a binding SID is unusable",
                &Config::specifiedBsidOnlyIs);
   registerFlag(host, "segment-list-sharing", "share segment lists between candidate paths",
                &Config::segmentListSharingEnabledIs);
   registerFlag(host, "discriminator-tie-break",
                "on: the best candidate by full priority always wins, discriminator included",
                &Config::useDiscriminatorInTieBreakingIs);

   host.verbIs("static policy", "static policy <endpoint> color <c> [bsid <label>]",
               "configure a static policy and its binding SID (none when not given)",
               [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color", "bsid"});
                  const PolicyKey key = keyOf(a, w);
                  const Ipkit::MplsLabel bsid = w.bsid.value_or(Ipkit::MplsLabel());
                  return [&host, key, bsid] { host.config()->policyIs(key)->bindingSidIs(bsid); };
               });
   host.verbIs("static path", "static path <endpoint> color <c> preference <p>",
               "configure a candidate path of a static policy (made if absent)",
               [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color", "preference"});
                  const PolicyKey key = keyOf(a, w);
                  const Preference pref = need(a, w.preference, "preference");
                  return
                      [&host, key, pref] { host.config()->policyIs(key)->candidatePathIs(pref); };
               });
   host.verbIs(
       "static segment-list",
       "static segment-list <endpoint> color <c> preference <p> labels <l>... [weight <w>] "
       "[index <i>]",
       "configure a segment list of a static candidate path (policy and path made if absent)",
       [&host](Args& a) -> Host::Apply {
          StaticWords w = readStatic(a, {"color", "preference", "labels", "weight", "index"});
          const PolicyKey key = keyOf(a, w);
          const Preference pref = need(a, w.preference, "preference");
          const Ipkit::MplsLabelOperation labels = need(a, w.labels, "labels");
          const StaticSegmentList list(w.weight.value_or(Weight()), w.index.value_or(Index()));
          // A candidate path's record holds 16 segment lists: refuse a 17th here, where the
          // user can see why.
          if (auto p = host.config()->policy(key)) {
             if (auto c = p->candidatePath(pref)) {
                if (!c->staticSegmentList(labels) &&
                    c->staticSegmentListCount() >= PolicyInputEntry::segmentListCapacity) {
                   try {
                      SegmentListIndex(static_cast<uint32_t>(c->staticSegmentListCount()));
                   } catch (const Mox::RangeError& e) {
                      a.fail("segment list " + std::to_string(c->staticSegmentListCount() + 1) +
                             " of a candidate path: " + e.what());
                   }
                }
             }
          }
          return [&host, key, pref, labels, list] {
             host.config()->policyIs(key)->candidatePathIs(pref)->staticSegmentListIs(labels, list);
          };
       });
   host.verbIs("no static policy", "no static policy <endpoint> color <c>",
               "remove a static policy with its paths", [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color"});
                  const PolicyKey key = keyOf(a, w);
                  existingPolicy(host, a, key);
                  return [&host, key] { host.config()->policyDel(key); };
               });
   host.verbIs("no static path", "no static path <endpoint> color <c> preference <p>",
               "remove a candidate path of a static policy", [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color", "preference"});
                  const PolicyKey key = keyOf(a, w);
                  const Preference pref = need(a, w.preference, "preference");
                  existingPath(host, a, key, pref);
                  return [&host, key, pref] { host.config()->policy(key)->candidatePathDel(pref); };
               });
   host.verbIs("no static segment-list",
               "no static segment-list <endpoint> color <c> preference <p> labels <l>...",
               "remove a segment list of a static candidate path", [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color", "preference", "labels"});
                  const PolicyKey key = keyOf(a, w);
                  const Preference pref = need(a, w.preference, "preference");
                  const Ipkit::MplsLabelOperation labels = need(a, w.labels, "labels");
                  if (!existingPath(host, a, key, pref)->staticSegmentList(labels)) {
                     a.fail("static policy " + key.stringValue() + " preference " +
                            std::to_string(pref.value) + " has no segment list [" +
                            labels.stringValue() + "]");
                  }
                  return [&host, key, pref, labels] {
                     host.config()->policy(key)->candidatePath(pref)->staticSegmentListDel(labels);
                  };
               });

   host.verbIs("color-dscp", "color-dscp <color> dscp <value>... [symbolic]",
               "map DSCP values (0 to 63, or names: ef, af41, cs3, ...) to a color; symbolic: "
               "saved by name",
               [&host](Args& a) -> Host::Apply {
                  const Color color = a.bounded<Color>("color");
                  a.expect("dscp");
                  const auto values = readDscpList(a);
                  const bool symbolic = a.accept("symbolic");
                  return [&host, color, values, symbolic] {
                     auto list = host.colorDscpMap()->colorToDscpIs(color);
                     for (const auto& v : values) {
                        list->dscpIs(v);
                        list->cliSaveUseSymbolic_Is(v, symbolic);
                     }
                  };
               });
   host.verbIs(
       "no color-dscp", "no color-dscp <color> [dscp <value>...]",
       "remove DSCP values from a color, or the whole color", [&host](Args& a) -> Host::Apply {
          const Color color = a.bounded<Color>("color");
          auto list = host.colorDscpMap()->colorToDscp(color);
          if (!list) a.fail("color " + std::to_string(color.value) + " has no DSCP map");
          if (a.done()) {
             return [&host, color] { host.colorDscpMap()->colorToDscpDel(color); };
          }
          a.expect("dscp");
          const auto values = readDscpList(a);
          for (const auto& v : values) {
             if (!list->dscp(v)) {
                a.fail("color " + std::to_string(color.value) + " has no DSCP " + v.stringValue());
             }
          }
          return [list, values] {
             for (const auto& v : values) {
                list->dscpDel(v);
                list->cliSaveUseSymbolic_Del(v);
             }
          };
       });

   host.showIs(
       "config", "Config flags and static policies",
       [&host](std::string& out) { configText(host, out); }, [&host] { return configJson(host); });
   host.showIs(
       "color-dscp", "the color-to-DSCP map",
       [&host](std::string& out) { colorDscpText(host, out); },
       [&host] { return colorDscpJson(host); });
}

} // namespace Agent
