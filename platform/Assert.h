// Assertions for programming errors: a broken invariant prints its fixed text and aborts, in every
// build. Input errors never come here; they are recorded, logged or reported as range errors.
#pragma once

namespace Mox {
[[noreturn]] void assertionFailed(const char* text, const char* file, int line);
}

#define SRTE_ASSERT(cond, text)                                                                    \
   do {                                                                                            \
      if (!(cond)) [[unlikely]]                                                                    \
         ::Mox::assertionFailed(text, __FILE__, __LINE__);                                         \
   } while (0)
