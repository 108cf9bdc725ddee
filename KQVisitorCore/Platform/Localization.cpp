#include <KQVisitorCore/Platform/Localization.h>

#include <memory>
#include <mutex>

namespace kq {
namespace {

using Table = std::map<std::string, std::string>;

std::mutex& tableMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<const Table>& installedTable() {
  static std::shared_ptr<const Table> table = std::make_shared<const Table>();
  return table;
}

}  // namespace

std::string localizedString(const std::string& key) {
  std::shared_ptr<const Table> table;
  {
    std::scoped_lock lock(tableMutex());
    table = installedTable();
  }
  const auto found = table->find(key);
  return found == table->end() ? key : found->second;
}

void setLocalizationTable(std::map<std::string, std::string> table) {
  auto replacement = std::make_shared<const Table>(std::move(table));
  std::scoped_lock lock(tableMutex());
  installedTable() = std::move(replacement);
}

}  // namespace kq
