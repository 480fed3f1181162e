#include "agent/Host.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "agent/Attachment.h"
#include "input/SrTePolicyInputSm.h"
#include "platform/MoxBulk.h"
#include "platform/VaultShm.h"

namespace Agent {

// The agent's reaction to SR-TE being configured on or off.
class Host::AgentEnable : public Mox::Reactor<SrTePolicy::Config::Notifiee, Host> {
 public:
   using Reactor::Reactor;
   void onEnabled() override { owner().handleEnabled(); }
};

Host::Host(std::ostream& out, HostOptions options) : options_(std::move(options)), out_(&out) {
   makeAll();
}

Host::~Host() { dropAll(); }

void Host::dropAll() {
   attachment_.reset();
   agentEnable_.reset();
   dropStages();
   core_.reset();
   staticInputWriter_.reset();
   noEntities_.reset();
}

void Host::makeAll() {
   scheduler_ = Mox::make<Kiln::TaskScheduler>(options_.clock);
   core_ = std::make_unique<SrTePolicy::PolicyCore>(*arena_, router_.tables(*scheduler_));
   if (options_.writeStaticInput) {
      staticInputWriter_ = std::make_unique<StaticInputWriter>(router_.config, router_.input);
   }
   // A router on which SR-TE is configured.
   router_.config->enabledIs(true);
   agentEnable_ = std::make_unique<AgentEnable>(*this, router_.config.get());
   if (!options_.runCore) attachment_ = std::make_unique<Attachment>(*this);
}

void Host::reset() {
   const bool started = started_;
   dropAll();
   router_ = SrTePolicy::StandaloneRouter{};
   makeAll();
   started_ = quit_ = staticTableWarned_ = false;
   loadDepth_ = 0;
   warnings_.clear();
   restarts_ = 0;
   if (started) start();
}

const SrTePolicy::ProcessEntities& Host::coreEntities() {
   if (core_->started()) return core_->entities();
   if (!noEntities_) noEntities_ = std::make_unique<SrTePolicy::ProcessEntities>();
   return *noEntities_;
}

void Host::handleEnabled() {
   if (!started_) return;
   if (router_.config->enabled()) {
      core_->start();
   } else {
      core_->tearDown();
   }
}

void Host::verbIs(std::string name, std::string usage, std::string summary, Parse parse) {
   for (const auto& v : verbs_) {
      if (v.name == name) throw std::logic_error("verb registered twice: " + name);
   }
   verbWords_.push_back(tokenize(name));
   verbs_.push_back(
       Verb{std::move(name), std::move(usage), std::move(summary), std::move(parse), false, {}});
}

void Host::verbAsksAgent(std::string_view name) {
   for (auto& v : verbs_) {
      if (v.name == name) v.asksAgent = true;
   }
}

void Host::verbWritesRouterTables(std::string_view name, std::vector<std::string> tables) {
   for (auto& v : verbs_) {
      if (v.name == name) {
         v.routerTables = std::move(tables);
         return;
      }
   }
   throw std::logic_error("router tables of an unknown verb: " + std::string(name));
}

void Host::showIs(std::string table, std::string summary, ShowText readable, ShowJson json,
                  Reads reads) {
   if (show(table)) throw std::logic_error("show table registered twice: " + table);
   shows_.push_back(
       Show{std::move(table), std::move(summary), std::move(readable), std::move(json), reads});
}

void Host::showIs(std::string table, std::string summary, ShowView view, Reads reads) {
   showIs(
       std::move(table), std::move(summary), [view](std::string& out) { view().render(out); },
       [view] { return view().json(); }, reads);
}

bool Host::readsHere(const Show& s) const {
   if (!attachment_) return true;
   switch (s.reads) {
   case Reads::router:
      return true;
   case Reads::published:
      return attachment_->readsPublishedLocally();
   case Reads::agent:
      break;
   }
   return false;
}

void Host::claimInput(SrTePolicy::Protocol protocol, const Args& a) {
   if (!attachment_) return;
   try {
      attachment_->claimInput(protocol);
   } catch (const Vault::Shm::WriterBusy& e) {
      a.fail(e.what());
   } catch (const Vault::Corruption& e) {
      a.fail(e.what());
   }
}

void Host::claimStaticInput(const Args& a) {
   if (!attachment_) return;
   attachment_->refreshInputs();
   if (router_.input->policyInput(StaticInputWriter::protocol)) {
      claimInput(StaticInputWriter::protocol, a);
   }
}

const Host::Show* Host::show(std::string_view table) const {
   for (const auto& s : shows_) {
      if (s.table == table) return &s;
   }
   return nullptr;
}

void Host::dropStages() {
   // First, while the core it watches still exists.
   restartWatch_.reset();
   core_->stop();
}

void Host::buildStages() {
   // Between the core's stop and its start: the snapshot is what the last incarnation left, and
   // the watch's reactors see everything the new one writes.
   if (restarts_ != 0 && !options_.restartCounts)
      restartWatch_ = std::make_unique<SrTePolicy::RestartWatch>(core_->published());
   if (router_.config->enabled()) core_->start();
}

std::optional<std::vector<SrTePolicy::RestartWatch::Counts>> Host::restartCounts() const {
   if (restarts_ == 0) return std::nullopt;
   if (options_.restartCounts) return options_.restartCounts();
   if (restartWatch_) return restartWatch_->counts();
   return std::nullopt;
}

void Host::start() {
   // Attached, the agent runs the core: this one stays stopped, its tables empty.
   if (started_ || !options_.runCore) return;
   started_ = true;
   buildStages();
}

void Host::startAsRestart() {
   if (started_) return;
   ++restarts_;
   start();
}

void Host::restart() {
   Mox::BulkKeep keep(*arena_); // as PolicyCore::restart: the new core reuses the old one's blocks
   dropStages();
   ++restarts_;
   buildStages();
}

std::vector<std::string> Host::firstArgumentWords(const Verb& verb, size_t verbWords) const {
   // The keywords of the usage's first argument ("show <table>|all": the tables and all).
   std::vector<std::string> out;
   const auto usage = tokenize(verb.usage);
   if (usage.size() <= verbWords) return out;
   std::string t = usage[verbWords];
   std::erase_if(t, [](char c) { return c == '[' || c == ']'; });
   size_t start = 0;
   for (size_t k = 0; k <= t.size(); ++k) {
      if (k < t.size() && t[k] != '|') continue;
      const std::string w = t.substr(start, k - start);
      start = k + 1;
      if (w == "<table>") {
         for (const auto& s : shows_) out.push_back(s.table);
      } else if (!w.empty() && w[0] != '<' && w.find('.') == std::string::npos) {
         out.push_back(w);
      }
   }
   return out;
}

Host::VerbMatch Host::matchVerb(const std::vector<std::string>& tokens) const {
   // Word by word: the typed word names one of the words that registered verbs have at that
   // place, given the words before. The longest verb whose words all matched wins. Where a
   // complete verb could also take the word as its first argument ("show policies" beside the
   // verb "show policy"), an abbreviation that fits both is ambiguous.
   VerbMatch m;
   for (size_t i = 0;; ++i) {
      std::vector<std::string> choices;
      for (size_t vi = 0; vi < verbs_.size(); ++vi) {
         const Verb& v = verbs_[vi];
         const auto& words = verbWords_[vi];
         if (words.size() < i || !std::equal(m.words.begin(), m.words.end(), words.begin())) {
            continue;
         }
         if (words.size() == i) {
            m.verb = &v;
            m.verbWords = i;
         } else if (words.size() > i &&
                    std::find(choices.begin(), choices.end(), words[i]) == choices.end()) {
            choices.push_back(words[i]);
         }
      }
      m.choices = choices;
      if (i >= tokens.size() || choices.empty()) break;
      std::vector<std::string> ambiguous;
      std::string w = matchWord(tokens[i], choices, &ambiguous);
      if (m.verb && m.verbWords == i) {
         std::vector<std::string> all = choices;
         for (auto& a : firstArgumentWords(*m.verb, i)) {
            if (std::find(all.begin(), all.end(), a) == all.end()) all.push_back(std::move(a));
         }
         std::vector<std::string> widely;
         const std::string either = matchWord(tokens[i], all, &widely);
         if (either.empty() && widely.size() > 1) {
            m.ambiguous = std::move(widely);
            m.ambiguousArgument = true;
            break;
         }
         // The word names an argument of the shorter verb, or one of the longer verbs.
         if (either != w) w.clear();
      }
      m.ambiguous = std::move(ambiguous);
      if (w.empty()) break;
      m.words.push_back(std::move(w));
   }
   if (m.verb && m.verbWords < m.words.size()) {
      // The words went past a complete verb without reaching a longer one: they are arguments.
      m.words.resize(m.verbWords);
   }
   return m;
}

namespace {
// An output filter after '|': include or exclude the lines holding some text, or count them.
struct Filter {
   enum class Kind { include, exclude, count } kind;
   std::string text;
};

std::string applyFilters(const std::string& output, const std::vector<Filter>& filters) {
   std::vector<std::string> lines;
   size_t start = 0;
   while (start < output.size()) {
      size_t end = output.find('\n', start);
      if (end == std::string::npos) end = output.size();
      lines.push_back(output.substr(start, end - start));
      start = end + 1;
   }
   for (const Filter& f : filters) {
      if (f.kind == Filter::Kind::count) {
         lines = {std::to_string(lines.size())};
         continue;
      }
      const bool keep = f.kind == Filter::Kind::include;
      std::erase_if(lines, [&](const std::string& l) {
         return (l.find(f.text) != std::string::npos) != keep;
      });
   }
   std::string out;
   for (const auto& l : lines) out += l + "\n";
   return out;
}
} // namespace

Host::Apply Host::parse(std::string_view line) const {
   std::vector<std::string> tokens = tokenize(line);
   if (tokens.empty()) return {};

   // `show ... | include WORD | count`: the filters apply to what the command prints.
   const auto bar = std::find(tokens.begin(), tokens.end(), "|");
   if (bar != tokens.end()) {
      std::vector<Filter> filters;
      size_t at = static_cast<size_t>(bar - tokens.begin());
      while (at < tokens.size()) {
         const size_t filterAt = at + 1;
         if (filterAt >= tokens.size()) {
            throw ScriptError("'|' needs a filter: include <text>, exclude <text> or count", at);
         }
         std::vector<std::string> ambiguous;
         const std::string kind =
             matchWord(tokens[filterAt], {"include", "exclude", "count"}, &ambiguous);
         if (kind.empty()) {
            throw ScriptError("unknown filter '" + tokens[filterAt] +
                                  "': include <text>, exclude <text> or count",
                              filterAt);
         }
         size_t end = filterAt + 1;
         while (end < tokens.size() && tokens[end] != "|") ++end;
         std::string text;
         for (size_t k = filterAt + 1; k < end; ++k) text += (text.empty() ? "" : " ") + tokens[k];
         if (kind == "count" && !text.empty()) {
            throw ScriptError("'count' takes no words, got '" + text + "'", filterAt + 1);
         }
         if (kind != "count" && text.empty()) {
            throw ScriptError("'" + kind + "' needs the text to look for", filterAt);
         }
         filters.push_back(Filter{kind == "include"   ? Filter::Kind::include
                                  : kind == "exclude" ? Filter::Kind::exclude
                                                      : Filter::Kind::count,
                                  std::move(text)});
         at = end;
      }
      // The words before the first filter (a '|' inside a word is part of that word).
      std::string command;
      for (auto t = tokens.begin(); t != bar; ++t) command += (command.empty() ? "" : " ") + *t;
      const VerbMatch m = matchVerb(tokenize(command));
      if (!m.verb || (m.verb->name.rfind("show", 0) != 0 && m.verb->name != "help")) {
         throw ScriptError("'|' filters what show and help print", 0);
      }
      Apply inner = parse(command);
      // Applied by execute(), which holds the host as the verbs do.
      Host* self = const_cast<Host*>(this);
      return [self, inner = std::move(inner), filters = std::move(filters)] {
         std::ostringstream captured;
         std::ostream* const shown = self->out_;
         self->out_ = &captured;
         try {
            inner();
         } catch (...) {
            self->out_ = shown;
            throw;
         }
         self->out_ = shown;
         *shown << applyFilters(captured.str(), filters);
      };
   }

   const VerbMatch m = matchVerb(tokens);
   const Verb* verb = m.verb;
   const size_t verbWords = m.verbWords;
   if (!verb) {
      const size_t at = m.words.size(); // the first word that named no verb
      std::string typed, known;
      for (size_t i = 0; i < at; ++i) known += (i ? " " : "") + m.words[i];
      std::vector<std::string> choices = m.choices;
      std::sort(choices.begin(), choices.end());
      if (at == 0) {
         std::string msg;
         if (m.ambiguous.size() > 1) {
            msg = "ambiguous command '" + tokens[0] + "': it begins";
            for (const auto& c : m.ambiguous) msg += " " + c;
         } else {
            msg = "unknown command '" + tokens[0] + "'";
            std::string guess = nearest(tokens[0], choices);
            if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
         }
         msg += "; 'help' lists the commands";
         throw ScriptError(msg, 0);
      }
      std::string msg;
      if (tokens.size() <= at) {
         msg = "'" + known + "' needs one of:";
      } else {
         if (m.ambiguous.size() > 1) {
            msg = "ambiguous command '" + known + " " + tokens[at] + "'";
         } else {
            msg = "unknown command '" + known + " " + tokens[at] + "'";
            std::string guess = nearest(tokens[at], choices);
            if (!guess.empty()) msg += " (did you mean '" + known + " " + guess + "'?)";
         }
         msg += "; '" + known + "' takes one of:";
      }
      for (const auto& c : choices) msg += " " + c;
      throw ScriptError(msg, std::min(at, tokens.size() - 1));
   }
   if (m.ambiguousArgument) {
      std::string msg = "ambiguous command '";
      for (size_t i = 0; i <= verbWords; ++i) msg += (i ? " " : "") + tokens[i];
      msg += "': it begins";
      for (const auto& c : m.ambiguous) msg += " " + c;
      throw ScriptError(msg, verbWords);
   }
   Args args(std::move(tokens), verbWords, verb->usage);
   Apply apply = verb->parse(args);
   args.end();
   if (verb->asksAgent && attachment_) {
      // Checked here like any line, answered by the agent.
      Host* self = const_cast<Host*>(this);
      return
          [self, request = std::string(line)] { *self->out_ << self->attachment_->ask(request); };
   }
   if (!apply) return [] {};
   if (attachment_) {
      // Before anything is applied: a table another process writes refuses the whole line.
      if (!verb->routerTables.empty()) {
         try {
            attachment_->claimRouterTables(verb->routerTables);
         } catch (const Vault::Shm::WriterBusy& e) {
            args.fail(e.what());
         } catch (const Vault::Corruption& e) {
            args.fail(e.what());
         }
      }
      // What is left to say after it ran (a label-range name too long to share).
      Host* self = const_cast<Host*>(this);
      return [self, arena = arena_.get(), apply = std::move(apply)] {
         {
            Mox::Arena::Scope in(*arena);
            apply();
         }
         self->attachment_->afterCommand();
      };
   }
   return [arena = arena_.get(), apply = std::move(apply)] {
      Mox::Arena::Scope in(*arena);
      apply();
   };
}

} // namespace Agent
