// `show lfib`: this system's binding-SID routes, apart from the router's LFIB (`show mpls`), and
// never saved as `lfib route` inputs by `show running-config`.
#include <gtest/gtest.h>

#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RunningConfig.h"

namespace {

using namespace SrTePolicy;

TEST(LfibShow, ListsThisSystemsRoutesApartFromTheRouterLfibAndNeverSavesThem) {
   std::ostringstream out;
   Agent::Host host(out);
   Agent::registerModules(host);
   host.execute("lfib route 16001 adjacency 3");
   // Published as the publishing stage would: one policy with a binding SID.
   const Vault::Fib::FecId fecId = Vault::Fib::FecId::fecIdForAdjType(15, 1);
   host.core().published().policyStatus->statusIs(
       PolicyKey(*Ipkit::IpGenAddr::parse("10.0.0.1"), Color(1)),
       CandidateId(Protocol::bgp, Discriminator(1)), Originator(), 0.0, Ipkit::MplsLabel(900001),
       fecId, Vault::Fib::FecId::fecIdForAdjType(15, 2));
   const std::string fec = fecId.stringValue();

   out.str("");
   host.execute("show lfib");
   host.execute("show lfib json");
   EXPECT_EQ(out.str(),
             "LFIB routes (srTePolicyLfib): 1\n"
             "  Binding SID  Metric  Source      Adjacency  FEC" +
                 std::string(fec.size() - 3, ' ') +
                 "  Action\n"
                 "  -----------  ------  ----------  ---------  " +
                 std::string(fec.size(), '-') +
                 "  ------\n"
                 "  900001       1       srTePolicy  1          " +
                 fec +
                 "  pop\n"
                 "External-FEC adjacencies: 1\n"
                 "  Index  FEC" +
                 std::string(fec.size() - 3, ' ') +
                 "  Action\n"
                 "  -----  " +
                 std::string(fec.size(), '-') +
                 "  ------\n"
                 "  1      " +
                 fec +
                 "  pop\n"
                 "\n"
                 "{\n"
                 "  \"lfib\": {\n"
                 "    \"routes\": [\n"
                 "      {\"bindingSid\": 900001, \"metric\": 1, \"source\": 16, \"sourceName\": "
                 "\"srTePolicy\", \"adjacencyIndex\": 1, \"fecId\": " +
                 fec +
                 ", \"labelAction\": 1, \"labelActionName\": \"pop\"}\n"
                 "    ],\n"
                 "    \"extFecAdjacencies\": [\n"
                 "      {\"adjacencyIndex\": 1, \"fecId\": " +
                 fec +
                 ", \"labelAction\": 1, \"labelActionName\": \"pop\"}\n"
                 "    ]\n"
                 "  }\n"
                 "}\n");

   // The router's LFIB holds only its own route, and only that one is saved.
   out.str("");
   host.execute("show mpls");
   EXPECT_EQ(out.str().find("900001"), std::string::npos) << out.str();
   const std::string config = Agent::runningConfig(host);
   EXPECT_NE(config.find("lfib route 16001 "), std::string::npos) << config;
   EXPECT_EQ(config.find("900001"), std::string::npos) << config;

   // A restart keeps the route, as the table survives.
   host.execute("restart");
   out.str("");
   host.execute("show lfib json");
   EXPECT_NE(out.str().find("\"bindingSid\": 900001"), std::string::npos) << out.str();
}

} // namespace
