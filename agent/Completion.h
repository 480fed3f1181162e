// What may come next on a command line: the shell's Tab completion and its `?` listing.
//
// Derived from what the host has registered (verbs with their usage lines, read as grammars by
// agent/Grammar.h; tables; protocols), so a subsystem's commands complete without any work of
// its own: exactly the words the usage allows next, and `<cr>` only where the command is
// complete. Words match the way the parser matches them: case-insensitively, and a prefix that
// names one choice stands for it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class Host;

struct Choice {
   std::string word; // a keyword, or a placeholder such as "<endpoint>"
   std::string help; // a command's summary, a table's contents; may be empty
   bool isPlaceholder() const { return !word.empty() && word[0] == '<'; }
};

// The choices for the last word of `line` (a partial word, or, when the line is empty or ends
// in a blank, any next word), in the order `help` shows them, without duplicates.
std::vector<Choice> choicesAt(const Host& host, std::string_view line);

} // namespace Agent
