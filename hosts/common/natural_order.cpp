// The natural order of file names: 2 before 10.
#include <cstring>
#include <string_view>

#include "velostrix/velostrix_host.h"

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Takes the digits at the front, without leading zeros.
std::string_view TakeNumber(std::string_view& text) {
  size_t begin = 0;
  while (begin + 1 < text.size() && text[begin] == '0' && IsDigit(text[begin + 1])) ++begin;
  size_t end = begin;
  while (end < text.size() && IsDigit(text[end])) ++end;
  const std::string_view number = text.substr(begin, end - begin);
  text.remove_prefix(end);
  return number;
}

int Compare(std::string_view a, std::string_view b) {
  while (!a.empty() && !b.empty()) {
    if (IsDigit(a.front()) && IsDigit(b.front())) {
      const std::string_view x = TakeNumber(a);
      const std::string_view y = TakeNumber(b);
      if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
      if (x != y) return x.compare(y);
    } else {
      if (a.front() != b.front()) {
        return static_cast<unsigned char>(a.front()) < static_cast<unsigned char>(b.front()) ? -1
                                                                                             : 1;
      }
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  return a.empty() ? (b.empty() ? 0 : -1) : 1;
}

}  // namespace

int32_t VelostrixCompareNames(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return (a != nullptr ? 1 : 0) - (b != nullptr ? 1 : 0);
  const int order = Compare(a, b);
  return order != 0 ? order : std::strcmp(a, b);  // 1 and 01 differ
}
