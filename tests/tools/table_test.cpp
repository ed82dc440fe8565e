#include "orb/table.h"

#include <gtest/gtest.h>

namespace orb {
namespace {

TEST(TableTest, ColumnsAreAsWideAsTheirCells) {
  Table table({{"NAME"}, {"BYTES", Table::Align::Right}, {"NOTE"}});
  table.addRow({"a", "1000", "x"});
  table.addRow({"longer name", "7"});
  EXPECT_EQ(table.text(),
            "NAME         BYTES  NOTE\n"
            "a             1000  x\n"
            "longer name      7\n");
}

TEST(TableTest, WithoutTitlesThereIsNoHeading) {
  Table table({{""}, {""}});
  table.addRow({"a", "b"});
  EXPECT_EQ(table.text("  "), "  a  b\n");
}

TEST(TableTest, CharactersCountNotBytes) {
  Table table({{"A"}, {"B"}});
  table.addRow({"\u4F60\u4F60", "x"});
  table.addRow({"ab", "y"});
  EXPECT_EQ(table.text(), "A   B\n\u4F60\u4F60  x\nab  y\n");
}

TEST(TableTest, CellsBeyondTheColumnsAreNotPrinted) {
  Table table({{"A"}});
  table.addRow({"a", "b"});
  EXPECT_EQ(table.text(), "A\na\n");
}

}  // namespace
}  // namespace orb
