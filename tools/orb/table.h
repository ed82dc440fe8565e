// A table of text, its columns as wide as their cells.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orb {

class Table {
 public:
  enum class Align { Left, Right };

  struct Column {
    std::string title;
    Align align = Align::Left;
  };

  // A table without any title has no heading line.
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // Missing cells are empty; cells beyond the columns are not printed.
  void addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

  // The lines, each ended by a newline and begun with `indent`; no spaces at line ends.
  std::string text(const std::string& indent = "") const;

 private:
  std::vector<size_t> widths() const;
  void appendLine(const std::vector<std::string>& cells, const std::vector<size_t>& widths,
                  const std::string& indent, std::string& out) const;

  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace orb
