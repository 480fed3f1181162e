#include "agent/Shell.h"

#include <histedit.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <utility>

#include "agent/Completion.h"
#include "agent/Host.h"
#include "agent/Script.h"

namespace Agent {

namespace {

std::atomic<bool> interruptRequested{false};

extern "C" void onInterrupt(int) { interruptRequested.store(true, std::memory_order_relaxed); }

std::string historyPath() {
   if (const char* p = std::getenv("SRTE_HISTORY"); p && *p) return p;
   if (const char* home = std::getenv("HOME"); home && *home) {
      return std::string(home) + "/.srte_history";
   }
   return std::string();
}

class EditLineSource : public LineSource {
 public:
   EditLineSource(Host& host, std::ostream& err) : host_(host), err_(err) {
      history_ = history_init();
      HistEvent ev;
      history(history_, &ev, H_SETSIZE, 1000);
      history(history_, &ev, H_SETUNIQUE, 1);
      path_ = historyPath();
      if (!path_.empty()) history(history_, &ev, H_LOAD, path_.c_str());

      el_ = el_init("srte", stdin, stdout, stderr);
      el_set(el_, EL_CLIENTDATA, this);
      el_set(el_, EL_EDITOR, "emacs");
      el_set(el_, EL_PROMPT, &EditLineSource::prompt);
      el_set(el_, EL_HIST, history, history_);
      el_set(el_, EL_GETCFN, &EditLineSource::readChar);
      // The wide form keeps our static names; the narrow one copies them and never frees them.
      el_wset(el_, EL_ADDFN, L"srte-complete", L"complete the word", &EditLineSource::complete);
      el_wset(el_, EL_ADDFN, L"srte-choices", L"list what may come next", &EditLineSource::choices);
      el_set(el_, EL_BIND, "^I", "srte-complete", nullptr);
      el_set(el_, EL_BIND, "?", "srte-choices", nullptr);
      el_source(el_, nullptr); // the user's ~/.editrc, if any
   }
   ~EditLineSource() override {
      el_end(el_);
      history_end(history_);
   }
   EditLineSource(const EditLineSource&) = delete;
   EditLineSource& operator=(const EditLineSource&) = delete;

   bool interactive() const override { return true; }

   Read next(std::string& line, bool continued) override {
      continued_ = continued;
      int count = 0;
      const char* text = el_gets(el_, &count);
      if (interruptRequested.exchange(false)) {
         // Ctrl-C: drop the line. At an empty prompt, the second one in a row leaves.
         const bool empty = !continued && interruptedLineEmpty_;
         std::fputs("^C\n", stdout);
         if (empty && std::exchange(emptyInterrupt_, true)) return Read::end;
         if (empty) std::fputs("(Ctrl-C again, quit or Ctrl-D to leave)\n", stdout);
         std::fflush(stdout);
         return Read::cancelled;
      }
      emptyInterrupt_ = false;
      if (!text || count <= 0) {
         std::fputs("\n", stdout);
         std::fflush(stdout);
         return Read::end;
      }
      line.assign(text, static_cast<size_t>(count));
      if (!line.empty() && line.back() == '\n') line.pop_back();
      return Read::line;
   }

   void commandDone(const std::string& command) override {
      if (command.find_first_not_of(" \t") != std::string::npos) {
         HistEvent ev;
         history(history_, &ev, H_ENTER, command.c_str());
         if (!path_.empty()) history(history_, &ev, H_SAVE, path_.c_str());
      }
      if (interruptRequested.exchange(false)) {
         // run and advance stop between two task runs; anything else had finished anyway.
         err_ << "\ninterrupted at virtual time " << Kiln::secondsText(host_.scheduler().nowNs())
              << " s with " << host_.scheduler().readyTaskCount()
              << " tasks ready; 'run' or 'advance' goes on from here" << std::endl;
      }
   }

 private:
   static EditLineSource& self(EditLine* el) {
      void* p = nullptr;
      el_get(el, EL_CLIENTDATA, &p);
      return *static_cast<EditLineSource*>(p);
   }
   static const char* prompt(EditLine* el) { return self(el).continued_ ? "....> " : "srte> "; }

   // Reads one character, returning -1 on Ctrl-C so that el_gets gives the line back.
   static int readChar(EditLine* el, wchar_t* out) {
      std::mbstate_t state{};
      char bytes[MB_LEN_MAX];
      size_t n = 0;
      const auto interrupted = [el] {
         const LineInfo* li = el_line(el);
         self(el).interruptedLineEmpty_ = li->lastchar == li->buffer;
         return -1;
      };
      for (;;) {
         // A Ctrl-C that lands while we are not inside read() would leave read() blocked until
         // the next key: wait for input in short polls that look at the flag in between.
         for (;;) {
            if (interruptRequested.load()) return interrupted();
            pollfd input{STDIN_FILENO, POLLIN, 0};
            const int ready = ::poll(&input, 1, 50);
            if (ready > 0 || (ready < 0 && errno != EINTR)) break; // read() says what it is
         }
         char c;
         const ssize_t r = ::read(STDIN_FILENO, &c, 1);
         if (r == 0) return 0;
         if (r < 0) {
            if (errno == EINTR && !interruptRequested.load()) continue;
            return interrupted();
         }
         bytes[n++] = c;
         wchar_t wc = 0;
         const size_t used = std::mbrtowc(&wc, bytes, n, &state);
         if (used == static_cast<size_t>(-2) && n < sizeof bytes) continue; // incomplete
         if (used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2)) {
            wc = static_cast<unsigned char>(bytes[0]); // not text: pass the byte on
         }
         *out = wc;
         return 1;
      }
   }

   std::string lineToCursor() const {
      const LineInfo* li = el_line(el_);
      return std::string(li->buffer, static_cast<size_t>(li->cursor - li->buffer));
   }

   static unsigned char choices(EditLine* el, int) {
      EditLineSource& s = self(el);
      const auto list = choicesAt(s.host_, s.lineToCursor());
      std::string text = "\n";
      if (list.empty()) {
         text += "  (nothing can come here)\n";
      } else {
         size_t width = 0;
         for (const auto& c : list) width = std::max(width, c.word.size());
         for (const auto& c : list) {
            text += "  " + c.word;
            if (!c.help.empty()) text += std::string(width - c.word.size() + 2, ' ') + c.help;
            text += "\n";
         }
      }
      std::fputs(text.c_str(), stdout);
      std::fflush(stdout);
      return CC_REDISPLAY;
   }

   static unsigned char complete(EditLine* el, int) {
      EditLineSource& s = self(el);
      const std::string line = s.lineToCursor();
      auto list = choicesAt(s.host_, line);
      std::erase_if(list, [](const Choice& c) { return c.isPlaceholder() || c.word == "<cr>"; });
      if (list.empty()) return CC_REFRESH_BEEP;
      size_t start = line.size();
      while (start > 0 && line[start - 1] != ' ' && line[start - 1] != '\t') --start;
      const size_t typed = line.size() - start;
      std::string common = list.front().word;
      for (const auto& c : list) {
         size_t k = 0;
         while (k < common.size() && k < c.word.size() && common[k] == c.word[k]) ++k;
         common.resize(k);
      }
      if (list.size() == 1) common += ' ';
      if (common.size() > typed) {
         // Replace what was typed (its case may differ) with the completed word.
         el_deletestr(el, static_cast<int>(typed));
         el_insertstr(el, common.c_str());
         return CC_REFRESH;
      }
      return choices(el, 0);
   }

   Host& host_;
   std::ostream& err_;
   EditLine* el_ = nullptr;
   History* history_ = nullptr;
   std::string path_;
   bool continued_ = false;
   bool emptyInterrupt_ = false;
   bool interruptedLineEmpty_ = true;
};

} // namespace

int runShell(Host& host, std::ostream& err) {
   std::setlocale(LC_CTYPE, ""); // the terminal's encoding, for editing non-ASCII text
   const bool verbose = host.verbose();
   host.verboseIs(true);
   host.scheduler().interruptFlagIs(&interruptRequested);

   // No SA_RESTART: a read at the prompt returns so that the line can be cancelled.
   struct sigaction sa {};
   sa.sa_handler = onInterrupt;
   sigemptyset(&sa.sa_mask);
   struct sigaction previous {};
   sigaction(SIGINT, &sa, &previous);

   int status;
   {
      EditLineSource lines(host, err);
      ScriptOptions options;
      options.name = "<stdin>";
      status = runScript(host, lines, err, options);
   }
   sigaction(SIGINT, &previous, nullptr);
   host.scheduler().interruptFlagIs(nullptr);
   host.verboseIs(verbose);
   return status;
}

} // namespace Agent
