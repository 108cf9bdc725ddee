#pragma once

#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <vector>

namespace kq::test {

/// The JSON objects of output written one a line, in order.
inline std::vector<nlohmann::ordered_json> jsonLines(const std::string& out) {
  std::vector<nlohmann::ordered_json> lines;
  std::istringstream stream(out);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(nlohmann::ordered_json::parse(line));
  }
  return lines;
}

}  // namespace kq::test
