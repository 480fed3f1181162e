// Mox change count: one number that moves whenever an entity notifies a change or a shared table
// is written, so that "did anything change?" is a comparison of two readings, not of two copies
// of every table.
//
// Guarantees (tests/platform/MoxChangesTest.cpp):
//  - every entity notification counts, whether or not a reactor is bound: a setter or keyed
//    mutator that changed something moves the count; one given the value already held does not;
//  - every write to a Vault table counts: insert, a record fetched for writing in place (counted
//    when fetched, since the writer changes it through the reference), commit, erase and a change
//    of mount status;
//  - the count may also move when nothing visible changed (a task's run is a notification, a
//    value set and set back counts twice), so a moved count says "look", not "changed".
// What it does not see: state held outside entities and tables (a log's records, plain members
// of a machine). A caller that must know everything compares contents as well, now and then.
//
// One count for the thread that runs the event loop, shared by every core in the process: a second
// core only makes the count move more often.
#pragma once

#include <cstdint>

namespace Mox {

namespace detail {
extern uint64_t changes;
} // namespace detail

inline uint64_t changeCount() noexcept { return detail::changes; }
inline void changeCountInc() noexcept { ++detail::changes; }

} // namespace Mox
