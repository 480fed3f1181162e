// The policy input tables as the protocol processes write them: `input-table`, `input` and their
// `no` forms, and the table `input` (every record of every table).
#include <algorithm>
#include <ostream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/TextTable.h"

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

std::vector<Mox::Ptr<PolicyInput>> tablesInOrder(Host& host, std::vector<Protocol>* protocols) {
   std::vector<std::pair<Protocol, Mox::Ptr<PolicyInput>>> t(
       host.policyInputSource()->policyInput().begin(),
       host.policyInputSource()->policyInput().end());
   std::sort(t.begin(), t.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
   std::vector<Mox::Ptr<PolicyInput>> out;
   for (auto& [p, table] : t) {
      protocols->push_back(p);
      out.push_back(table);
   }
   return out;
}

std::vector<const PolicyInputEntry*> recordsInOrder(const PolicyInput& table) {
   std::vector<const PolicyInputEntry*> out;
   for (const PolicyInputEntry& e : table.policyInputEntry()) out.push_back(&e);
   std::sort(out.begin(), out.end(), [](auto* a, auto* b) { return a->key() < b->key(); });
   return out;
}

void inputText(Host& host, std::string& out) {
   std::vector<Protocol> protocols;
   auto tables = tablesInOrder(host, &protocols);
   if (tables.empty()) out += "No input tables\n";
   for (size_t i = 0; i < tables.size(); ++i) {
      const PolicyInput& table = *tables[i];
      if (i) out += "\n";
      Mox::appendf(out, "Input table %s: %s, %s\n", protocolText(protocols[i]).c_str(),
                   Show::count(table.policyInputEntryCount(), "record").c_str(),
                   Vault::mountStatusName(table.mountStatus()));
      Show::TextTable t({"Endpoint", "Color", "Discriminator", "Originator", "Preference", "BSID",
                         "Weight", "Labels"});
      for (const PolicyInputEntry* e : recordsInOrder(table)) {
         std::vector<std::string> cells{
             e->key().key.endpoint.stringValue(),          std::to_string(e->key().key.color.value),
             std::to_string(e->key().discriminator.value), e->originator().stringValue(),
             std::to_string(e->preference().value),        Show::labelText(e->bindingSid())};
         if (e->segmentListCount() == 0) {
            cells.push_back("");
            cells.push_back("(no segment lists)");
            t.rowIs(std::move(cells));
         }
         for (uint32_t s = 0; s < e->segmentListCount(); ++s) {
            const WeightedSegList& l = e->segmentList(SegmentListIndex(s));
            if (s) cells.assign(6, std::string());
            cells.push_back(std::to_string(l.weight.value));
            cells.push_back(Show::labelStackText(l.segList));
            s ? t.continuationIs(std::move(cells)) : t.rowIs(std::move(cells));
         }
      }
      t.render(out, 2);
   }
}

Json::Value inputJson(Host& host) {
   std::vector<Protocol> protocols;
   auto tables = tablesInOrder(host, &protocols);
   Json::Value rows = Json::Value::array();
   for (size_t i = 0; i < tables.size(); ++i) {
      Json::Value entries = Json::Value::array();
      for (const PolicyInputEntry* e : recordsInOrder(*tables[i])) {
         Json::Value lists = Json::Value::inlineArray();
         for (uint32_t s = 0; s < e->segmentListCount(); ++s) {
            const WeightedSegList& l = e->segmentList(SegmentListIndex(s));
            lists.push(Json::Value::row()
                           .set("weight", l.weight.value)
                           .set("segList", Show::labelStackJson(l.segList)));
         }
         Json::Value row = Json::Value::row();
         Show::enumIs(row, "protocol", e->key().protocol, protocolEnumToString(e->key().protocol));
         row.set("endpoint", Json::Value::address(e->key().key.endpoint))
             .set("color", e->key().key.color.value)
             .set("discriminator", e->key().discriminator.value)
             .set("originator", Show::originatorJson(e->originator()))
             .set("preference", e->preference().value)
             .set("bindingSid", Json::Value::label(e->bindingSid()))
             .set("segmentList", std::move(lists));
         entries.push(std::move(row));
      }
      Json::Value table = Json::Value::object();
      Show::enumIs(table, "protocol", protocols[i], protocolEnumToString(protocols[i]));
      Show::enumIs(table, "mountStatus", tables[i]->mountStatus(),
                   Vault::mountStatusName(tables[i]->mountStatus()));
      table.set("policyInputEntry", std::move(entries));
      rows.push(std::move(table));
   }
   return rows;
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
                     return [t] {
                        t->mountStatusIs(Vault::MountStatus::unmounted);
                        t->mountStatusIs(Vault::MountStatus::mounted);
                     };
                  }
                  if (t) a.fail("the input table for protocol " + protocolText(p) + " exists");
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
                  return [&host, p] { host.policyInputSource()->policyInputDel(p); };
               });

   host.verbIs(
       "input",
       "input <protocol> <endpoint> color <c> discriminator <d> [originator <asn> <address>] "
       "[preference <p>] [bsid <label>] [segment-list [weight <w>] labels <l>...]...",
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
          return [table, id] { table->policyInputEntryDel(id); };
       });

   host.showIs(
       "input", "every input table's records", [&host](std::string& out) { inputText(host, out); },
       [&host] { return inputJson(host); });
}

} // namespace Agent
