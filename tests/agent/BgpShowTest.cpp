// `show bgp` reads the adapter's status from the router's shared table: in-process there is no
// adapter; attached, the record as the adapter wrote it, its last refusals, and whether it runs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "agent/BgpStatus.h"
#include "agent/Host.h"
#include "agent/Modules.h"

namespace {

std::string show(Agent::Host& host, std::ostringstream& out, const char* line) {
   out.str("");
   host.execute(line);
   return out.str();
}

TEST(BgpShowTest, InProcessHasNoAdapterAttachedShowsTheAdaptersRecord) {
   {
      std::ostringstream out;
      Agent::Host host(out);
      Agent::registerCore(host);
      Agent::registerBgp(host);
      host.start();
      EXPECT_NE(show(host, out, "show bgp").find("No BGP adapter"), std::string::npos);
      EXPECT_NE(show(host, out, "show bgp json").find("\"adapter\": \"none\""), std::string::npos);
   }
   const std::string router = "bgpshow" + std::to_string(::getpid());
   std::ostringstream out;
   Agent::HostOptions options;
   options.router = router;
   Agent::Host host(out, options);
   Agent::registerCore(host);
   Agent::registerBgp(host);
   host.start();
   EXPECT_NE(show(host, out, "show bgp").find("No BGP adapter has run for router " + router),
             std::string::npos);
   {
      Agent::BgpStatusWriter writer(router, Agent::bgpStatusTable, Agent::bgpStatusGeometry());
      Agent::BgpStatus s;
      s.pid = 4242;
      s.connection = Agent::BgpConnection::synchronised;
      s.routesReceived = 1003;
      s.recordsWritten = 1003;
      s.routesRefused = 2;
      s.speakerIs("127.0.0.1:50162");
      s.reasonIs("bgp 10.0.0.4 color 9 discriminator 2: SRv6 binding SID is not supported");
      s.reasonIs("bgp 10.0.0.6 color 1 discriminator 1: segment list 17: left out");
      writer.insert(s);
      const std::string text = show(host, out, "show bgp");
      EXPECT_NE(text.find("synchronised"), std::string::npos) << text;
      EXPECT_EQ(text.find("not running"), std::string::npos) << text;
      EXPECT_NE(text.find("segment list 17: left out"), std::string::npos) << text;
      const std::string json = show(host, out, "show bgp json");
      EXPECT_NE(json.find("\"routesReceived\": 1003"), std::string::npos) << json;
      EXPECT_NE(json.find("\"connectionName\": \"synchronised\""), std::string::npos) << json;
   }
   // The adapter went without saying it stopped (killed): its last word stays, marked.
   EXPECT_NE(show(host, out, "show bgp").find("synchronised (adapter not running)"),
             std::string::npos);
   Vault::Shm::removeTable(router, Agent::bgpStatusTable);
}

} // namespace
