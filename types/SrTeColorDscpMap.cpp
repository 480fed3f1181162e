#include "types/SrTeColorDscpMap.h"

#include <algorithm>
#include <vector>

namespace SrTePolicy {

// ---- DscpList

std::optional<bool> DscpList::cliSaveUseSymbolic_(Ipkit::DscpValue v) const {
   auto it = cliSaveUseSymbolicMap_.find(v);
   if (it == cliSaveUseSymbolicMap_.end()) return std::nullopt;
   return it->second;
}

void DscpList::dump(std::string& out, int depth) const {
   std::vector<Ipkit::DscpValue> values(dscp_.begin(), dscp_.end());
   std::sort(values.begin(), values.end());
   dumpIndent(out, depth);
   Mox::appendf(out, "color: %u\n", color_.value);
   dumpIndent(out, depth);
   Mox::appendf(out, "dscp #%u \n", static_cast<unsigned>(values.size()));
   for (Ipkit::DscpValue v : values) {
      dumpIndent(out, dumpDeeper(depth));
      std::string name = cliSaveUseSymbolic_(v).value_or(false) ? v.symbolicName() : "";
      if (name.empty()) {
         Mox::appendf(out, "%u\n", static_cast<unsigned>(v.value));
      } else {
         Mox::appendf(out, "%u (%s)\n", static_cast<unsigned>(v.value), name.c_str());
      }
   }
}

void DscpList::attrLogWrite(AttrLog::Writer& w) const {
   color_.attrLogWrite(w);
   w.u32(static_cast<uint32_t>(dscp_.size()));
   for (Ipkit::DscpValue v : dscp_) v.attrLogWrite(w);
   w.u32(static_cast<uint32_t>(cliSaveUseSymbolicMap_.size()));
   for (const auto& [v, flag] : cliSaveUseSymbolicMap_) {
      v.attrLogWrite(w);
      w.u8(flag);
   }
}

Mox::Ptr<DscpList> DscpList::attrLogRead(AttrLog::Reader& r) {
   auto list = dscpListFactory(Color::attrLogRead(r));
   for (uint32_t n = r.u32(); n > 0; --n) list->dscp_.insert(Ipkit::DscpValue::attrLogRead(r));
   for (uint32_t n = r.u32(); n > 0; --n) {
      Ipkit::DscpValue v = Ipkit::DscpValue::attrLogRead(r);
      uint8_t flag = r.u8();
      if (flag > 1) throw Mox::RangeError("bool value other than 0 or 1 not allowed");
      list->cliSaveUseSymbolicMap_[v] = flag == 1;
   }
   return list;
}

Mox::Ptr<DscpList> dscpListFactory(Color color) { return Mox::make<DscpList>(color); }

// ---- ColorDscpMap

Mox::Ptr<DscpList> ColorDscpMap::colorToDscpIs(Color color) {
   auto it = colorToDscp_.find(color);
   if (it != colorToDscp_.end()) return it->second;
   auto list = dscpListFactory(color);
   colorToDscp_.emplace(color, list);
   void (Notifiee::*changed)(const Color&) = &Notifiee::onColorToDscp;
   notify(changed, color);
   return list;
}

Mox::Ptr<DscpList> ColorDscpMap::colorToDscp(Color color) const {
   auto it = colorToDscp_.find(color);
   return it == colorToDscp_.end() ? nullptr : it->second;
}

void ColorDscpMap::dump(std::string& out, int depth) const {
   std::vector<Color> colors;
   for (const auto& [color, list] : colorToDscp_) colors.push_back(color);
   std::sort(colors.begin(), colors.end());
   dumpIndent(out, depth);
   Mox::appendf(out, "colorToDscp #%u \n", static_cast<unsigned>(colors.size()));
   for (Color c : colors) colorToDscp_.at(c)->dump(out, dumpDeeper(depth));
}

void ColorDscpMap::attrLogWrite(AttrLog::Writer& w) const {
   w.u32(static_cast<uint32_t>(colorToDscp_.size()));
   for (const auto& [color, list] : colorToDscp_) list->attrLogWrite(w);
}

Mox::Ptr<ColorDscpMap> ColorDscpMap::attrLogRead(AttrLog::Reader& r, const Mox::Name& name) {
   auto map = colorDscpMapFactory(name);
   for (uint32_t n = r.u32(); n > 0; --n) {
      auto list = DscpList::attrLogRead(r);
      map->colorToDscp_[list->color()] = list;
   }
   return map;
}

Mox::Ptr<ColorDscpMap> colorDscpMapFactory(const Mox::Name& name) {
   return Mox::make<ColorDscpMap>(name);
}

} // namespace SrTePolicy
