// The controller-side command language of bgp-inject, one command a line:
//
//    add <endpoint> color <c> distinguisher <d> [preference <p>] [bsid <label> | srv6-bsid <addr>]
//        [segment-list [weight <w>] [labels <l>...] [srv6 <sid>...]]...
//    withdraw <endpoint> color <c> distinguisher <d>
//
// A second `add` of the same endpoint, color and distinguisher changes the policy. Empty lines and
// lines starting with '#' are skipped. Values are checked here so that the speaker is never handed
// what it cannot take (a label beyond 20 bits, a weight of 0 on a list it then cannot list).
#pragma once

#include <optional>
#include <string_view>

#include "bgp/PathEncoder.h"

namespace SrTeBgp {

struct InjectCommand {
   enum class Kind { add, withdraw };
   Kind kind = Kind::add;
   PolicyAdvert advert; // for a withdrawal, only the id
};

// nullopt for an empty or comment line; throws std::invalid_argument naming what is wrong.
std::optional<InjectCommand> parseInjectLine(std::string_view line);

} // namespace SrTeBgp
