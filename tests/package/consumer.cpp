// Uses an installed header and a symbol of the installed library.
#include <iostream>

#include "platform/Mpls.h"

int main() {
   const Mpls::LabelRange srlb(900000, 65536);
   std::cout << srlb.stringValue() << "\n";
   return srlb.stringValue() == "base 900000 size 65536" ? 0 : 1;
}
