// Lines that a user types at a terminal, with editing and a history of this run.
#pragma once

#include <memory>
#include <string>

namespace orb {

// One object at a time; reads the standard input, which must be a terminal.
class LineEditor {
 public:
  enum class Result { Line, Interrupted, End };

  LineEditor();
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // What a user presses to end the input.
  static const char* endKey();

  // The line comes without its newline, and joins the history when it is not empty. Interrupted:
  // Ctrl-C threw the line away; End: endKey() on an empty line or the end of the input.
  Result read(const std::string& prompt, std::string& line);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orb
