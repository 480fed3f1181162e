#include <gtest/gtest.h>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Strep.h"

namespace {

using Ipkit::DscpValue;
using Ipkit::IpGenAddr;
using Ipkit::MplsLabel;
using Ipkit::MplsLabelOperation;

MplsLabelOperation stack(std::initializer_list<uint32_t> labels) {
   MplsLabelOperation op;
   op.actionIs(Ipkit::MplsLabelAction::push);
   for (uint32_t l : labels) op.push(MplsLabel(l));
   return op;
}

template <class T>
std::string rangeMessageOf(const std::vector<uint8_t>& bytes) {
   AttrLog::Reader r(bytes);
   try {
      T::attrLogRead(r);
   } catch (const Mox::RangeError& e) {
      return e.what();
   }
   return "accepted";
}

TEST(Ipkit, StructuredTextRoundTripsAndRefusals) {
   auto v4 = *IpGenAddr::parse("10.0.0.1");
   auto v6 = *IpGenAddr::parse("2001:db8::7");
   EXPECT_EQ(v4.valueToStrep(), "Value('Ipkit::IpGenAddr', ** {'address': '10.0.0.1'})");
   EXPECT_EQ(IpGenAddr::fromStrep(v4.valueToStrep()), v4);
   EXPECT_EQ(IpGenAddr::fromStrep(v6.valueToStrep()), v6);
   EXPECT_EQ(MplsLabel().valueToStrep(), "Value('Ipkit::MplsLabel', ** {'value': 1048576})");
   EXPECT_TRUE(MplsLabel::fromStrep(MplsLabel().valueToStrep()).isNull());
   auto op = stack({16001, 16002, 3});
   EXPECT_EQ(op.valueToStrep(),
             "Value('Ipkit::MplsLabelOperation', ** {'action': 3, 'stack': [16001, 16002, 3]})");
   EXPECT_EQ(MplsLabelOperation::fromStrep(op.valueToStrep()), op);
   // The action may be written by name.
   EXPECT_EQ(MplsLabelOperation::fromStrep(
                 "Value('Ipkit::MplsLabelOperation', ** {'action': 'push', 'stack': [16001, 16002, "
                 "3]})"),
             op);
   EXPECT_EQ(DscpValue::fromStrep(DscpValue(46).valueToStrep()), DscpValue(46));

   EXPECT_THROW(IpGenAddr::fromStrep("Value('Ipkit::IpGenAddr', ** {'address': '10.0.0.256'})"),
                Strep::ParseError);
   EXPECT_THROW(MplsLabel::fromStrep("Value('Ipkit::MplsLabel', ** {'value': 8388609})"),
                Mox::RangeError);
   EXPECT_THROW(MplsLabelOperation::fromStrep("Value('Ipkit::MplsLabelOperation', ** {'action': "
                                              "3, 'stack': [1, 2, 3, 4, 5, 6, 7, 8, 9]})"),
                Mox::RangeError);
}

TEST(Ipkit, AttributeLogIsNetworkOrderAndRangeCheckedOnReadBack) {
   AttrLog::Writer w;
   auto v4 = *IpGenAddr::parse("10.0.0.1");
   auto v6 = *IpGenAddr::parse("2001:db8::7");
   auto op = stack({16001, 1048575});
   v4.attrLogWrite(w);
   MplsLabel(16001).attrLogWrite(w);
   v6.attrLogWrite(w);
   op.attrLogWrite(w);
   DscpValue(46).attrLogWrite(w);
   const auto& b = w.buffer();
   ASSERT_EQ(b.size(), 20u + 4u + 20u + (8u + 8u) + 1u);
   EXPECT_EQ(std::vector<uint8_t>(b.begin(), b.begin() + 8),
             (std::vector<uint8_t>{0, 0, 0, 0, 10, 0, 0, 1}));
   EXPECT_EQ(std::vector<uint8_t>(b.begin() + 20, b.begin() + 24),
             (std::vector<uint8_t>{0x00, 0x00, 0x3e, 0x81}));

   AttrLog::Reader r(b);
   EXPECT_EQ(IpGenAddr::attrLogRead(r), v4);
   EXPECT_EQ(MplsLabel::attrLogRead(r), MplsLabel(16001));
   EXPECT_EQ(IpGenAddr::attrLogRead(r), v6);
   EXPECT_EQ(MplsLabelOperation::attrLogRead(r), op);
   EXPECT_EQ(DscpValue::attrLogRead(r), DscpValue(46));
   EXPECT_EQ(r.remaining(), 0u);
   EXPECT_THROW(DscpValue::attrLogRead(r), AttrLog::Truncated);

   EXPECT_EQ(rangeMessageOf<MplsLabel>({0x00, 0x80, 0x00, 0x01}), MplsLabel::rangeMessage);
   EXPECT_EQ(rangeMessageOf<MplsLabelOperation>({0, 0, 0, 3, 0, 0, 0, 9}),
             Ipkit::MplsStackEntryIndex::rangeMessage);
   EXPECT_EQ(rangeMessageOf<DscpValue>({64}), DscpValue::rangeMessage);
   std::vector<uint8_t> badFamily(20, 0);
   badFamily[3] = 2;
   EXPECT_EQ(rangeMessageOf<IpGenAddr>(badFamily), IpGenAddr::familyRangeMessage);
}

} // namespace
