#include <gtest/gtest.h>

#include <algorithm>

#include "platform/Trace.h"
#include "tests/segment/ResolutionEnv.h"

using namespace SrTePolicy;
using namespace SrTePolicy::Testing;
using Action = Ipkit::MplsLabelAction;

namespace {

// What one tracer writes while this lives.
struct TraceCapture {
   Trace::Tracer& tracer;
   std::vector<std::string> lines;
   explicit TraceCapture(Trace::Tracer& t) : tracer(t) {
      tracer.captureIs(&lines);
      tracer.textLevelIs(9);
   }
   ~TraceCapture() {
      tracer.textLevelIs(-1);
      tracer.captureIs(nullptr);
   }
   bool has(const std::string& text) const {
      return std::find(lines.begin(), lines.end(), text) != lines.end();
   }
};

Mpls::LFib::Route lfibRoute(uint32_t label, Mpls::AdjacencyIndex index, Mpls::AdjacencyType type,
                            Mpls::LFib::RouteType routeType = Mpls::LFib::RouteType::unknown) {
   return Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(label)), routeType,
                            Mpls::LFib::Source::unknown, Mpls::AdjacencyKey(index, type));
}

TEST(SegmentResolver, RefusesPseudowireFirstThenTunnelLikeViasOfNexthopAdjacenciesOnly) {
   auto mpls = Mox::make<Mpls::Status>();
   Trace::Tracer tracer;
   auto resolver = segmentResolverFactory(mpls, tracer);
   mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001),
                         via("10.0.0.3", "NexthopGroup7", Action::swap, 16001)});
   mpls->adjacencyIs(2, {via("10.0.0.2", "Ethernet1", Action::pop),
                         via("10.0.0.4", "DynamicTunnel3", Action::push, 3)});
   mpls->adjacencyIs(3, {via("10.0.0.2", "Ethernet1", Action::pop)});
   const auto nexthop = Mpls::AdjacencyType::nexthop;
   const auto extFec = Mpls::AdjacencyType::externalFec;
   {
      TraceCapture trace(tracer);
      // A pseudowire is refused before its adjacency's vias are looked at.
      EXPECT_TRUE(resolver->skipMplsRouteForResolution(
          lfibRoute(16001, 1, nexthop, Mpls::LFib::RouteType::pseudowire)));
      EXPECT_TRUE(trace.has("Skipping resolution via pseudowire"));
      EXPECT_FALSE(trace.has("Skipping resolution via NHG"));
   }
   {
      TraceCapture trace(tracer);
      // One next-hop-group via among ordinary ones refuses the route.
      EXPECT_TRUE(resolver->skipMplsRouteForResolution(lfibRoute(16001, 1, nexthop)));
      EXPECT_TRUE(trace.has("Skipping resolution via NHG"));
      EXPECT_TRUE(resolver->skipMplsRouteForResolution(lfibRoute(16002, 2, nexthop)));
      EXPECT_TRUE(trace.has("Skipping resolution via dynamic tunnel"));
   }
   // The same index under another adjacency type is taken without looking at vias.
   EXPECT_FALSE(resolver->skipMplsRouteForResolution(lfibRoute(16001, 1, extFec)));
   EXPECT_FALSE(resolver->skipMplsRouteForResolution(lfibRoute(16003, 3, nexthop)));
   // An adjacency that is not there has no vias to refuse.
   EXPECT_FALSE(resolver->skipMplsRouteForResolution(lfibRoute(16004, 9, nexthop)));

   EXPECT_EQ(resolver->resolveSegmentMpls(Ipkit::MplsLabel(16001)), nullptr); // no route
   mpls->lfibRouteIs(lfibRoute(16001, 1, nexthop));
   mpls->lfibRouteIs(lfibRoute(16003, 3, nexthop));
   mpls->lfibRouteIs(lfibRoute(16005, 1, extFec));
   EXPECT_EQ(resolver->resolveSegmentMpls(Ipkit::MplsLabel(16001)), nullptr);
   auto r3 = resolver->resolveSegmentMpls(Ipkit::MplsLabel(16003));
   ASSERT_TRUE(r3);
   EXPECT_EQ(r3->adjKey(), Mpls::AdjacencyKey(3, nexthop));
   auto r5 = resolver->resolveSegmentMpls(Ipkit::MplsLabel(16005));
   ASSERT_TRUE(r5);
   EXPECT_EQ(r5->adjKey(), Mpls::AdjacencyKey(1, extFec));
}

// Counts what a reactor of the status table and one of an entry see.
struct StatusWatch : SegmentStatus::Notifiee, SegmentResolve::Notifiee {
   int statusCalls = 0;
   int adjKeyCalls = 0;
   void onStatus(const SegmentId&) override { ++statusCalls; }
   void onAdjKey() override { ++adjKeyCalls; }
};

TEST(SegmentSm, FollowsTheLfibAndKeepsAnEntryWhoseRouteMovesToAnotherAdjacency) {
   ResolutionEnv env;
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   env.mpls->adjacencyIs(2, {via("10.0.0.6", "Ethernet2", Action::swap, 16001)});
   env.add({16001, 16002});
   EXPECT_EQ(env.resolve(16001), nullptr); // no route yet
   EXPECT_EQ(env.resolve(16002), nullptr);

   env.route(16001, 1);
   SegmentResolve* first = env.resolve(16001);
   ASSERT_NE(first, nullptr);
   EXPECT_EQ(first->stringValue(), "segmentId: 1  adjKey: (index: 1, type: 1)");

   StatusWatch watch;
   watch.SegmentStatus::Notifiee::notifierIs(env.segmentStatus());
   watch.SegmentResolve::Notifiee::notifierIs(first);
   env.route(16001, 2);
   EXPECT_EQ(env.resolve(16001), first);
   EXPECT_EQ(first->adjKey(), Mpls::AdjacencyKey(2, Mpls::AdjacencyType::nexthop));
   EXPECT_EQ(watch.adjKeyCalls, 1);
   EXPECT_EQ(watch.statusCalls, 0);

   // A label nobody uses changes nothing.
   env.route(17000, 1);
   EXPECT_EQ(watch.statusCalls, 0);
   EXPECT_EQ(env.segmentStatus()->status().size(), 1u);

   // Turning into a pseudowire route deletes the entry; a usable route again makes a new one.
   env.route(16001, 2, Mpls::AdjacencyType::nexthop, Mpls::LFib::RouteType::pseudowire);
   EXPECT_EQ(env.resolve(16001), nullptr);
   EXPECT_EQ(watch.statusCalls, 1);
   env.route(16001, 2);
   ASSERT_NE(env.resolve(16001), nullptr);
   env.noRoute(16001);
   EXPECT_EQ(env.resolve(16001), nullptr);
   EXPECT_EQ(watch.statusCalls, 3);

   // A withdrawn segment loses its entry.
   env.route(16001, 1);
   const SegmentId id = env.segmentOf(16001);
   ASSERT_NE(env.segmentStatus()->status(id), nullptr);
   env.drop({16001, 16002});
   EXPECT_EQ(env.segmentStatus()->status(id), nullptr);
   EXPECT_TRUE(env.segmentStatus()->status().empty());
}

} // namespace
