// The policy input tables as the protocol processes write them: `input-table`, `input` and their
// `no` forms, and the table `input` (every record of every table).
#include <algorithm>
#include <ostream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

std::string protocolText(Protocol p) {
   const std::string number = std::to_string(static_cast<uint32_t>(p));
   const std::string name = protocolEnumToString(p);
   return name == number ? number : name + " (" + number + ")";
}

Mox::Ptr<PolicyInput> existingTable(Host& host, const Args& a, Protocol p) {
   Mox::Ptr<PolicyInput> t = host.policyInputSource()->policyInput(p);
   if (!t) {
      a.fail("no input table for protocol " + protocolText(p) + "; 'input-table " +
             protocolEnumToString(p) + "' creates it");
   }
   return t;
}

// "<protocol> <endpoint> color <c> discriminator <d>", then whatever `more` reads.
template <class More>
PolicyId readId(Args& a, std::initializer_list<std::string_view> keywords,
                std::initializer_list<std::string_view> repeatable, More&& more) {
   const Protocol protocol = a.protocol();
   const EndPoint endpoint = a.address("endpoint");
   std::optional<Color> color;
   std::optional<Discriminator> discriminator;
   while (!a.done()) {
      const std::string k = a.keyword(keywords, repeatable);
      if (k == "color") {
         color = a.bounded<Color>("color");
      } else if (k == "discriminator") {
         discriminator = a.bounded<Discriminator>("discriminator");
      } else {
         more(k);
      }
   }
   return PolicyId(PolicyKey(endpoint, need(a, color, "color")), protocol,
                   need(a, discriminator, "discriminator"));
}

std::vector<const PolicyInputEntry*> recordsInOrder(const PolicyInput& table) {
   std::vector<const PolicyInputEntry*> out;
   for (const PolicyInputEntry& e : table.policyInputEntry()) out.push_back(&e);
   std::sort(out.begin(), out.end(), [](auto* a, auto* b) { return a->key() < b->key(); });
   return out;
}

Show::View inputTable(Protocol protocol, const PolicyInput& table) {
   using Show::ColumnKind;
   Show::Table t({{"", "protocol", ColumnKind::enumeration},
                  {"Endpoint", "endpoint"},
                  {"Color", "color"},
                  {"Discriminator", "discriminator"},
                  {"Originator", "originator"},
                  {"Preference", "preference"},
                  {"BSID", "bindingSid"}},
                 {Show::Level{{{"Weight", "weight"}, {"Labels", "segList"}},
                              "segmentList",
                              {"", "(no segment lists)"}}});
   for (const PolicyInputEntry* e : recordsInOrder(table)) {
      const PolicyId& id = e->key();
      auto& row =
          t.rowIs({Show::enumerated(id.protocol, protocolEnumToString(id.protocol)),
                   Show::address(id.key.endpoint), Show::number(id.key.color.value),
                   Show::number(id.discriminator.value),
                   Show::cell(e->originator().stringValue(), Show::originatorJson(e->originator())),
                   Show::number(e->preference().value), Show::label(e->bindingSid())});
      for (uint32_t s = 0; s < e->segmentListCount(); ++s) {
         const WeightedSegList& l = e->segmentList(SegmentListIndex(s));
         row.lineIs({Show::number(l.weight.value), Show::labelStack(l.segList)});
      }
   }
   const char* mount = Vault::mountStatusName(table.mountStatus());
   return Show::View()
       .lineIs("Input table " + protocolText(protocol) + ": " +
               Show::count(table.policyInputEntryCount(), "record") + ", " + mount)
       .fieldIs("", "protocol", Show::enumerated(protocol, protocolEnumToString(protocol)),
                ColumnKind::enumeration)
       .fieldIs("", "mountStatus", Show::enumerated(table.mountStatus(), mount),
                ColumnKind::enumeration)
       .tableIs("policyInputEntry", std::move(t));
}

Show::View input(Host& host) {
   const auto& tables = host.policyInputSource()->policyInput();
   Show::View v;
   if (tables.empty()) v.lineIs("No input tables");
   std::vector<Show::View> views;
   for (const auto* t : Mox::sortedMembers(tables))
      views.push_back(inputTable(t->first, *t->second));
   return v.viewsIs("", std::move(views));
}

} // namespace

void registerInputTables(Host& host) {
   host.verbIs("input-table", "input-table <protocol> [remount]",
               "the protocol's input table appears (remount: it is mounted again, whole)",
               [&host](Args& a) -> Host::Apply {
                  const Protocol p = a.protocol();
                  const bool remount = a.accept("remount");
                  Mox::Ptr<PolicyInput> t = host.policyInputSource()->policyInput(p);
                  if (remount) {
                     existingTable(host, a, p);
                     host.claimInput(p, a);
                     return [t] {
                        t->mountStatusIs(Vault::MountStatus::unmounted);
                        t->mountStatusIs(Vault::MountStatus::mounted);
                     };
                  }
                  if (t) a.fail("the input table for protocol " + protocolText(p) + " exists");
                  host.claimInput(p, a);
                  return [&host, p] {
                     Mox::Ptr<PolicyInput> table =
                         policyInputFactory("policyInput-" + protocolEnumToString(p));
                     table->mountStatusIs(Vault::MountStatus::mounted);
                     host.policyInputSource()->policyInputIs(p, table);
                  };
               });
   host.verbIs("no input-table", "no input-table <protocol>",
               "the protocol's input table goes away with its records",
               [&host](Args& a) -> Host::Apply {
                  const Protocol p = a.protocol();
                  existingTable(host, a, p);
                  host.claimInput(p, a);
                  return [&host, p] { host.policyInputSource()->policyInputDel(p); };
               });

   host.verbIs(
       "input",
       "input <protocol> <endpoint> color <c> discriminator <d> [originator <asn> <address>] "
       "[preference <p>] [bsid <label>] [segment-list [weight <w>] labels [<l>]...]...",
       "write a candidate-path record into the protocol's input table, replacing any earlier one",
       [&host](Args& a) -> Host::Apply {
          std::optional<Originator> originator;
          std::optional<Preference> preference;
          std::optional<Ipkit::MplsLabel> bsid;
          std::vector<WeightedSegList> lists;
          const PolicyId id = readId(
              a, {"color", "discriminator", "originator", "preference", "bsid"}, {"segment-list"},
              [&](const std::string& k) {
                 if (k == "originator") {
                    originator = a.originator();
                 } else if (k == "preference") {
                    preference = a.bounded<Preference>("preference");
                 } else if (k == "bsid") {
                    bsid = a.label("bsid");
                 } else if (k == "segment-list") {
                    const size_t n = lists.size() + 1;
                    try {
                       SegmentListIndex(static_cast<uint32_t>(lists.size()));
                    } catch (const Mox::RangeError& e) {
                       a.fail("segment-list " + std::to_string(n) + ": " + e.what() +
                              " (a record holds at most 16)");
                    }
                    WeightedSegList l;
                    bool weight = false, labels = false;
                    for (;;) {
                       if (a.accept("weight")) {
                          if (std::exchange(weight, true))
                             a.fail("'weight' given twice in segment-list " + std::to_string(n));
                          l.weight = a.bounded<Weight>("weight");
                       } else if (a.accept("labels")) {
                          if (std::exchange(labels, true))
                             a.fail("'labels' given twice in segment-list " + std::to_string(n));
                          l.segList = a.labelStack();
                       } else {
                          break;
                       }
                    }
                    if (!labels)
                       a.failUsage("segment-list " + std::to_string(n) + " has no 'labels'");
                    lists.push_back(l);
                 }
              });
          Mox::Ptr<PolicyInput> table = existingTable(host, a, id.protocol);
          PolicyInputEntry e(id);
          if (originator) e.originatorIs(*originator);
          if (preference) e.preferenceIs(*preference);
          if (bsid) e.bindingSidIs(*bsid);
          for (uint32_t i = 0; i < lists.size(); ++i)
             e.segmentListIs(SegmentListIndex(i), lists[i]);
          host.claimInput(id.protocol, a);
          return [table, e] { table->policyInputEntryIs(e); };
       });
   host.verbIs(
       "no input", "no input <protocol> <endpoint> color <c> discriminator <d>",
       "delete a candidate-path record", [&host](Args& a) -> Host::Apply {
          const PolicyId id = readId(a, {"color", "discriminator"}, {}, [](const std::string&) {});
          Mox::Ptr<PolicyInput> table = existingTable(host, a, id.protocol);
          if (!table->policyInputEntryFind(id)) {
             a.fail("no input record " + id.stringValue());
          }
          host.claimInput(id.protocol, a);
          return [table, id] { table->policyInputEntryDel(id); };
       });

   host.showIs(
       "input", "every input table's records", [&host] { return input(host); },
       Host::Reads::router);
}

} // namespace Agent
