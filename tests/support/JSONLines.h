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

/// The events of `all` whose "event" is `name`, in order.
inline std::vector<nlohmann::ordered_json> named(const std::vector<nlohmann::ordered_json>& all,
                                                 const std::string& name) {
  std::vector<nlohmann::ordered_json> found;
  for (const auto& event : all) {
    if (event["event"] == name) {
      found.push_back(event);
    }
  }
  return found;
}

}  // namespace kq::test
