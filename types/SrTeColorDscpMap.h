// The configured map from a policy color to a set of DSCP values, shared with other agents of the
// router through the attribute log. Pure configuration: nothing in the policy core acts on it.
//
// A DSCP value is a set member (adding it twice leaves one member); whether the saved
// configuration writes a value by its symbolic name is kept per value in cliSaveUseSymbolic_. The
// map does not forbid one DSCP value under two colors; its consumers decide.
#pragma once

#include <optional>
#include <string>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class DscpList : public Mox::Entity {
 public:
   using DscpSet = Mox::HashSet<Ipkit::DscpValue>;
   using SymbolicMap = Mox::HashMap2018<Ipkit::DscpValue, bool>;

   class Notifiee : public Mox::NotifieeOf<DscpList> {
    public:
      virtual void onDscp(const Ipkit::DscpValue&) {}
      virtual void onDscp() {}
      virtual void onCliSaveUseSymbolic_(const Ipkit::DscpValue&) {}
      virtual void onCliSaveUseSymbolic_() {}
   };

   explicit DscpList(Color color) : color_(color) {}
   Color color() const noexcept { return color_; }

   void dscpIs(Ipkit::DscpValue v) { setIs(dscp_, v, &Notifiee::onDscp); }
   void dscpDel(Ipkit::DscpValue v) { collDel(dscp_, v, &Notifiee::onDscp); }
   void dscpDelAll() { collDelAll(dscp_, &Notifiee::onDscp); }
   bool dscp(Ipkit::DscpValue v) const { return dscp_.count(v) != 0; }
   const DscpSet& dscp() const noexcept { return dscp_; }
   size_t dscpCount() const noexcept { return dscp_.size(); }

   void cliSaveUseSymbolic_Is(Ipkit::DscpValue v, bool flag) {
      collIs(cliSaveUseSymbolicMap_, v, flag, &Notifiee::onCliSaveUseSymbolic_);
   }
   void cliSaveUseSymbolic_Del(Ipkit::DscpValue v) {
      collDel(cliSaveUseSymbolicMap_, v, &Notifiee::onCliSaveUseSymbolic_);
   }
   void cliSaveUseSymbolic_DelAll() {
      collDelAll(cliSaveUseSymbolicMap_, &Notifiee::onCliSaveUseSymbolic_);
   }
   std::optional<bool> cliSaveUseSymbolic_(Ipkit::DscpValue v) const;
   const SymbolicMap& cliSaveUseSymbolic_() const noexcept { return cliSaveUseSymbolicMap_; }

   // "color: %u", "dscp #n", then per value (ascending) the number and, when the saved
   // configuration uses it, the symbolic name.
   void dump(std::string& out, int depth) const;
   // The DSCP set, then the symbolic flags, each as a count and its members.
   void attrLogWrite(AttrLog::Writer& w) const;
   static Mox::Ptr<DscpList> attrLogRead(AttrLog::Reader& r);

 private:
   Color color_;
   DscpSet dscp_;
   SymbolicMap cliSaveUseSymbolicMap_;
};

Mox::Ptr<DscpList> dscpListFactory(Color color);

class ColorDscpMap : public Mox::Entity {
 public:
   using ColorToDscpMap = Mox::HashMap2018<Color, Mox::Ptr<DscpList>>;

   class Notifiee : public Mox::NotifieeOf<ColorDscpMap> {
    public:
      virtual void onColorToDscp(const Color&) {}
      virtual void onColorToDscp() {}
   };

   explicit ColorDscpMap(const Mox::Name& name) : name_(name) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Returns the DSCP list of `color`, creating an empty one if absent.
   Mox::Ptr<DscpList> colorToDscpIs(Color color);
   void colorToDscpDel(Color color) { collDel(colorToDscp_, color, &Notifiee::onColorToDscp); }
   void colorToDscpDelAll() { collDelAll(colorToDscp_, &Notifiee::onColorToDscp); }
   Mox::Ptr<DscpList> colorToDscp(Color color) const;
   const ColorToDscpMap& colorToDscp() const noexcept { return colorToDscp_; }
   size_t colorToDscpCount() const noexcept { return colorToDscp_.size(); }

   // "colorToDscp #n", then each list (ascending color) one level deeper.
   void dump(std::string& out, int depth) const;
   void attrLogWrite(AttrLog::Writer& w) const;
   static Mox::Ptr<ColorDscpMap> attrLogRead(AttrLog::Reader& r, const Mox::Name& name);

 private:
   Mox::Name name_;
   ColorToDscpMap colorToDscp_;
};

Mox::Ptr<ColorDscpMap> colorDscpMapFactory(const Mox::Name& name);

} // namespace SrTePolicy
