#pragma once

#include <KQVisitorCore/Platform/Export.h>

namespace kq {

/// A colour value as a user interface takes it: red, green, blue or hue, saturation,
/// brightness, each with an alpha, every component a fraction from 0 to 1. A colour remembers
/// the model it was made in and converts to the other on request.
class KQ_EXPORT Color {
 public:
  enum class Model { RGB, HSB };

  static Color rgba(double red, double green, double blue, double alpha);
  static Color hsba(double hue, double saturation, double brightness, double alpha);

  [[nodiscard]] Model model() const { return model_; }
  [[nodiscard]] double alpha() const { return alpha_; }

  /// Components in the RGB model (converted from HSB when made there).
  [[nodiscard]] double red() const;
  [[nodiscard]] double green() const;
  [[nodiscard]] double blue() const;

  /// Components in the HSB model (converted from RGB when made there).
  [[nodiscard]] double hue() const;
  [[nodiscard]] double saturation() const;
  [[nodiscard]] double brightness() const;

  friend bool operator==(const Color&, const Color&) = default;

 private:
  Color(Model model, double first, double second, double third, double alpha)
      : model_(model), c1_(first), c2_(second), c3_(third), alpha_(alpha) {}

  struct Triple {
    double a, b, c;
  };
  [[nodiscard]] Triple asRGB() const;
  [[nodiscard]] Triple asHSB() const;

  Model model_;
  double c1_, c2_, c3_;
  double alpha_;
};

}  // namespace kq
