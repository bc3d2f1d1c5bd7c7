#include "reference/server/http/HttpMessage.h"

#include <algorithm>
#include <cctype>

namespace zolvani::refserver {

bool CaseInsensitiveLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) <
           std::tolower(static_cast<unsigned char>(y));
  });
}

std::string Request::header(std::string_view name, size_t index) const {
  auto [first, last] = headers.equal_range(name);
  for (; first != last; ++first, --index) {
    if (index == 0) return first->second;
  }
  return std::string();
}

size_t Request::headerCount(std::string_view name) const {
  auto [first, last] = headers.equal_range(name);
  return static_cast<size_t>(std::distance(first, last));
}

void Response::ReplaceHeader(const std::string& name, std::string value) {
  const CaseInsensitiveLess less;
  std::erase_if(headers,
                [&](const auto& h) { return !less(h.first, name) && !less(name, h.first); });
  headers.emplace_back(name, std::move(value));
}

std::string Response::header(std::string_view name) const {
  const CaseInsensitiveLess less;
  for (const auto& [n, v] : headers) {
    if (!less(n, name) && !less(name, n)) return v;
  }
  return std::string();
}

std::string PercentDecode(std::string_view text, bool plusIsSpace) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      const int hi = hex(text[i + 1]);
      const int lo = hex(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
        continue;
      }
    }
    out += (plusIsSpace && c == '+') ? ' ' : c;
  }
  return out;
}

}  // namespace zolvani::refserver
