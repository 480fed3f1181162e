#include <gtest/gtest.h>

#include "types/SrTeColorDscpMap.h"

namespace {

using namespace SrTePolicy;
using Ipkit::DscpValue;

TEST(ColorDscpMap, DscpValuesAreSetMembersPerColor) {
   auto map = colorDscpMapFactory("colorDscp");
   struct MapLog : ColorDscpMap::Notifiee {
      std::string seen;
      void onColorToDscp(const Color& c) override { seen += std::to_string(c.value) + " "; }
   } mapLog;
   mapLog.notifierIs(map);
   auto red = map->colorToDscpIs(Color(100));
   EXPECT_EQ(map->colorToDscpIs(Color(100)), red);
   struct ListLog : DscpList::Notifiee {
      std::string seen;
      void onDscp(const DscpValue& v) override { seen += std::to_string(v.value) + " "; }
      void onCliSaveUseSymbolic_(const DscpValue& v) override {
         seen += "s" + std::to_string(v.value) + " ";
      }
   } listLog;
   listLog.notifierIs(red);

   red->dscpIs(DscpValue(46));
   red->dscpIs(DscpValue(46));
   red->dscpIs(DscpValue(10));
   EXPECT_EQ(red->dscpCount(), 2u);
   EXPECT_TRUE(red->dscp(DscpValue(46)));
   EXPECT_FALSE(red->dscp(DscpValue(0)));
   red->cliSaveUseSymbolic_Is(DscpValue(46), true);
   red->cliSaveUseSymbolic_Is(DscpValue(46), true);
   EXPECT_EQ(red->cliSaveUseSymbolic_(DscpValue(46)), true);
   EXPECT_EQ(red->cliSaveUseSymbolic_(DscpValue(10)), std::nullopt);
   red->dscpDel(DscpValue(12)); // not a member
   EXPECT_EQ(listLog.seen, "46 10 s46 ");

   // One value may sit under two colors.
   map->colorToDscpIs(Color(7))->dscpIs(DscpValue(46));
   std::string out;
   map->dump(out, 0);
   EXPECT_EQ(out, " colorToDscp #2 \n"
                  "  color: 7\n"
                  "  dscp #1 \n"
                  "    46\n"
                  "  color: 100\n"
                  "  dscp #2 \n"
                  "    10\n"
                  "    46 (ef)\n");

   AttrLog::Writer w;
   map->attrLogWrite(w);
   AttrLog::Reader r(w.buffer());
   std::string copied;
   ColorDscpMap::attrLogRead(r, "copy")->dump(copied, 0);
   EXPECT_EQ(copied, out);

   // Deleting a color drops its whole list.
   map->colorToDscpDel(Color(100));
   EXPECT_EQ(map->colorToDscp(Color(100)), nullptr);
   EXPECT_EQ(red->refCount(), 1u);
   EXPECT_EQ(mapLog.seen, "100 7 100 ");
}

} // namespace
