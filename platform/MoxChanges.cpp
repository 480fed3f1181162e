#include "platform/MoxChanges.h"

namespace Mox::detail {

uint64_t changes = 0;

} // namespace Mox::detail
