#pragma once

#include <KQVisitorCore/Platform/Export.h>

namespace kq {

/// A colour value as a user interface takes it: red, green, blue or hue, saturation,
/// brightness, each with an alpha, every component a fraction from 0 to 1. A colour remembers
/// the model it was made in and converts to the other on request.
class KQ_EXPORT Color {
 public:
  /// The colour model a colour was made in.
  enum class Model {
    RGB,  ///< red, green, blue
    HSB   ///< hue, saturation, brightness
  };

  /// A colour made from red, green and blue, with `alpha`; the values are kept as given.
  static Color rgba(double red, double green, double blue, double alpha);
  /// A colour made from hue, saturation and brightness, with `alpha`; the values are kept as
  /// given.
  static Color hsba(double hue, double saturation, double brightness, double alpha);

  /// The model the colour was made in.
  [[nodiscard]] Model model() const { return model_; }
  /// The opacity, as made (the same in either model).
  [[nodiscard]] double alpha() const { return alpha_; }

  /// The red component in the RGB model (converted from HSB when made there).
  [[nodiscard]] double red() const;
  /// The green component in the RGB model (converted from HSB when made there).
  [[nodiscard]] double green() const;
  /// The blue component in the RGB model (converted from HSB when made there).
  [[nodiscard]] double blue() const;

  /// The hue in the HSB model (converted from RGB when made there).
  [[nodiscard]] double hue() const;
  /// The saturation in the HSB model (converted from RGB when made there).
  [[nodiscard]] double saturation() const;
  /// The brightness in the HSB model (converted from RGB when made there).
  [[nodiscard]] double brightness() const;

  /// True when both were made in the same model with the same components and alpha; a colour
  /// made in RGB never equals one made in HSB.
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
