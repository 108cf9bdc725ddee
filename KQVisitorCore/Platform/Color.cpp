#include <KQVisitorCore/Platform/Color.h>

#include <algorithm>
#include <cmath>

namespace kq {

Color Color::rgba(double red, double green, double blue, double alpha) {
  return Color(Model::RGB, red, green, blue, alpha);
}

Color Color::hsba(double hue, double saturation, double brightness, double alpha) {
  return Color(Model::HSB, hue, saturation, brightness, alpha);
}

double Color::red() const {
  return asRGB().a;
}
double Color::green() const {
  return asRGB().b;
}
double Color::blue() const {
  return asRGB().c;
}
double Color::hue() const {
  return asHSB().a;
}
double Color::saturation() const {
  return asHSB().b;
}
double Color::brightness() const {
  return asHSB().c;
}

Color::Triple Color::asRGB() const {
  if (model_ == Model::RGB) {
    return {c1_, c2_, c3_};
  }
  const double h = (c1_ - std::floor(c1_)) * 6.0;
  const double s = c2_;
  const double v = c3_;
  const int sector = static_cast<int>(h) % 6;
  const double f = h - std::floor(h);
  const double p = v * (1 - s);
  const double q = v * (1 - s * f);
  const double t = v * (1 - s * (1 - f));
  switch (sector) {
    case 0: return {v, t, p};
    case 1: return {q, v, p};
    case 2: return {p, v, t};
    case 3: return {p, q, v};
    case 4: return {t, p, v};
    default: return {v, p, q};
  }
}

Color::Triple Color::asHSB() const {
  if (model_ == Model::HSB) {
    return {c1_, c2_, c3_};
  }
  const double maximum = std::max({c1_, c2_, c3_});
  const double minimum = std::min({c1_, c2_, c3_});
  const double delta = maximum - minimum;
  double hue = 0;
  if (delta > 0) {
    if (maximum == c1_) {
      hue = std::fmod((c2_ - c3_) / delta, 6.0);
    } else if (maximum == c2_) {
      hue = (c3_ - c1_) / delta + 2.0;
    } else {
      hue = (c1_ - c2_) / delta + 4.0;
    }
    hue /= 6.0;
    if (hue < 0) {
      hue += 1.0;
    }
  }
  return {hue, maximum > 0 ? delta / maximum : 0.0, maximum};
}

}  // namespace kq
