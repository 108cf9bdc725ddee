#include <KQVisitorCore/Platform/Localization.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <memory>

namespace kq {
namespace {

using Table = std::map<std::string, std::string>;

struct Installed {
  std::shared_ptr<const Table> table = std::make_shared<const Table>();
};

Guarded<Installed>& installed() {
  static Guarded<Installed> installed;
  return installed;
}

}  // namespace

std::string localizedString(const std::string& key) {
  const std::shared_ptr<const Table> table = installed().get(&Installed::table);
  const auto found = table->find(key);
  return found == table->end() ? key : found->second;
}

void setLocalizationTable(std::map<std::string, std::string> table) {
  installed().set(&Installed::table,
                  std::shared_ptr<const Table>(std::make_shared<const Table>(std::move(table))));
}

}  // namespace kq
