#include "agent/Feed.h"

#include <algorithm>
#include <ostream>

#include "agent/InputMirror.h"
#include "agent/RunningConfig.h"
#include "agent/Script.h"

namespace Agent {

using namespace SrTePolicy;

std::string inputTableName(Protocol protocol) {
   return "policyInput-" + protocolEnumToString(protocol);
}

namespace {

// splitmix64: every call a new well-mixed word, from a state that is any number.
struct Draw {
   uint64_t state;
   uint64_t next() {
      uint64_t z = (state += 0x9e3779b97f4a7c15u);
      z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
      z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
      return z ^ (z >> 31);
   }
   uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
};

PolicyInputEntry drawnRecord(Protocol protocol, uint32_t n, uint64_t seed) {
   Draw draw{Draw{seed}.next() ^ n};
   const uint32_t k = n / 3;
   PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + k / 8), Color(k % 8 + 1));
   PolicyInputEntry e(PolicyId(key, protocol, Discriminator(n)));
   e.preferenceIs(Preference(100 * (1 + draw.below(3))));
   e.originatorIs(
       Originator(65000 + draw.below(2), Ipkit::IpGenAddr::v4(0xc0000201u + draw.below(4))));
   e.bindingSidIs(Ipkit::MplsLabel(draw.below(16) == 0 ? 99 : 100000 + k % 800000));
   const uint32_t lists = draw.below(16) == 0 ? 0 : 1 + draw.below(3);
   for (uint32_t i = 0; i < lists; ++i) {
      Ipkit::MplsLabelOperation op;
      op.actionIs(Ipkit::MplsLabelAction::push);
      const uint32_t depth = 1 + draw.below(4);
      for (uint32_t l = 0; l < depth; ++l) op.push(Ipkit::MplsLabel(16000 + draw.below(400)));
      e.segmentListIs(SegmentListIndex(i), WeightedSegList(Weight(1 + draw.below(4)), op));
   }
   return e;
}

} // namespace

PolicyInputEntry feedRecord(Protocol protocol, uint32_t n, uint64_t seed) {
   if (seed != 0) return drawnRecord(protocol, n, seed);
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

int feed(const FeedOptions& options, std::ostream& out, std::ostream& err) {
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
            const PolicyInputEntry record =
                feedRecord(options.protocol, options.first + done, options.seed);
            if (options.erase) {
               writer.erase(record.key());
               if (options.print) out << noInputLine(record.key()) << "\n";
            } else {
               writer.insert(record);
               if (options.print) out << inputLine(record) << "\n";
            }
         }
      }
      out << std::flush;
      if (!out) {
         err << "srte feed: the records were written, but not all could be printed\n";
         return exitCannotRun;
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
