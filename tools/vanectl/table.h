// Aligned text tables for vanectl's human output: left-aligned text
// columns, right-aligned numbers, two spaces between columns.
#ifndef VANE_TOOLS_VANECTL_TABLE_H
#define VANE_TOOLS_VANECTL_TABLE_H

#include <string>
#include <vector>

namespace vanectl {

class Table {
 public:
  // A column whose header starts with '<' is left-aligned (the '<' is not
  // shown); the others are right-aligned.
  explicit Table(std::vector<std::string> headers);
  void Row(std::vector<std::string> cells);
  bool empty() const { return rows_.empty(); }
  // Header and rows, each line ending in "\n", no trailing spaces.
  std::string Render() const;

 private:
  std::vector<std::string> headers_;
  std::vector<bool> left_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_TABLE_H
