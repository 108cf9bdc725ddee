// The smallest host of KQVisitorCore: it runs the main queue, as a host application does, and
// prints the library's version once a timer on that queue has fired.

#include <KQVisitorCore/KQVisitorCore.h>

#include <chrono>
#include <iostream>

int main() {
  auto& center = kq::NotificationCenter::defaultCenter();
  center.addObserver("hello", [](const kq::Notification& notification) {
    std::cout << "hello from " << std::any_cast<std::string>(notification.object) << " "
              << KQVisitorCoreVersionNumber << "\n";
  });
  auto timer = kq::Timer::scheduledTimer(
      kq::DispatchQueue::main(), std::chrono::milliseconds(10), false, [](kq::Timer&) {
        kq::NotificationCenter::defaultCenter().post("hello", std::string("KQVisitorCore"));
        kq::DispatchQueue::main()->stop();
      });
  kq::DispatchQueue::main()->run();
  return 0;
}
