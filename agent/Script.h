// Runs scenario lines from a stream against a Host.
//
// A script (a file, or standard input that is not a terminal) stops at its first error with
// status 1; the interactive shell prints a prompt, reports errors and reads on. Errors are written
// as "<name>:<line>: error: <what>". A line that ends in a backslash continues on the next one;
// errors name the first line of the command.
#pragma once

#include <iosfwd>
#include <string>

namespace Agent {

class Host;

struct ScriptOptions {
   std::string name;         // shown in error messages: a file name, or "<stdin>"
   bool interactive = false; // prompt and keep going after errors
   const char* prompt = "srte> ";
   const char* continuationPrompt = "....> ";
};

// Returns the exit status: 0, or 1 when a script stopped at an error.
int runScript(Host& host, std::istream& in, std::ostream& err, const ScriptOptions& options);

} // namespace Agent
