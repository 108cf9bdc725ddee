#include <KQVisitorCore/Utilities/ColorKQVisitor.h>

#include <cstdlib>

namespace kq {

Color ColorKQVisitor::kqBrandColor() {
  return Color::rgba(67 / 255.0, 112 / 255.0, 198 / 255.0, 1.0);
}

Color ColorKQVisitor::navbarColor() {
  return Color::rgba(0, 17 / 255.0, 160 / 255.0, 1.0);
}

Color ColorKQVisitor::randomColor() {
  return randomColor([] { return static_cast<std::uint32_t>(arc4random()); });
}

Color ColorKQVisitor::randomColor(const std::function<std::uint32_t()>& draw) {
  // Three separate statements: the draws must happen in this order.
  const double hue = (draw() & 255U) / 256.0;
  const double saturation = (draw() & 127U) / 256.0 + 0.5;
  const double brightness = (draw() & 127U) / 256.0 + 0.5;
  return Color::hsba(hue, saturation, brightness, 1.0);
}

}  // namespace kq
