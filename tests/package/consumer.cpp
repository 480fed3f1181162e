// A program of its own that uses the installed core: its headers come as <srte/...> only, and a
// core built over a router's tables starts and runs.
#include <iostream>

#include <srte/core/SrTePolicyCore.h>
#include <srte/platform/Mpls.h>

// The installed headers do not put generic names on the include path.
#if __has_include("platform/Assert.h") || __has_include(<platform/Mpls.h>)
#error "the installed headers are reachable without srte/"
#endif

int main() {
   const Mpls::LabelRange srlb(900000, 65536);
   if (srlb.stringValue() != "base 900000 size 65536") return 1;
   auto scheduler = Mox::make<Kiln::TaskScheduler>(Kiln::TaskScheduler::ClockMode::virtualTime);
   SrTePolicy::StandaloneRouter router;
   router.config->enabledIs(true);
   router.mplsConfig->labelRangeIs("srlb", srlb);
   SrTePolicy::PolicyCore core(router.tables(*scheduler));
   core.start();
   scheduler->runUntilIdle();
   std::cout << srlb.stringValue() << ", core " << (core.started() ? "running" : "stopped") << "\n";
   return core.started() ? 0 : 1;
}
