#pragma once

#include <KQVisitorCore/Platform/Color.h>
#include <KQVisitorCore/Platform/Export.h>

#include <cstdint>
#include <functional>

namespace kq {

/// The library's colours for the host's chat screens.
class KQ_EXPORT ColorKQVisitor {
 public:
  /// The brand colour, #4370C6, opaque.
  static Color kqBrandColor();
  /// The navigation bar colour, #0011A0, opaque.
  static Color navbarColor();

  /// A random, fairly saturated and bright colour from three 32-bit draws of the system's
  /// cryptographic-quality generator: hue (first & 255) / 256, saturation and brightness
  /// (draw & 127) / 256 + 0.5, opaque. Saturation and brightness stay within [0.5, 1).
  static Color randomColor();

  /// randomColor() with the three draws taken from `draw`, in the order hue, saturation,
  /// brightness.
  static Color randomColor(const std::function<std::uint32_t()>& draw);
};

}  // namespace kq
