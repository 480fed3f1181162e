// The platform's MPLS state as other processes keep it: label ranges, LFIB routes, adjacencies
// and their external-FEC extensions, the hardware's label-stack depth and the tunnel counters;
// the table `mpls`.
#include <algorithm>
#include <ostream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

namespace {

using Tunnel::TunnelTable::TunnelId;

// Enumerations the platform passes through: a name from the table, or any number.
template <class E>
struct EnumName {
   E value;
   const char* name;
};

constexpr EnumName<Mpls::AdjacencyType> kAdjacencyTypes[] = {
    {Mpls::AdjacencyType::invalid, "invalid"},
    {Mpls::AdjacencyType::nexthop, "nexthop"},
    {Mpls::AdjacencyType::externalFec, "externalFec"},
};
constexpr EnumName<Mpls::LFib::RouteType> kRouteTypes[] = {
    {Mpls::LFib::RouteType::unknown, "unknown"},
    {Mpls::LFib::RouteType::pseudowire, "pseudowire"},
};
constexpr EnumName<Mpls::LFib::Source> kSources[] = {
    {Mpls::LFib::Source::unknown, "unknown"},
    {Mpls::LFib::Source::srTePolicy, "srTePolicy"},
};

template <class E, size_t N>
std::string nameOf(const EnumName<E> (&names)[N], E v) {
   for (const auto& n : names) {
      if (n.value == v) return n.name;
   }
   return std::to_string(static_cast<uint32_t>(v));
}

template <class E, size_t N>
E readEnum(Args& a, const char* what, const EnumName<E> (&names)[N]) {
   std::string text(a.peek());
   std::vector<std::string> known;
   for (const auto& n : names) {
      if (lowercase(text) == lowercase(n.name)) {
         a.word(what);
         return n.value;
      }
      known.push_back(n.name);
   }
   uint64_t ignored = 0;
   if (!text.empty() && Args::parseDecimal(text, ignored) == Args::Decimal::notANumber) {
      std::string msg = "unknown " + std::string(what) + " '" + text + "'";
      std::string guess = nearest(text, known);
      if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
      msg += "; a number or one of:";
      for (const auto& k : known) msg += " " + k;
      a.fail(msg);
   }
   return static_cast<E>(a.number(what, 0xffffffffu));
}

Ipkit::MplsLabelAction readAction(Args& a) {
   std::string text(a.peek());
   if (auto named = Ipkit::mplsLabelActionFromName(lowercase(text))) {
      a.word("action");
      return *named;
   }
   uint64_t ignored = 0;
   if (!text.empty() && Args::parseDecimal(text, ignored) == Args::Decimal::notANumber) {
      std::string msg = "unknown label action '" + text + "'";
      std::string guess = nearest(text, {"none", "pop", "swap", "push", "forward"});
      if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
      a.fail(msg + "; a number or one of: none pop swap push forward");
   }
   return static_cast<Ipkit::MplsLabelAction>(a.number("action", 0xffffffffu));
}

std::string actionText(Ipkit::MplsLabelAction act) {
   std::string name = Ipkit::mplsLabelActionName(act);
   return name == "unknown" ? std::to_string(static_cast<uint32_t>(act)) : name;
}

// "via <nexthop> <interface> action <a> [label <l>]", repeated.
Mpls::ViaSet readVias(Args& a) {
   Mpls::ViaSet vias;
   while (a.accept("via")) {
      Mpls::Via v;
      v.nexthop = a.address("via next hop");
      v.intfId = a.interface("via interface");
      a.expect("action");
      v.labelAction = readAction(a);
      if (a.accept("label")) v.label = a.label("via label");
      // A swap or a push writes a label: without one, a null label would reach forwarding.
      if (v.label.isNull() && (v.labelAction == Ipkit::MplsLabelAction::swap ||
                               v.labelAction == Ipkit::MplsLabelAction::push)) {
         a.fail("action " + actionText(v.labelAction) + " writes a label: give it one (label <l>)");
      }
      if (!vias.viaIs(v)) a.fail("via " + v.stringValue() + " given twice");
   }
   return vias;
}

// A label of a label range (its base or its last label): 0 to 1048575, never none.
uint32_t readRangeLabel(const Args& a, const std::string& what, const std::string& text) {
   uint64_t v = 0;
   const Args::Decimal d = Args::parseDecimal(text, v);
   if (d == Args::Decimal::notANumber) {
      a.fail("expected a label for " + what + " (0 to 1048575), got '" + text + "'");
   }
   if (d == Args::Decimal::tooLarge || v > Ipkit::MplsLabel::maxLabel) {
      a.fail(what + " " + text + " is out of range: a label is 0 to 1048575");
   }
   return static_cast<uint32_t>(v);
}

constexpr uint32_t kFirstUnreservedLabel = 16;

Mpls::AdjacencyIndex readAdjacencyIndex(Args& a) { return a.number("adjacency index"); }

TunnelId readTunnelId(Args& a) {
   if (a.accept("segment-list")) {
      const uint64_t id = a.number("segment-list id", 0xffffffffu);
      return TunnelId::make(TunnelId::Type::srTeSegmentList, static_cast<uint32_t>(id));
   }
   return TunnelId(a.number("tunnel id"));
}

// The vias below an adjacency's row.
Show::Level viaLevel() {
   return Show::Level{{{"Next hop", "nexthop"},
                       {"Interface", "intfId"},
                       {"Action", "labelAction", Show::ColumnKind::enumeration},
                       {"Label", "label"}},
                      "via",
                      {"(no vias)"}};
}

void viaLines(Show::Table::Row& row, const Mpls::ViaSet& vias) {
   for (const Mpls::Via& v : vias) {
      row.lineIs({Show::address(v.nexthop), Show::string(v.intfId.stringValue()),
                  Show::enumerated(v.labelAction, actionText(v.labelAction)),
                  Show::label(v.label)});
   }
}

std::string tunnelTypeText(TunnelId id) {
   return id.type() == TunnelId::Type::srTeSegmentList
              ? "segment-list"
              : std::to_string(static_cast<uint32_t>(id.type()));
}

Show::View mpls(Host& host) {
   using Show::ColumnKind;
   const Mpls::Config& config = *host.mplsConfig();
   const Mpls::Status& status = *host.mplsStatus();
   Show::View v;

   Show::Table ranges({{"Name", "name"}, {"Base", "base"}, {"Size", "size"}, {"Last", ""}});
   for (const auto& [name, r] : config.labelRange()) {
      ranges.rowIs({Show::string(name), Show::number(r.base()), Show::number(r.size()),
                    Show::text(r.size() ? std::to_string(uint64_t{r.base()} + r.size() - 1) : "")});
   }
   v.lineIs(Mox::format("Label ranges: %zu", config.labelRange().size()))
       .tableIs("labelRanges", std::move(ranges));
   // Binding SIDs are checked against the SRLB; without one, each is out of range, and the
   // message then shows the whole label space as its bounds.
   if (!config.labelRange(Mpls::srlbRangeName)) {
      v.lineIs("No SRLB (label-range srlb): every binding SID is outside it");
   }

   Show::Table routes({{"Label", "label"},
                       {"Adjacency", "adjacencyIndex"},
                       {"Adjacency type", "adjacencyType", ColumnKind::enumeration},
                       {"Route type", "routeType", ColumnKind::enumeration},
                       {"Source", "source", ColumnKind::enumeration}});
   for (const auto& key : Mox::sortedKeys(status.lfibRoute())) {
      const Mpls::LFib::Route& r = *status.lfibRoute(key);
      routes.rowIs({Show::label(key.topLabel()), Show::number(r.adjKey.index()),
                    Show::enumerated(r.adjKey.type(), nameOf(kAdjacencyTypes, r.adjKey.type())),
                    Show::enumerated(r.type, nameOf(kRouteTypes, r.type)),
                    Show::enumerated(r.source, nameOf(kSources, r.source))});
   }
   v.lineIs(Mox::format("LFIB routes: %zu", status.lfibRoute().size()))
       .tableIs("lfibRoutes", std::move(routes));

   Show::Table adjacencies({{"Index", "index"}}, {viaLevel()});
   for (const auto& index : Mox::sortedKeys(status.adjacency())) {
      viaLines(adjacencies.rowIs({Show::number(index)}), *status.adjacency(index));
   }
   v.lineIs(Mox::format("Adjacencies: %zu", status.adjacency().size()))
       .tableIs("adjacencies", std::move(adjacencies));

   Show::Table exts({{"Index", "index"}, {"FEC", "fecId"}}, {viaLevel()});
   for (const auto& index : Mox::sortedKeys(status.adjacencyExt())) {
      const auto& ext = *status.adjacencyExt(index);
      viaLines(
          exts.rowIs({Show::number(index),
                      Show::cell(ext.fecId.stringValue(), Json::Value::number(ext.fecId.value()))}),
          ext.via);
   }
   v.lineIs(Mox::format("Adjacency extensions: %zu", status.adjacencyExt().size()))
       .tableIs("adjacencyExts", std::move(exts));

   const auto depth = host.hardwareStatus()->nexthopGroupMplsLabelStackSize();
   v.fieldIs("Platform max label depth", "nexthopGroupMplsLabelStackSize",
             depth ? Show::number(*depth)
                   : Show::cell("not reported (no limit)", Json::Value::null()));

   const auto& counters = host.counterTable()->counter();
   Show::Table ct({{"Tunnel", "tunnelId"},
                   {"Type", ""},
                   {"Index", ""},
                   {"Packets", "packets"},
                   {"Bytes", "bytes"}});
   for (const auto& id : Mox::sortedKeys(counters)) {
      const auto& c = counters.at(id);
      ct.rowIs({Show::cell(Show::tunnelText(id), Json::Value::number(id.value)),
                Show::text(tunnelTypeText(id)), Show::text(std::to_string(id.index())),
                Show::number(c.packets), Show::number(c.bytes)});
   }
   return v.lineIs(Mox::format("Tunnel counters: %zu", counters.size()))
       .tableIs("tunnelCounters", std::move(ct));
}

} // namespace

void registerMpls(Host& host) {
   host.verbIs("label-range", "label-range <name> base <b> size <s>",
               "configure a named MPLS label range (srlb: where binding SIDs come from)",
               [&host](Args& a) -> Host::Apply {
                  const std::string name = a.name("range name");
                  std::optional<uint32_t> base, size;
                  while (!a.done()) {
                     const std::string k = a.keyword({"base", "size"});
                     if (k == "base") {
                        base = readRangeLabel(a, "base", a.word("base"));
                     } else {
                        size = static_cast<uint32_t>(
                            a.number("size", uint64_t{Ipkit::MplsLabel::maxLabel} + 1));
                        if (*size == 0) a.fail("size 0: a label range holds at least one label");
                     }
                  }
                  const uint32_t first = need(a, base, "base"), n = need(a, size, "size");
                  // Labels 0 to 15 have fixed meanings (explicit null, router alert, ...): no
                  // block hands them out.
                  if (first < kFirstUnreservedLabel) {
                     a.fail("base " + std::to_string(first) + ": labels 0 to " +
                            std::to_string(kFirstUnreservedLabel - 1) +
                            " are reserved; a label range starts at " +
                            std::to_string(kFirstUnreservedLabel) + " or above");
                  }
                  // The whole range lies in the label space: its last label is a label too.
                  readRangeLabel(a, "last label (base + size - 1)",
                                 std::to_string(uint64_t{first} + n - 1));
                  const Mpls::LabelRange r(first, n);
                  return [&host, name, r] { host.mplsConfig()->labelRangeIs(name, r); };
               });
   host.verbIs("no label-range", "no label-range <name>", "remove a label range",
               [&host](Args& a) -> Host::Apply {
                  const std::string name = a.word("range name");
                  if (!host.mplsConfig()->labelRange(name)) a.fail("no label range " + name);
                  return [&host, name] { host.mplsConfig()->labelRangeDel(name); };
               });

   host.verbIs("adjacency",
               "adjacency <index> [via <nexthop> <interface> action <a> [label <l>]]...",
               "set an adjacency's vias, none or more (replacing earlier ones)",
               [&host](Args& a) -> Host::Apply {
                  const Mpls::AdjacencyIndex index = readAdjacencyIndex(a);
                  const Mpls::ViaSet vias = readVias(a);
                  return [&host, index, vias] { host.mplsStatus()->adjacencyIs(index, vias); };
               });
   host.verbIs("no adjacency", "no adjacency <index>", "remove an adjacency",
               [&host](Args& a) -> Host::Apply {
                  const Mpls::AdjacencyIndex index = readAdjacencyIndex(a);
                  if (!host.mplsStatus()->adjacency(index)) {
                     a.fail("no adjacency " + std::to_string(index));
                  }
                  return [&host, index] { host.mplsStatus()->adjacencyDel(index); };
               });
   host.verbIs("adjacency-ext",
               "adjacency-ext <index> fec <fecId> [via <nexthop> <interface> action <a> [label "
               "<l>]]...",
               "set an external-FEC adjacency: the FEC and the vias it resolves to",
               [&host](Args& a) -> Host::Apply {
                  const Mpls::AdjacencyIndex index = readAdjacencyIndex(a);
                  a.expect("fec");
                  Mpls::Status::AdjacencyExt ext;
                  ext.fecId = Vault::Fib::FecId(a.number("fec id"));
                  ext.via = readVias(a);
                  return [&host, index, ext] { host.mplsStatus()->adjacencyExtIs(index, ext); };
               });
   host.verbIs("no adjacency-ext", "no adjacency-ext <index>", "remove an external-FEC adjacency",
               [&host](Args& a) -> Host::Apply {
                  const Mpls::AdjacencyIndex index = readAdjacencyIndex(a);
                  if (!host.mplsStatus()->adjacencyExt(index)) {
                     a.fail("no adjacency-ext " + std::to_string(index));
                  }
                  return [&host, index] { host.mplsStatus()->adjacencyExtDel(index); };
               });

   host.verbIs("lfib route",
               "lfib route <label> adjacency <index> [adjacency-type <t>] [route-type <t>] "
               "[source <s>]",
               "install an LFIB route of another application (source 0, adjacency type nexthop, "
               "route type 0 unless given)",
               [&host](Args& a) -> Host::Apply {
                  const Ipkit::MplsLabel label = a.label("route label");
                  if (label.isNull()) a.fail("an LFIB route needs a label, not none");
                  std::optional<Mpls::AdjacencyIndex> index;
                  Mpls::AdjacencyType adjType = Mpls::AdjacencyType::nexthop;
                  Mpls::LFib::RouteType routeType = Mpls::LFib::RouteType::unknown;
                  Mpls::LFib::Source source = Mpls::LFib::Source::unknown;
                  while (!a.done()) {
                     const std::string k =
                         a.keyword({"adjacency", "adjacency-type", "route-type", "source"});
                     if (k == "adjacency") {
                        index = readAdjacencyIndex(a);
                     } else if (k == "adjacency-type") {
                        adjType = readEnum(a, "adjacency type", kAdjacencyTypes);
                     } else if (k == "route-type") {
                        routeType = readEnum(a, "route type", kRouteTypes);
                     } else {
                        source = readEnum(a, "source", kSources);
                     }
                  }
                  const Mpls::LFib::Route route(
                      Mpls::RouteKey::fromLabel(label), routeType, source,
                      Mpls::AdjacencyKey(need(a, index, "adjacency"), adjType));
                  return [&host, route] { host.mplsStatus()->lfibRouteIs(route); };
               });
   host.verbIs("no lfib route", "no lfib route <label>", "remove an LFIB route",
               [&host](Args& a) -> Host::Apply {
                  const auto key = Mpls::RouteKey::fromLabel(a.label("route label"));
                  if (!host.mplsStatus()->lfibRoute(key)) {
                     a.fail("no LFIB route for label " + Show::labelText(key.topLabel()));
                  }
                  return [&host, key] { host.mplsStatus()->lfibRouteDel(key); };
               });

   host.verbIs("platform max-label-depth", "platform max-label-depth <n>",
               "the platform reports the deepest label stack it can push (0 to 255)",
               [&host](Args& a) -> Host::Apply {
                  const auto n = static_cast<uint8_t>(a.number("max-label-depth", 255));
                  return [&host, n] { host.hardwareStatus()->nexthopGroupMplsLabelStackSizeIs(n); };
               });
   host.verbIs("no platform max-label-depth", "no platform max-label-depth",
               "the platform's depth is no longer reported: no limit applies",
               [&host](Args& a) -> Host::Apply {
                  if (!host.hardwareStatus()->nexthopGroupMplsLabelStackSize()) {
                     a.fail("the platform reports no max-label-depth");
                  }
                  return [&host] { host.hardwareStatus()->nexthopGroupMplsLabelStackSizeDel(); };
               });

   host.verbIs("counter tunnel",
               "counter tunnel (<tunnelId>|segment-list <id>) [packets <n>] [bytes <n>]",
               "a tunnel has a traffic counter (segment-list <id>: that segment list's tunnel)",
               [&host](Args& a) -> Host::Apply {
                  const TunnelId id = readTunnelId(a);
                  FlexCounters::Counter c;
                  while (!a.done()) {
                     const std::string k = a.keyword({"packets", "bytes"});
                     (k == "packets" ? c.packets : c.bytes) = a.number(k);
                  }
                  return [&host, id, c] { host.counterTable()->counterIs(id, c); };
               });
   host.verbIs("no counter tunnel", "no counter tunnel (<tunnelId>|segment-list <id>)",
               "a tunnel's counter goes away", [&host](Args& a) -> Host::Apply {
                  const TunnelId id = readTunnelId(a);
                  if (!host.counterTable()->counterHas(id)) {
                     a.fail("no counter for tunnel " + id.stringValue());
                  }
                  return [&host, id] { host.counterTable()->counterDel(id); };
               });
   for (const auto& [verb, table] : std::vector<std::pair<const char*, const char*>>{
            {"label-range", "mpls-labelRange"},
            {"no label-range", "mpls-labelRange"},
            {"adjacency", "mpls-adjacency"},
            {"no adjacency", "mpls-adjacency"},
            {"adjacency-ext", "mpls-adjacencyExt"},
            {"no adjacency-ext", "mpls-adjacencyExt"},
            {"lfib route", "mpls-lfibRoute"},
            {"no lfib route", "mpls-lfibRoute"},
            {"platform max-label-depth", "hardware"},
            {"no platform max-label-depth", "hardware"},
            {"counter tunnel", "tunnelCounters"},
            {"no counter tunnel", "tunnelCounters"}}) {
      host.verbWritesRouterTables(verb, {table});
   }

   host.showIs(
       "mpls", "label ranges, LFIB routes, adjacencies, platform label depth, tunnel counters",
       [&host] { return mpls(host); }, Host::Reads::router);
}

} // namespace Agent
