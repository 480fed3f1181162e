#include "agent/Feed.h"

#include <algorithm>
#include <ostream>

#include "agent/InputMirror.h"
#include "agent/Script.h"

namespace Agent {

using namespace SrTePolicy;

std::string inputTableName(Protocol protocol) {
   return "policyInput-" + protocolEnumToString(protocol);
}

PolicyInputEntry feedRecord(Protocol protocol, uint32_t n) {
   PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + n / 8), Color(n % 8 + 1));
   PolicyInputEntry e(PolicyId(key, protocol, Discriminator(n)));
   e.preferenceIs(Preference(100));
   e.bindingSidIs(Ipkit::MplsLabel(100000 + n % 800000));
   for (uint32_t i = 0; i < 2; ++i) {
      Ipkit::MplsLabelOperation op;
      op.actionIs(Ipkit::MplsLabelAction::push);
      for (uint32_t l = 0; l < 3; ++l) op.push(Ipkit::MplsLabel(16000 + (n + i * 3 + l) % 4000));
      e.segmentListIs(SegmentListIndex(i), WeightedSegList(Weight(1), op));
   }
   return e;
}

int feed(const FeedOptions& options, std::ostream& err) {
   const std::string table = inputTableName(options.protocol);
   try {
      // A new table has room for what is written now and as much again.
      Vault::Shm::Geometry geometry;
      geometry.capacity =
          std::max<uint64_t>(geometry.capacity, 2 * (uint64_t{options.first} + options.paths));
      InputMirror::SharedInputWriter writer(options.router, table, geometry);
      constexpr uint32_t burst = 1000;
      for (uint32_t done = 0; done < options.paths;) {
         InputMirror::SharedInputWriter::Batch batch(writer);
         const uint32_t end = std::min(options.paths, done + burst);
         for (; done < end; ++done) {
            const uint32_t n = options.first + done;
            if (options.erase) {
               writer.erase(feedRecord(options.protocol, n).key());
            } else {
               writer.insert(feedRecord(options.protocol, n));
            }
         }
      }
      return exitOk;
   } catch (const Vault::Shm::WriterBusy& e) {
      err << "srte feed: " << e.what() << "\n";
   } catch (const Vault::Shm::TableFull& e) {
      err << "srte feed: " << e.what() << "\n";
   } catch (const Vault::Corruption& e) {
      err << "srte feed: " << e.what() << "\n";
   } catch (const std::invalid_argument& e) {
      err << "srte feed: " << e.what() << "\n";
   }
   return exitCannotRun;
}

} // namespace Agent
