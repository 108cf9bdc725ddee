#include <KQVisitorCore/Platform/HTTPHeaderFields.h>

#include <strings.h>
#include <algorithm>

namespace kq {
namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

void HTTPHeaderFields::setValue(std::string value, std::string_view field) {
  const auto first = std::find_if(fields_.begin(), fields_.end(), [&](const Field& existing) {
    return sameName(existing.first, field);
  });
  if (first == fields_.end()) {
    fields_.emplace_back(std::string(field), std::move(value));
    return;
  }
  first->second = std::move(value);
  fields_.erase(
      std::remove_if(std::next(first), fields_.end(),
                     [&](const Field& existing) { return sameName(existing.first, field); }),
      fields_.end());
}

void HTTPHeaderFields::addValue(std::string value, std::string field) {
  fields_.emplace_back(std::move(field), std::move(value));
}

std::optional<std::string> HTTPHeaderFields::valueForHTTPHeaderField(std::string_view field) const {
  for (const auto& [name, value] : fields_) {
    if (sameName(name, field)) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace kq
