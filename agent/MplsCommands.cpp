// The platform's MPLS state as other processes keep it: label ranges, LFIB routes, adjacencies
// and their external-FEC extensions, the hardware's label-stack depth and the tunnel counters;
// the table `mpls`.
#include <algorithm>
#include <ostream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/TextTable.h"

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

Mpls::AdjacencyIndex readAdjacencyIndex(Args& a) { return a.number("adjacency index"); }

TunnelId readTunnelId(Args& a) {
   if (a.accept("segment-list")) {
      const uint64_t id = a.number("segment-list id", 0xffffffffu);
      return TunnelId::make(TunnelId::Type::srTeSegmentList, static_cast<uint32_t>(id));
   }
   return TunnelId(a.number("tunnel id"));
}

template <class M>
std::vector<typename M::key_type> keysInOrder(const M& map) {
   std::vector<typename M::key_type> keys;
   for (const auto& kv : map) keys.push_back(kv.first);
   std::sort(keys.begin(), keys.end());
   return keys;
}

void viaRows(Show::TextTable& t, std::vector<std::string> head, const Mpls::ViaSet& vias) {
   if (vias.empty()) {
      head.insert(head.end(), {"(no vias)", "", "", ""});
      t.rowIs(std::move(head));
      return;
   }
   bool first = true;
   for (const Mpls::Via& v : vias) {
      std::vector<std::string> cells = first ? head : std::vector<std::string>(head.size());
      cells.insert(cells.end(), {v.nexthop.stringValue(), v.intfId.stringValue(),
                                 actionText(v.labelAction), Show::labelText(v.label)});
      first ? t.rowIs(std::move(cells)) : t.continuationIs(std::move(cells));
      first = false;
   }
}

Json::Value viasJson(const Mpls::ViaSet& vias) {
   Json::Value a = Json::Value::inlineArray();
   for (const Mpls::Via& v : vias) {
      Json::Value row = Json::Value::row()
                            .set("nexthop", Json::Value::address(v.nexthop))
                            .set("intfId", v.intfId.stringValue());
      Show::enumIs(row, "labelAction", v.labelAction, actionText(v.labelAction));
      row.set("label", Json::Value::label(v.label));
      a.push(std::move(row));
   }
   return a;
}

std::string tunnelTypeText(TunnelId id) {
   return id.type() == TunnelId::Type::srTeSegmentList
              ? "segment-list"
              : std::to_string(static_cast<uint32_t>(id.type()));
}

void mplsText(Host& host, std::string& out) {
   const Mpls::Config& config = *host.mplsConfig();
   const Mpls::Status& status = *host.mplsStatus();

   Mox::appendf(out, "Label ranges: %zu\n", config.labelRange().size());
   Show::TextTable ranges({"Name", "Base", "Size", "Last"});
   for (const auto& [name, r] : config.labelRange()) {
      ranges.rowIs({name, std::to_string(r.base()), std::to_string(r.size()),
                    r.size() ? std::to_string(uint64_t{r.base()} + r.size() - 1) : ""});
   }
   ranges.render(out, 2);

   Mox::appendf(out, "LFIB routes: %zu\n", status.lfibRoute().size());
   Show::TextTable routes({"Label", "Adjacency", "Adjacency type", "Route type", "Source"});
   for (const auto& key : keysInOrder(status.lfibRoute())) {
      const Mpls::LFib::Route& r = *status.lfibRoute(key);
      routes.rowIs({Show::labelText(key.topLabel()), std::to_string(r.adjKey.index()),
                    nameOf(kAdjacencyTypes, r.adjKey.type()), nameOf(kRouteTypes, r.type),
                    nameOf(kSources, r.source)});
   }
   routes.render(out, 2);

   Mox::appendf(out, "Adjacencies: %zu\n", status.adjacency().size());
   Show::TextTable adjacencies({"Index", "Next hop", "Interface", "Action", "Label"});
   for (const auto& index : keysInOrder(status.adjacency())) {
      viaRows(adjacencies, {std::to_string(index)}, *status.adjacency(index));
   }
   adjacencies.render(out, 2);

   Mox::appendf(out, "Adjacency extensions: %zu\n", status.adjacencyExt().size());
   Show::TextTable exts({"Index", "FEC", "Next hop", "Interface", "Action", "Label"});
   for (const auto& index : keysInOrder(status.adjacencyExt())) {
      const auto& ext = *status.adjacencyExt(index);
      viaRows(exts, {std::to_string(index), ext.fecId.stringValue()}, ext.via);
   }
   exts.render(out, 2);

   if (auto depth = host.hardwareStatus()->nexthopGroupMplsLabelStackSize()) {
      Mox::appendf(out, "Platform max label depth: %u\n", unsigned{*depth});
   } else {
      out += "Platform max label depth: not reported (no limit)\n";
   }

   const auto& counters = host.counterTable()->counter();
   Mox::appendf(out, "Tunnel counters: %zu\n", counters.size());
   Show::TextTable ct({"Tunnel", "Type", "Index", "Packets", "Bytes"});
   for (const auto& id : keysInOrder(counters)) {
      const auto& c = counters.at(id);
      ct.rowIs({Show::tunnelText(id), tunnelTypeText(id), std::to_string(id.index()),
                std::to_string(c.packets), std::to_string(c.bytes)});
   }
   ct.render(out, 2);
}

Json::Value mplsJson(Host& host) {
   const Mpls::Config& config = *host.mplsConfig();
   const Mpls::Status& status = *host.mplsStatus();

   Json::Value ranges = Json::Value::array();
   for (const auto& [name, r] : config.labelRange()) {
      ranges.push(Json::Value::row().set("name", name).set("base", r.base()).set("size", r.size()));
   }
   Json::Value routes = Json::Value::array();
   for (const auto& key : keysInOrder(status.lfibRoute())) {
      const Mpls::LFib::Route& r = *status.lfibRoute(key);
      Json::Value row = Json::Value::row().set("label", Json::Value::label(key.topLabel()));
      row.set("adjacencyIndex", uint64_t{r.adjKey.index()});
      Show::enumIs(row, "adjacencyType", r.adjKey.type(), nameOf(kAdjacencyTypes, r.adjKey.type()));
      Show::enumIs(row, "routeType", r.type, nameOf(kRouteTypes, r.type));
      Show::enumIs(row, "source", r.source, nameOf(kSources, r.source));
      routes.push(std::move(row));
   }
   Json::Value adjacencies = Json::Value::array();
   for (const auto& index : keysInOrder(status.adjacency())) {
      adjacencies.push(Json::Value::row()
                           .set("index", uint64_t{index})
                           .set("via", viasJson(*status.adjacency(index))));
   }
   Json::Value exts = Json::Value::array();
   for (const auto& index : keysInOrder(status.adjacencyExt())) {
      const auto& ext = *status.adjacencyExt(index);
      exts.push(Json::Value::row()
                    .set("index", uint64_t{index})
                    .set("fecId", ext.fecId.value())
                    .set("via", viasJson(ext.via)));
   }
   Json::Value counters = Json::Value::array();
   for (const auto& id : keysInOrder(host.counterTable()->counter())) {
      const auto& c = *host.counterTable()->counter(id);
      counters.push(Json::Value::row()
                        .set("tunnelId", id.value)
                        .set("packets", c.packets)
                        .set("bytes", c.bytes));
   }
   auto depth = host.hardwareStatus()->nexthopGroupMplsLabelStackSize();
   return Json::Value::object()
       .set("labelRanges", std::move(ranges))
       .set("lfibRoutes", std::move(routes))
       .set("adjacencies", std::move(adjacencies))
       .set("adjacencyExts", std::move(exts))
       .set("nexthopGroupMplsLabelStackSize",
            depth ? Json::Value::number(uint64_t{*depth}) : Json::Value::null())
       .set("tunnelCounters", std::move(counters));
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
               "counter tunnel <tunnelId>|segment-list <id> [packets <n>] [bytes <n>]",
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
   host.verbIs("no counter tunnel", "no counter tunnel <tunnelId>|segment-list <id>",
               "a tunnel's counter goes away", [&host](Args& a) -> Host::Apply {
                  const TunnelId id = readTunnelId(a);
                  if (!host.counterTable()->counterHas(id)) {
                     a.fail("no counter for tunnel " + id.stringValue());
                  }
                  return [&host, id] { host.counterTable()->counterDel(id); };
               });

   host.showIs(
       "mpls", "label ranges, LFIB routes, adjacencies, platform label depth, tunnel counters",
       [&host](std::string& out) { mplsText(host, out); }, [&host] { return mplsJson(host); });
}

} // namespace Agent
