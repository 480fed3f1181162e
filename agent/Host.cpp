#include "agent/Host.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace Agent {

Host::Host(std::ostream& out)
    : out_(&out),
      scheduler_(Mox::make<Kiln::TaskScheduler>(Kiln::TaskScheduler::ClockMode::virtualTime)),
      core_(std::make_unique<SrTePolicy::PolicyCore>(router_.tables(*scheduler_))) {}

Host::~Host() {
   dropStages();
   core_.reset();
   clearSlots(shared_);
}

void Host::verbIs(std::string name, std::string usage, std::string summary, Parse parse) {
   for (const auto& v : verbs_) {
      if (v.name == name) throw std::logic_error("verb registered twice: " + name);
   }
   verbs_.push_back(Verb{std::move(name), std::move(usage), std::move(summary), std::move(parse)});
}

void Host::showIs(std::string table, std::string summary, ShowText readable, ShowJson json) {
   if (show(table)) throw std::logic_error("show table registered twice: " + table);
   shows_.push_back(
       Show{std::move(table), std::move(summary), std::move(readable), std::move(json)});
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
   core_->start();
}

void Host::start() {
   if (started_) return;
   started_ = true;
   buildStages();
}

void Host::restart() {
   dropStages();
   ++restarts_;
   buildStages();
}

namespace {
std::vector<std::string> wordsOf(const std::string& name) { return tokenize(name); }
} // namespace

Host::Apply Host::parse(std::string_view line) const {
   std::vector<std::string> tokens = tokenize(line);
   if (tokens.empty()) return {};

   // The longest registered verb whose words begin the line.
   const Verb* verb = nullptr;
   size_t verbWords = 0;
   for (const auto& v : verbs_) {
      const auto words = wordsOf(v.name);
      if (words.size() > tokens.size() || words.size() <= verbWords) continue;
      if (std::equal(words.begin(), words.end(), tokens.begin())) {
         verb = &v;
         verbWords = words.size();
      }
   }
   if (!verb) {
      // Either the first word is unknown, or it starts multi-word verbs and the next is wrong.
      std::vector<std::string> firsts, seconds;
      for (const auto& v : verbs_) {
         const auto words = wordsOf(v.name);
         if (std::find(firsts.begin(), firsts.end(), words[0]) == firsts.end()) {
            firsts.push_back(words[0]);
         }
         if (words[0] == tokens[0] && words.size() > 1) seconds.push_back(words[1]);
      }
      if (!seconds.empty()) {
         std::sort(seconds.begin(), seconds.end());
         seconds.erase(std::unique(seconds.begin(), seconds.end()), seconds.end());
         std::string msg;
         if (tokens.size() < 2) {
            msg = "'" + tokens[0] + "' needs one of:";
         } else {
            msg = "unknown command '" + tokens[0] + " " + tokens[1] + "'";
            std::string guess = nearest(tokens[1], seconds);
            if (!guess.empty()) msg += " (did you mean '" + tokens[0] + " " + guess + "'?)";
            msg += "; '" + tokens[0] + "' takes one of:";
         }
         for (const auto& s : seconds) msg += " " + s;
         throw ScriptError(msg);
      }
      std::string msg = "unknown command '" + tokens[0] + "'";
      std::string guess = nearest(tokens[0], firsts);
      if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
      msg += "; 'help' lists the commands";
      throw ScriptError(msg);
   }
   Args args(std::move(tokens), verbWords, verb->usage);
   Apply apply = verb->parse(args);
   args.end();
   return apply ? apply : Apply([] {});
}

} // namespace Agent
