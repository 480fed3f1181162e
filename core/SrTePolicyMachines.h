// The inside of a policy core: the in-process entities its machines share and the machines
// themselves, in construction order. core/SrTePolicyCore.h only names them; the code that reaches
// into a running core (the host's tables, tests, benchmarks, the core itself) includes this.
#pragma once

#include <tuple>

#include "core/SrTePolicyCore.h"
#include "input/SrTePolicyInputSm.h"
#include "input/SrTePolicyKeyToIdMap.h"
#include "lfib/SrTePolicyLfibGenSm.h"
#include "publish/SrTePolicyPublishSm.h"
#include "segment/SrTePolicyCoreDedupTable.h"
#include "segment/SrTePolicySegmentListSm.h"
#include "segment/SrTePolicySegmentResolver.h"
#include "segment/SrTePolicySegmentSm.h"
#include "selection/SrTePolicySelectionSm.h"
#include "tunnel/SrTePolicyTunnelMapExportSm.h"

namespace SrTePolicy {

// The in-process entities every machine of one incarnation shares, in construction order. They
// are destroyed in reverse: the maps release their segment lists before the dedup tables stop.
struct ProcessEntities {
   Mox::Ptr<CoreDedupTables> coreDedupTables = Mox::make<CoreDedupTables>();
   Mox::Ptr<SegmentIdToSegmentList> segmentMap = Mox::make<SegmentIdToSegmentList>();
   Mox::Ptr<SegmentListIdToPolicyMap> segListMap = Mox::make<SegmentListIdToPolicyMap>();
   Mox::Ptr<PolicyKeyToIdMap> policyKeyToIdMap = Mox::make<PolicyKeyToIdMap>();
   Mox::Ptr<SegmentStatus> segmentStatus = Mox::make<SegmentStatus>("segmentStatus");
   // Adjacency indexes of the LFIB generators; start() reserves those still in the published LFIB.
   Mox::Ptr<MplsHelper::LfibGenAdjIdxAllocator> adjIdxAlloc =
       Mox::make<MplsHelper::LfibGenAdjIdxAllocator>();
};

// The state machines. Their order is machineOrder's, below.
struct Machines {
   Mox::Ptr<SegmentResolver> segmentResolver;
   Mox::Ptr<SegmentSm> segmentSm;
   Mox::Ptr<SegmentListSm> segmentListSm;
   Mox::Ptr<PolicyInputSm> policyInputSm;
   Mox::Ptr<PolicySelectionSm> policySelectionSm;
   Mox::Ptr<PolicyPublishSm> policyPublishSm;
   Mox::Ptr<SrTePolicyLfibGenSm> lfibGenSm;
   Mox::Ptr<TunnelMapExportSm> tunnelMapExportSm;
};

// One machine of the list: the stage that builds it and its member of Machines.
template <class Sm>
struct MachineEntry {
   Stage stage;
   Mox::Ptr<Sm> Machines::*member;
};

// The list of machines, in construction order (segment resolution, segment-list resolution, input
// gathering, selection, publishing, binding-SID LFIB generation, tunnel map export). The one list
// both PolicyCore::start() (first to last, up to the last stage) and PolicyCore::stop() (last to
// first, each withdrawn when asked, then destroyed) walk.
inline constexpr std::tuple machineOrder{
    MachineEntry<SegmentResolver>{Stage::segmentResolution, &Machines::segmentResolver},
    MachineEntry<SegmentSm>{Stage::segmentResolution, &Machines::segmentSm},
    MachineEntry<SegmentListSm>{Stage::segmentListResolution, &Machines::segmentListSm},
    MachineEntry<PolicyInputSm>{Stage::input, &Machines::policyInputSm},
    MachineEntry<PolicySelectionSm>{Stage::selection, &Machines::policySelectionSm},
    MachineEntry<PolicyPublishSm>{Stage::publishing, &Machines::policyPublishSm},
    MachineEntry<SrTePolicyLfibGenSm>{Stage::lfibGeneration, &Machines::lfibGenSm},
    // Tunnel map export: the last machine, after publishing and binding-SID LFIB generation.
    MachineEntry<TunnelMapExportSm>{Stage::tunnelMap, &Machines::tunnelMapExportSm},
};

} // namespace SrTePolicy
