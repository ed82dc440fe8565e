#include <histedit.h>
#include <langinfo.h>

#include <clocale>
#include <cstdio>
#include <cstring>

#include "orb/line_editor.h"

namespace orb {
namespace {

constexpr int kHistoryLines = 500;

}  // namespace

struct LineEditor::State {
  EditLine* editor = nullptr;
  History* history = nullptr;
  HistEvent event{};
  std::string prompt;
  bool interrupted = false;

  static State& of(EditLine* editor) {
    void* data = nullptr;
    el_get(editor, EL_CLIENTDATA, &data);
    return *static_cast<State*>(data);
  }

  static char* promptOf(EditLine* editor) { return of(editor).prompt.data(); }

  // Bound to Ctrl-C, which reaches the editor as a character.
  static unsigned char interrupt(EditLine* editor, int) {
    of(editor).interrupted = true;
    std::fputs("^C\n", stdout);
    return CC_EOF;
  }
};

LineEditor::LineEditor() : state_(std::make_unique<State>()) {
  // Characters of more than one byte can be edited only under a UTF-8 locale.
  if (std::setlocale(LC_CTYPE, "") == nullptr || std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
  }
  State& s = *state_;
  s.editor = el_init("orb", stdin, stdout, stderr);
  s.history = history_init();
  if (s.editor == nullptr || s.history == nullptr) return;
  history(s.history, &s.event, H_SETSIZE, kHistoryLines);
  history(s.history, &s.event, H_SETUNIQUE, 1);
  el_set(s.editor, EL_CLIENTDATA, &s);
  el_set(s.editor, EL_PROMPT, State::promptOf);
  el_set(s.editor, EL_EDITOR, "emacs");
  el_set(s.editor, EL_SIGNAL, 0);
  el_set(s.editor, EL_HIST, history, s.history);
  el_set(s.editor, EL_ADDFN, "orb-interrupt", "Throw the line away", State::interrupt);
  el_set(s.editor, EL_BIND, "^C", "orb-interrupt", nullptr);
  el_set(s.editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
  // While a line is edited the terminal makes no signal of Ctrl-C.
  el_set(s.editor, EL_SETTY, "-d", "-isig", nullptr);
}

LineEditor::~LineEditor() {
  if (state_->editor != nullptr) el_end(state_->editor);
  if (state_->history != nullptr) history_end(state_->history);
}

const char* LineEditor::endKey() { return "Ctrl-D"; }

LineEditor::Result LineEditor::read(const std::string& prompt, std::string& line) {
  State& s = *state_;
  line.clear();
  if (s.editor == nullptr || s.history == nullptr) return Result::End;
  s.prompt = prompt;
  s.interrupted = false;
  int length = 0;
  const char* text = el_gets(s.editor, &length);
  if (s.interrupted) return Result::Interrupted;
  if (text == nullptr || length <= 0) return Result::End;
  line.assign(text, static_cast<size_t>(length));
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (!line.empty()) history(s.history, &s.event, H_ENTER, line.c_str());
  return Result::Line;
}

}  // namespace orb
