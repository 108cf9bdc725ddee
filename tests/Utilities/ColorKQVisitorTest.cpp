#include <KQVisitorCore/Utilities/ColorKQVisitor.h>

#include <gtest/gtest.h>

#include <vector>

namespace kq {
namespace {

TEST(ColorKQVisitorTest, BrandColoursHaveTheirExactComponentsAndModelsConvertBothWays) {
  const Color brand = ColorKQVisitor::kqBrandColor();
  EXPECT_DOUBLE_EQ(brand.red(), 0.2627450980392157);
  EXPECT_DOUBLE_EQ(brand.green(), 0.4392156862745098);
  EXPECT_DOUBLE_EQ(brand.blue(), 0.7764705882352941);
  EXPECT_DOUBLE_EQ(brand.alpha(), 1.0);
  const Color navbar = ColorKQVisitor::navbarColor();
  EXPECT_DOUBLE_EQ(navbar.red(), 0.0);
  EXPECT_DOUBLE_EQ(navbar.green(), 0.06666666666666667);
  EXPECT_DOUBLE_EQ(navbar.blue(), 0.6274509803921569);

  const Color orange = Color::hsba(30 / 360.0, 1.0, 1.0, 1.0);
  EXPECT_DOUBLE_EQ(orange.red(), 1.0);
  EXPECT_DOUBLE_EQ(orange.green(), 0.5);
  EXPECT_DOUBLE_EQ(orange.blue(), 0.0);
  const Color back = Color::hsba(brand.hue(), brand.saturation(), brand.brightness(), 1.0);
  EXPECT_NEAR(back.red(), brand.red(), 1e-12);
  EXPECT_NEAR(back.green(), brand.green(), 1e-12);
  EXPECT_NEAR(back.blue(), brand.blue(), 1e-12);
}

// Hue, saturation and brightness come from three draws in that order, each masked to a byte
// and divided by 256 (so hue never reaches 1, the others stay in [0.5, 1)).
TEST(ColorKQVisitorTest, RandomColoursMapTheThreeDrawsInOrderAndStayBrightAndSaturated) {
  const std::vector<std::uint32_t> draws = {0xFFFFFFFFU, 0xFFFFFFFFU, 0xFFFFFFFFU,
                                            0x100U + 3,  0x80U + 5,   7};
  size_t next = 0;
  const Color top = ColorKQVisitor::randomColor([&] { return draws[next++]; });
  EXPECT_EQ(top.model(), Color::Model::HSB);
  EXPECT_DOUBLE_EQ(top.hue(), 255 / 256.0);
  EXPECT_DOUBLE_EQ(top.saturation(), 0.99609375);
  EXPECT_DOUBLE_EQ(top.brightness(), 0.99609375);
  EXPECT_DOUBLE_EQ(top.alpha(), 1.0);
  const Color mixed = ColorKQVisitor::randomColor([&] { return draws[next++]; });
  EXPECT_DOUBLE_EQ(mixed.hue(), 3 / 256.0);
  EXPECT_DOUBLE_EQ(mixed.saturation(), 5 / 256.0 + 0.5);
  EXPECT_DOUBLE_EQ(mixed.brightness(), 7 / 256.0 + 0.5);

  // Without a generator of its own, the system's: within the same bounds.
  const Color drawn = ColorKQVisitor::randomColor();
  EXPECT_TRUE(drawn.hue() >= 0 && drawn.hue() < 1 && drawn.saturation() >= 0.5 &&
              drawn.saturation() < 1 && drawn.brightness() >= 0.5 && drawn.brightness() < 1);
}

}  // namespace
}  // namespace kq
