#pragma once

// How a date travels in the JSON parameters of a service request: as the text of
// Date::description() ("2026-11-15 00:05:52 +0000", UTC, whole seconds), a JSON string. So
// {"parD", date} reads the same in a GET query and in a POST body, and the service receives
// the platform's default text of a date in both.

#include <KQVisitorCore/Platform/Date.h>

namespace kq {

/// Lets nlohmann::json and ordered_json take a Date: `parameters["parD"] = Date::now();`.
template <class BasicJsonType>
void to_json(BasicJsonType& json, const Date& date) {
  json = date.description();
}

}  // namespace kq
