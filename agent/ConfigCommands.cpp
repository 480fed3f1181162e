// The SR-TE configuration: Config flags, static policies and the color-to-DSCP map; the tables
// `config` and `color-dscp`. The configuration process that turns static policies into input
// records (StaticInputWriter) is the host's, as long as the host.
#include <algorithm>
#include <ostream>
#include <utility>
#include <vector>

#include "agent/Attachment.h"
#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

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
   host.verbWritesRouterTables(name, {"config"});
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

// Static policies become candidate paths only through the static input table.
bool staticTableExists(Host& host) {
   return host.policyInputSource()->policyInput(Protocol::staticConfig) != nullptr;
}

// Says once, until the table appears, that static policies configured without it stay inert: a
// configuration that silently never becomes candidates is a trap.
void warnWithoutStaticTable(Host& host) {
   bool& warned = host.staticTableWarned();
   if (staticTableExists(host)) {
      warned = false;
   } else if (!std::exchange(warned, true)) {
      host.warn("no 'input-table static': static policies are not candidate paths until it "
                "exists");
   }
}

std::vector<Mox::Ptr<StaticPolicy>> policiesByKey(const Config& config) {
   std::vector<Mox::Ptr<StaticPolicy>> out;
   for (const auto& [key, p] : config.policy()) out.push_back(p);
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a->key() < b->key(); });
   return out;
}

Show::View configView(Host& host) {
   const Config& c = *host.config();
   auto setting = [](std::string name, std::string key, bool on) {
      return Show::View::Setting{std::move(name), std::move(key),
                                 Show::flag(on, Show::onOff(true), Show::onOff(false))};
   };
   Show::Table t({{"Endpoint", "endpoint"}, {"Color", "color"}, {"BSID", "bindingSid"}},
                 {Show::Level{{{"Preference", "preference"}}, "candidatePaths"},
                  Show::Level{{{"Index", "index"}, {"Weight", "weight"}, {"Labels", "labels"}},
                              "segmentLists",
                              {"", "", "(no segment lists)"}}});
   for (const auto& p : policiesByKey(c)) {
      auto& row = t.rowIs({Show::address(p->key().endpoint), Show::number(p->key().color.value),
                           Show::label(p->bindingSid())});
      for (const auto& [preference, path] : p->candidatePath()) {
         auto& pathRow = row.lineIs({Show::number(preference.value)});
         for (const auto& [labels, list] : path->staticSegmentListByIndex()) {
            pathRow.lineIs({Show::number(list.index.value), Show::number(list.weight.value),
                            Show::labelStack(labels)});
         }
      }
   }
   const bool inert = c.policyCount() > 0 && !staticTableExists(host);
   // The status is the agent's to write: attached, it is asked of the agent.
   Show::View::Setting agent =
       setting("agent enabled (status)", "agentEnabled", host.status()->agentEnabled());
   if (Attachment* a = host.attachment()) {
      const std::optional<bool> on = a->agentEnabled();
      if (on) {
         agent = setting("agent enabled (status)", "agentEnabled", *on);
      } else {
         agent.value = Show::cell("unknown (no agent runs)", Json::Value::null());
      }
   }
   return Show::View()
       .lineIs("SR-TE configuration")
       .settingsIs({"Setting", "Value"},
                   {setting("enabled", "enabled", c.enabled()),
                    setting("specified-bsid-only", "specifiedBsidOnly", c.specifiedBsidOnly()),
                    setting("segment-list-sharing", "segmentListSharingEnabled",
                            c.segmentListSharingEnabled()),
                    setting("discriminator-tie-break", "useDiscriminatorInTieBreaking",
                            c.useDiscriminatorInTieBreaking()),
                    std::move(agent)})
       .lineIs(Mox::format("Static policies: %zu", c.policyCount()) +
               (inert ? " (no 'input-table static': they are not candidate paths)" : ""))
       .fieldIs("", "staticInputTable", Show::flag(staticTableExists(host), "yes", "no"))
       .tableIs("policies", std::move(t));
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

Show::View colorDscp(Host& host) {
   const ColorDscpMap& m = *host.colorDscpMap();
   // Readable: the member values and how each is saved; JSON: every value named, with its flags.
   Show::Table t({{"Color", "color"}, {"DSCP", ""}, {"Saved as", ""}, {"", "dscp"}});
   for (const auto& l : colorsInOrder(m)) {
      std::string numbers, saved;
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
         if (!l->dscp(v)) continue;
         const bool symbolic = flag.value_or(false);
         numbers += (numbers.empty() ? "" : " ") + v.stringValue();
         saved += (saved.empty() ? "" : " ") +
                  (symbolic && !v.symbolicName().empty() ? v.symbolicName() : v.stringValue());
      }
      t.rowIs({Show::number(l->color().value), Show::text(numbers), Show::text(saved),
               Show::cell("", std::move(values))});
   }
   return Show::View()
       .lineIs("Color to DSCP map: " + Show::count(m.colorToDscpCount(), "color"))
       .tableIs("", std::move(t));
}

} // namespace

void registerConfig(Host& host) {
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
                  host.claimStaticInput(a);
                  return [&host, key, bsid] {
                     host.config()->policyIs(key)->bindingSidIs(bsid);
                     warnWithoutStaticTable(host);
                  };
               });
   host.verbIs("static path", "static path <endpoint> color <c> preference <p>",
               "configure a candidate path of a static policy (made if absent)",
               [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color", "preference"});
                  const PolicyKey key = keyOf(a, w);
                  const Preference pref = need(a, w.preference, "preference");
                  host.claimStaticInput(a);
                  return [&host, key, pref] {
                     host.config()->policyIs(key)->candidatePathIs(pref);
                     warnWithoutStaticTable(host);
                  };
               });
   host.verbIs(
       "static segment-list",
       "static segment-list <endpoint> color <c> preference <p> labels [<l>]... [weight <w>] "
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
                             " of a candidate path: " + e.what() +
                             " (a candidate path holds at most 16)");
                   }
                }
             }
          }
          host.claimStaticInput(a);
          return [&host, key, pref, labels, list] {
             host.config()->policyIs(key)->candidatePathIs(pref)->staticSegmentListIs(labels, list);
             warnWithoutStaticTable(host);
          };
       });
   host.verbIs("no static policy", "no static policy <endpoint> color <c>",
               "remove a static policy with its paths", [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color"});
                  const PolicyKey key = keyOf(a, w);
                  existingPolicy(host, a, key);
                  host.claimStaticInput(a);
                  return [&host, key] { host.config()->policyDel(key); };
               });
   host.verbIs("no static path", "no static path <endpoint> color <c> preference <p>",
               "remove a candidate path of a static policy", [&host](Args& a) -> Host::Apply {
                  StaticWords w = readStatic(a, {"color", "preference"});
                  const PolicyKey key = keyOf(a, w);
                  const Preference pref = need(a, w.preference, "preference");
                  existingPath(host, a, key, pref);
                  host.claimStaticInput(a);
                  return [&host, key, pref] { host.config()->policy(key)->candidatePathDel(pref); };
               });
   host.verbIs("no static segment-list",
               "no static segment-list <endpoint> color <c> preference <p> labels [<l>]...",
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
                  host.claimStaticInput(a);
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

   const std::vector<std::string> policies{"config-policy", "config-candidatePath"};
   for (const char* verb : {"static policy", "static path", "static segment-list",
                            "no static policy", "no static path", "no static segment-list"}) {
      host.verbWritesRouterTables(verb, policies);
   }
   host.verbWritesRouterTables("color-dscp", {"colorDscpMap"});
   host.verbWritesRouterTables("no color-dscp", {"colorDscpMap"});

   host.showIs(
       "config", "Config flags and static policies", [&host] { return configView(host); },
       Host::Reads::router);
   host.showIs(
       "color-dscp", "the color-to-DSCP map", [&host] { return colorDscp(host); },
       Host::Reads::router);
}

} // namespace Agent
