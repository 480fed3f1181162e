// The entities the state machines share, as the host holds them.
//
// PublishedTables are shared-memory tables other processes read (and a restarted agent finds
// again): they live as long as the host. CoreProcess holds the in-process entities every state
// machine of one agent incarnation shares (dedup tables and the reverse maps); it is built before
// the first state machine and dropped after the last one by `restart`.
#pragma once

#include "input/SrTePolicyKeyToIdMap.h"
#include "platform/TunnelTable.h"
#include "publish/SrTePolicyExportTypes.h"
#include "segment/SrTePolicyCoreDedupTable.h"
#include "segment/SrTePolicySegmentList.h"
#include "segment/SrTePolicySegmentListStatus.h"
#include "segment/SrTePolicySegmentResolver.h"
#include "selection/SrTePolicyEntry.h"

namespace Agent {

struct PublishedTables {
   Mox::Ptr<SrTePolicy::PolicySelectionInput> policySelectionInput =
       SrTePolicy::policySelectionInputFactory("policySelectionInput");
   Mox::Ptr<SrTePolicy::Export::SegmentListCollection> exportedSegmentListColl =
       SrTePolicy::Export::segmentListCollectionFactory("exportedSegmentLists");
   Mox::Ptr<SrTePolicy::SegmentListStatus> segmentListStatus =
       Mox::make<SrTePolicy::SegmentListStatus>("segmentListStatus");
   Mox::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable =
       Mox::make<Tunnel::TunnelTable::SrTeSegmentListTunnelTable>();
};

// Members are dropped bottom-up: the maps release their segment lists before the dedup tables
// stop.
struct CoreProcess {
   Mox::Ptr<SrTePolicy::CoreDedupTables> coreDedupTables = Mox::make<SrTePolicy::CoreDedupTables>();
   Mox::Ptr<SrTePolicy::SegmentIdToSegmentList> segmentMap =
       Mox::make<SrTePolicy::SegmentIdToSegmentList>();
   Mox::Ptr<SrTePolicy::SegmentListIdToPolicyMap> segListMap =
       Mox::make<SrTePolicy::SegmentListIdToPolicyMap>();
   Mox::Ptr<SrTePolicy::PolicyKeyToIdMap> policyKeyToIdMap =
       Mox::make<SrTePolicy::PolicyKeyToIdMap>();
   Mox::Ptr<SrTePolicy::SegmentStatus> segmentStatus = Mox::make<SrTePolicy::SegmentStatus>();
};

// Construction order of the stages (agent/Modules.cpp registers them; lower builds first).
namespace StageOrder {
constexpr int coreEntities = 10;
constexpr int segmentResolution = 20;
constexpr int segmentListResolution = 30;
constexpr int policyInput = 40;
} // namespace StageOrder

} // namespace Agent
