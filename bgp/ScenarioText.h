// Protocol-20 records as lines of the scenario language (`input bgp ...`, `no input bgp ...`), so
// that what a BGP speaker delivers can be replayed into `srte` and compared with what the core
// gives for records typed by hand.
#pragma once

#include <string>

#include "types/SrTePolicyInput.h"

namespace SrTeBgp {

// "input bgp <endpoint> color <c> discriminator <d> originator <asn> <address> preference <p>
// [bsid <label>] [segment-list weight <w> labels <l>...]...": every field, so that the line
// replaces a record whole.
std::string inputLine(const SrTePolicy::PolicyInputEntry& entry);
// "no input bgp <endpoint> color <c> discriminator <d>"
std::string withdrawLine(const SrTePolicy::PolicyId& id);

} // namespace SrTeBgp
