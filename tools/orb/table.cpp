#include "orb/table.h"

#include <algorithm>

namespace orb {
namespace {

constexpr size_t kGap = 2;

// Characters of a UTF-8 string, taken for columns of the terminal.
size_t width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

std::vector<size_t> Table::widths() const {
  std::vector<size_t> result;
  for (size_t i = 0; i < columns_.size(); ++i) {
    size_t widest = width(columns_[i].title);
    for (const auto& row : rows_) {
      if (i < row.size()) widest = std::max(widest, width(row[i]));
    }
    result.push_back(widest);
  }
  return result;
}

void Table::appendLine(const std::vector<std::string>& cells, const std::vector<size_t>& widths,
                       const std::string& indent, std::string& out) const {
  std::string line = indent;
  for (size_t i = 0; i < columns_.size(); ++i) {
    const std::string cell = i < cells.size() ? cells[i] : std::string();
    const std::string fill(widths[i] - width(cell), ' ');
    line += columns_[i].align == Align::Right ? fill + cell : cell + fill;
    line.append(kGap, ' ');
  }
  line.erase(line.find_last_not_of(' ') + 1);
  out += line + '\n';
}

std::string Table::text(const std::string& indent) const {
  const std::vector<size_t> columnWidths = widths();
  std::vector<std::string> titles;
  for (const Column& column : columns_) titles.push_back(column.title);
  std::string out;
  if (std::any_of(titles.begin(), titles.end(), [](const auto& t) { return !t.empty(); })) {
    appendLine(titles, columnWidths, indent, out);
  }
  for (const auto& row : rows_) appendLine(row, columnWidths, indent, out);
  return out;
}

}  // namespace orb
