#include "agent/Completion.h"

#include <algorithm>

#include "agent/Host.h"

namespace Agent {

namespace {

// One word of a usage line after the verb: its alternatives ("<tunnelId>|segment-list"), with
// brackets and repetition marks taken off; `optional` when it was bracketed.
struct Slot {
   std::vector<std::string> alternatives;
   bool optional = false;
};

std::vector<Slot> usageSlots(const std::string& usage, size_t verbWords) {
   std::vector<Slot> out;
   const auto tokens = tokenize(usage);
   for (size_t i = verbWords; i < tokens.size(); ++i) {
      Slot slot;
      slot.optional = tokens[i].find('[') != std::string::npos;
      std::string t = tokens[i];
      t.erase(std::remove_if(t.begin(), t.end(), [](char c) { return c == '[' || c == ']'; }),
              t.end());
      size_t start = 0;
      for (size_t k = 0; k <= t.size(); ++k) {
         if (k == t.size() || t[k] == '|') {
            std::string w = t.substr(start, k - start);
            while (w.size() >= 3 && w.compare(w.size() - 3, 3, "...") == 0) w.resize(w.size() - 3);
            if (!w.empty()) slot.alternatives.push_back(w);
            start = k + 1;
         }
      }
      if (!slot.alternatives.empty()) out.push_back(std::move(slot));
   }
   return out;
}

void add(std::vector<Choice>& out, std::string word, std::string help) {
   for (const auto& c : out) {
      if (c.word == word) return;
   }
   out.push_back(Choice{std::move(word), std::move(help)});
}

void addWord(const Host& host, std::vector<Choice>& out, const std::string& w) {
   if (w == "<table>") {
      for (const auto& s : host.shows()) add(out, s.table, s.summary);
      add(out, "all", "every table");
   } else if (w == "<protocol>") {
      for (const auto& n : protocolNames()) add(out, n, "");
      add(out, w, "a protocol name or number");
   } else if (w == "json") {
      add(out, w, "as JSON");
   } else if (w != "none") {
      add(out, w, w[0] == '<' ? "a value" : "");
   }
}

// The arguments that may follow a complete verb, given the ones already typed.
void argumentChoices(const Host& host, const Host::Verb& verb, size_t verbWords,
                     const std::vector<std::string>& args, std::vector<Choice>& out) {
   if (verb.name == "help") {
      if (args.empty()) {
         for (const auto& v : host.verbs()) add(out, tokenize(v.name).front(), "");
      }
      return;
   }
   const auto slots = usageSlots(verb.usage, verbWords);
   // Leading required placeholders are positional: offer the one due.
   size_t positional = 0;
   while (positional < slots.size() && !slots[positional].optional &&
          slots[positional].alternatives[0][0] == '<') {
      ++positional;
   }
   if (args.size() < positional) {
      for (const auto& w : slots[args.size()].alternatives) addWord(host, out, w);
      return;
   }
   // After a keyword that takes a value, the value is due.
   if (!args.empty()) {
      for (size_t i = positional; i + 1 < slots.size(); ++i) {
         for (const auto& w : slots[i].alternatives) {
            if (w == lowercase(args.back()) && slots[i + 1].alternatives[0][0] == '<') {
               add(out, slots[i + 1].alternatives[0], "");
               return;
            }
         }
      }
   }
   // Otherwise any keyword of the rest, in usage order, or the end of the command.
   for (size_t i = positional; i < slots.size(); ++i) {
      for (const auto& w : slots[i].alternatives) {
         if (w[0] != '<') addWord(host, out, w);
      }
   }
   add(out, "<cr>", "end of the command");
}

} // namespace

std::vector<Choice> choicesAt(const Host& host, std::string_view line) {
   std::vector<std::string> tokens = tokenize(line);
   std::string partial;
   if (!line.empty() && line.back() != ' ' && line.back() != '\t' && !tokens.empty()) {
      partial = tokens.back();
      tokens.pop_back();
   }
   std::vector<Choice> all;
   const Host::VerbMatch m = host.matchVerb(tokens);
   if (m.words.size() == tokens.size() && !m.choices.empty()) {
      // Still choosing the verb: the words registered verbs have here.
      for (const auto& w : m.choices) {
         std::string help;
         for (const auto& v : host.verbs()) {
            auto words = tokenize(v.name);
            if (words.size() == tokens.size() + 1 && words.back() == w &&
                std::equal(m.words.begin(), m.words.end(), words.begin())) {
               help = v.summary;
            }
         }
         add(all, w, help);
      }
   }
   if (m.verb && m.words.size() == m.verbWords) {
      std::vector<std::string> args(tokens.begin() + static_cast<long>(m.verbWords), tokens.end());
      argumentChoices(host, *m.verb, m.verbWords, args, all);
   }
   if (partial.empty()) return all;
   std::vector<Choice> out;
   const std::string p = lowercase(partial);
   for (auto& c : all) {
      if (c.isPlaceholder() || c.word == "<cr>") continue;
      if (lowercase(c.word).compare(0, p.size(), p) == 0) out.push_back(std::move(c));
   }
   return out;
}

} // namespace Agent
