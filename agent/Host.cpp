#include "agent/Host.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "platform/MoxBulk.h"

namespace Agent {

// The agent's reaction to SR-TE being configured on or off.
class Host::AgentEnable : public Mox::Reactor<SrTePolicy::Config::Notifiee, Host> {
 public:
   using Reactor::Reactor;
   void onEnabled() override { owner().handleEnabled(); }
};

Host::Host(std::ostream& out)
    : out_(&out),
      scheduler_(Mox::make<Kiln::TaskScheduler>(Kiln::TaskScheduler::ClockMode::virtualTime)),
      core_(std::make_unique<SrTePolicy::PolicyCore>(router_.tables(*scheduler_))) {
   // A router on which SR-TE is configured.
   router_.config->enabledIs(true);
   agentEnable_ = std::make_unique<AgentEnable>(*this, router_.config.get());
}

Host::~Host() {
   agentEnable_.reset();
   dropStages();
   core_.reset();
   clearSlots(shared_);
}

const SrTePolicy::ProcessEntities& Host::coreEntities() {
   if (core_->started()) return core_->entities();
   struct Stopped {
      SrTePolicy::ProcessEntities none;
   };
   return shared<Stopped>().none;
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
   verbs_.push_back(Verb{std::move(name), std::move(usage), std::move(summary), std::move(parse)});
}

void Host::showIs(std::string table, std::string summary, ShowText readable, ShowJson json) {
   if (show(table)) throw std::logic_error("show table registered twice: " + table);
   shows_.push_back(
       Show{std::move(table), std::move(summary), std::move(readable), std::move(json)});
}

void Host::showIs(std::string table, std::string summary, ShowView view) {
   showIs(
       std::move(table), std::move(summary), [view](std::string& out) { view().render(out); },
       [view] { return view().json(); });
}

void Host::stageIs(int order, std::string name, StageFn build, StageFn drop) {
   // A stage registered after start is built at once, as it would join a running agent.
   if (started_ && build) build();
   stages_.push_back(Stage{order, std::move(name), std::move(build), std::move(drop)});
   // Stable: stages of equal order keep their registration order.
   std::stable_sort(stages_.begin(), stages_.end(),
                    [](const Stage& a, const Stage& b) { return a.order < b.order; });
}

const Host::Show* Host::show(std::string_view table) const {
   for (const auto& s : shows_) {
      if (s.table == table) return &s;
   }
   return nullptr;
}

void Host::clearSlots(std::vector<Slot>& slots) {
   while (!slots.empty()) {
      auto last = std::move(slots.back().object);
      slots.pop_back();
      last.reset();
   }
}

void Host::dropStages() {
   for (auto it = stages_.rbegin(); it != stages_.rend(); ++it) {
      if (it->drop) it->drop();
   }
   core_->stop();
   clearSlots(process_);
}

void Host::buildStages() {
   for (auto& s : stages_) {
      if (s.build) s.build();
   }
   if (router_.config->enabled()) core_->start();
}

void Host::start() {
   if (started_) return;
   started_ = true;
   buildStages();
}

void Host::restart() {
   Mox::BulkKeep keep; // as PolicyCore::restart: the new core reuses the old one's blocks
   dropStages();
   ++restarts_;
   buildStages();
}

Host::VerbMatch Host::matchVerb(const std::vector<std::string>& tokens) const {
   // Word by word: the typed word names one of the words that registered verbs have at that
   // place, given the words before. The longest verb whose words all matched wins.
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

Host::Apply Host::parse(std::string_view line) const {
   std::vector<std::string> tokens = tokenize(line);
   if (tokens.empty()) return {};

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
   Args args(std::move(tokens), verbWords, verb->usage);
   Apply apply = verb->parse(args);
   args.end();
   return apply ? apply : Apply([] {});
}

} // namespace Agent
