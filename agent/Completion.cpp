#include "agent/Completion.h"

#include <algorithm>

#include "agent/Grammar.h"
#include "agent/Host.h"

namespace Agent {

namespace {

void add(std::vector<Choice>& out, std::string word, std::string help) {
   for (const auto& c : out) {
      if (c.word == word) return;
   }
   out.push_back(Choice{std::move(word), std::move(help)});
}

// A few words on a usage word: what a value is, what a keyword introduces or does.
std::string helpOf(const std::string& w) {
   static const std::pair<const char*, const char*> known[] = {
       {"<endpoint>", "the policy's endpoint: an IPv4 or IPv6 address"},
       {"<nexthop>", "the next hop's IPv4 or IPv6 address"},
       {"<address>", "an IPv4 or IPv6 address"},
       {"<interface>", "an interface: Ethernet1, Vlan10, Port-Channel2, ..."},
       {"<c>", "a color, 0 to 4294967295"},
       {"<color>", "a color, 0 to 4294967295"},
       {"<p>", "a preference, 0 to 4294967295"},
       {"<d>", "a discriminator, 0 to 4294967295"},
       {"<w>", "a weight, 1 to 4294967295"},
       {"<i>", "an index, 0 to 4294967295"},
       {"<l>", "a label, 0 to 1048575"},
       {"<label>", "a label, 0 to 1048575, or none"},
       {"<b>", "the first label, 16 to 1048575"},
       {"<s>", "how many labels"},
       {"<asn>", "an AS number"},
       {"<a>", "a label action: a name or a number"},
       {"<t>", "a type: a name or a number"},
       {"<value>", "a DSCP value, 0 to 63, or a name (ef, af11, cs1, ...)"},
       {"<seconds>", "seconds, such as 2 or 0.5"},
       {"<level>", "a trace level, 0 to 9"},
       {"<file>", "a file name"},
       {"<name>", "a name"},
       {"<index>", "an index"},
       {"<n>", "a number"},
       {"<tunnelId>", "a tunnel id (a number)"},
       {"<id>", "a segment-list id"},
       {"<fecId>", "a FEC id (a number)"},
       {"<task runs>", "at most this many task runs"},
       {"<protocol>", "a protocol name or number"},
       {"json", "as JSON"},
       {"force", "replace the file if it exists"},
       {"remount", "mount the existing table again, whole"},
       {"symbolic", "save the values by name"},
       {"on", "turn it on"},
       {"off", "turn it off"},
       {"all", "every table"},
       {"via", "a next hop: <nexthop> <interface> action <a> [label <l>]"},
       {"segment-list", "a segment list: [weight <w>] labels [<l>]..."},
       {"originator", "the originator: <asn> <address>"},
       {"labels", "the label stack, top first"},
   };
   for (const auto& [word, help] : known) {
      if (w == word) return help;
   }
   return w[0] == '<' ? "a value" : "";
}

void addWord(const Host& host, std::vector<Choice>& out, const std::string& w,
             const std::string& after) {
   if (w == "<table>") {
      for (const auto& s : host.shows()) add(out, s.table, s.summary);
   } else if (w == "<protocol>") {
      for (const auto& n : protocolNames()) add(out, n, "protocol");
      add(out, w, helpOf(w));
   } else if (w == "<a>") {
      for (const char* n : {"none", "pop", "swap", "push", "forward"}) add(out, n, "label action");
      add(out, w, helpOf(w));
   } else {
      std::string help = helpOf(w);
      // A keyword that takes a value says which.
      if (help.empty() && !after.empty()) help = "followed by " + after;
      add(out, w, help);
   }
}

// The arguments that may follow a complete verb, given the ones already typed: exactly what its
// usage line allows there, and <cr> only where the command may end.
void argumentChoices(const Host& host, const Host::Verb& verb, size_t verbWords,
                     const std::vector<std::string>& args, std::vector<Choice>& out) {
   if (verb.name == "help") {
      if (args.empty()) {
         for (const auto& v : host.verbs()) {
            const std::string first = tokenize(v.name).front();
            add(out, first, "the commands that start with " + first);
         }
         add(out, "<cr>", "end of the command");
      }
      return;
   }
   const auto usage = tokenize(verb.usage);
   std::string rest;
   for (size_t i = verbWords; i < usage.size(); ++i) rest += usage[i] + " ";
   const Grammar grammar(rest);
   const Grammar::Next next = grammar.next(args);
   for (const std::string& w : next.words) {
      // The value after a keyword, from what follows it once taken.
      std::string after;
      if (w[0] != '<') {
         std::vector<std::string> more = args;
         more.push_back(w);
         const Grammar::Next then = grammar.next(more);
         if (!then.complete && then.words.size() == 1 && then.words[0][0] == '<') {
            after = then.words[0];
         }
      }
      addWord(host, out, w, after);
   }
   if (next.complete) add(out, "<cr>", "end of the command");
}

// The help of a word of multi-word verbs: the verb's summary when the word ends it, else what the
// group holds.
std::string groupHelp(const Host& host, const std::vector<std::string>& before,
                      const std::string& word) {
   std::vector<std::string> tails;
   for (const auto& v : host.verbs()) {
      const auto words = tokenize(v.name);
      if (words.size() <= before.size() || words[before.size()] != word ||
          !std::equal(before.begin(), before.end(), words.begin())) {
         continue;
      }
      if (words.size() == before.size() + 1) return v.summary;
      if (std::find(tails.begin(), tails.end(), words[before.size() + 1]) == tails.end()) {
         tails.push_back(words[before.size() + 1]);
      }
   }
   std::string help;
   for (const auto& t : tails) help += (help.empty() ? "" : ", ") + t;
   return help.empty() ? help : "then " + help;
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
      for (const auto& w : m.choices) add(all, w, groupHelp(host, m.words, w));
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
