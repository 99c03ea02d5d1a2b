// Edit distances between words. Tested in tests/config/SuggestionTest.cpp.

#include "config/Suggestion.h"

#include <algorithm>

namespace {

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

bool Same(char a, char b) {
  return LowerCase(a) == LowerCase(b);
}

}  // namespace

int EditDistance(std::string_view a, std::string_view b) {
  // Rows of the usual matrix: two rows back, one row back and the one being filled.
  std::vector<int> before(b.size() + 1);
  std::vector<int> above(b.size() + 1);
  std::vector<int> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); j++) above[j] = int(j);
  for (size_t i = 1; i <= a.size(); i++) {
    row[0] = int(i);
    for (size_t j = 1; j <= b.size(); j++) {
      int replaced = above[j - 1] + (Same(a[i - 1], b[j - 1]) ? 0 : 1);
      row[j] = std::min({replaced, above[j] + 1, row[j - 1] + 1});
      if (i > 1 && j > 1 && Same(a[i - 1], b[j - 2]) && Same(a[i - 2], b[j - 1])) {
        row[j] = std::min(row[j], before[j - 2] + 1);
      }
    }
    std::swap(before, above);
    std::swap(above, row);
  }
  return above[b.size()];
}

std::string_view NearestWord(std::string_view word, const std::vector<std::string_view>& known) {
  std::string_view nearest;
  int least = 0;
  for (std::string_view candidate : known) {
    int distance = EditDistance(word, candidate);
    if (nearest.empty() || distance < least) {
      nearest = candidate;
      least = distance;
    }
  }
  return nearest;
}
