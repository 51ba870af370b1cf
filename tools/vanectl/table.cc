// Aligned text tables (see table.h).
#include "table.h"

#include <algorithm>

namespace vanectl {

Table::Table(std::vector<std::string> headers) : headers_(std::move(headers)) {
  for (std::string& h : headers_) {
    const bool left = !h.empty() && h.front() == '<';
    if (left) {
      h.erase(0, 1);
    }
    left_.push_back(left);
  }
}

void Table::Row(std::vector<std::string> cells) {
  cells.resize(headers_.size());
  rows_.push_back(std::move(cells));
}

std::string Table::Render() const {
  std::vector<size_t> width(headers_.size());
  for (size_t c = 0; c < headers_.size(); ++c) {
    width[c] = headers_[c].size();
    for (const auto& r : rows_) {
      width[c] = std::max(width[c], r[c].size());
    }
  }
  std::string out;
  auto line = [&](const std::vector<std::string>& cells) {
    std::string l;
    for (size_t c = 0; c < cells.size(); ++c) {
      const std::string pad(width[c] - cells[c].size(), ' ');
      if (c > 0) {
        l += "  ";
      }
      l += left_[c] ? cells[c] + pad : pad + cells[c];
    }
    l.erase(l.find_last_not_of(' ') + 1);
    out += l + "\n";
  };
  line(headers_);
  for (const auto& r : rows_) {
    line(r);
  }
  return out;
}

}  // namespace vanectl
