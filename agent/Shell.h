// The interactive shell: `srte` on a terminal.
//
// Line editing and history come from libedit (BSD-licensed). History persists across sessions in
// $SRTE_HISTORY, else ~/.srte_history, saved after every command. Tab completes verbs, keywords,
// protocols and table names; `?` lists what may come next with a line of help each, as router
// shells do, and leaves the line as it was. Ctrl-C cancels the line being typed, or interrupts a
// running `run` or `advance` between two task runs (the state stays consistent: what did not
// run is still ready). Ctrl-C at an empty prompt twice in a row, `quit`, `exit` or Ctrl-D leave.
#pragma once

#include <iosfwd>

namespace Agent {

class Host;

// Runs the shell on the terminal of standard input, on `host` (started, perhaps after scripts
// ran on it); returns the exit status.
int runShell(Host& host, std::ostream& err);

} // namespace Agent
