#include "src/edge_weights.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>

#include "reference.h"

namespace solvertest {
namespace {

// Colours in [0, 1]; the fourth component is random too, so that a kernel
// reading it disagrees with the reference.
Grid<float4> randomImage(unsigned int w, unsigned int h) {
    Grid<float4> image(w, h);
    for (auto& px : image.data) px = make_float4(uniform(0, 1), uniform(0, 1), uniform(0, 1), uniform(-5, 5));
    return image;
}

template <class T, class Fill>
Grid<T> computed(unsigned int w, unsigned int h, Fill fill) {
    DeviceArray<T, 2> out(seg::deviceArray2D<T>(w, h));
    fill(out.a);
    vela::_CHECK_CUDA_ERROR("edge_weights_test", __LINE__);
    return toHost(out.a);
}

TEST(EdgeWeights, EveryFieldMatchesThePlainLoop) {
    const unsigned int sizes[][2] = {{1, 1}, {1, 5}, {7, 1}, {33, 3}, {40, 7}};
    for (const auto& s : sizes) {
        const unsigned int w = s[0], h = s[1];
        SCOPED_TRACE(std::to_string(w) + " x " + std::to_string(h));
        const Grid<float4> image = randomImage(w, h);
        DeviceArray<float4, 2> dimage(toDevice2(image));
        const Tolerance tol{1e-5f, 2e-5f};

        const Grid<float2> gradient = computed<float2>(w, h, [&](auto& a) { seg::imageGradient(a, dimage.a); });
        EXPECT_TRUE(near(gradient, refGradient(image), tol)) << "gradient";
        DeviceArray<float2, 2> dgradient(toDevice2(gradient));

        EXPECT_TRUE(near(computed<float>(w, h, [&](auto& a) { seg::imageDiffusivity_STD(a, dimage.a); }),
                         refDiffusivitySTD(image), tol))
            << "standard diffusivity";
        EXPECT_TRUE(near(computed<float>(w, h, [&](auto& a) { seg::imageDiffusivity_EXP(a, dimage.a, 3.0f); }),
                         refDiffusivityEXP(image, 3.0f), tol))
            << "exponential diffusivity";

        Grid<float4> wantD;
        Grid<float> wantG;
        refStructureTensor(image, wantD, wantG);
        DeviceArray<float, 2> dg(seg::deviceArray2D<float>(w, h));
        EXPECT_TRUE(near(computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, dimage.a, dg.a); }),
                         wantD, tol))
            << "structure tensor";
        EXPECT_TRUE(near(toHost(dg.a), wantG, tol)) << "structure tensor weights";

        EXPECT_TRUE(near(computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor_exp(a, dgradient.a); }),
                         refReflectionTensor(gradient), tol))
            << "reflection tensor";
        EXPECT_TRUE(near(computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, dgradient.a); }),
                         refGradientTensor(gradient), tol))
            << "tensor from the gradient";
        EXPECT_TRUE(near(computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, dimage.a); }),
                         refImageTensor(image), tol))
            << "tensor from the image";
    }
}

TEST(EdgeWeights, ConstantImageIsFlatEverywhere) {
    const unsigned int w = 35, h = 3;
    DeviceArray<float4, 2> image(toDevice2(Grid<float4>(w, h, 1, make_float4(0.3f, 0.6f, 0.9f, 1.0f))));
    DeviceArray<float2, 2> gradient(seg::deviceArray2D<float2>(w, h));
    seg::imageGradient(gradient.a, image.a);
    DeviceArray<float, 2> g(seg::deviceArray2D<float>(w, h));
    const auto D = computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, image.a, g.a); });
    const auto reflection = computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor_exp(a, gradient.a); });
    const auto fromGradient = computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, gradient.a); });
    const auto fromImage = computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, image.a); });
    const auto standard = computed<float>(w, h, [&](auto& a) { seg::imageDiffusivity_STD(a, image.a); });
    const auto exponential = computed<float>(w, h, [&](auto& a) { seg::imageDiffusivity_EXP(a, image.a, 0.5f); });
    const auto weights = toHost(g.a);
    const auto grad = toHost(gradient.a);
    for (unsigned int i = 0; i < w * h; ++i) {
        ASSERT_EQ(grad.data[i].x, 0.0f);
        ASSERT_EQ(grad.data[i].y, 0.0f);
        ASSERT_FLOAT_EQ(standard.data[i], 1000.0f);
        ASSERT_EQ(exponential.data[i], 1.0f);
        ASSERT_FLOAT_EQ(weights.data[i], 5000.0f);
        const float4 expect[4] = {make_float4(1e-4f, 0, 0, 1 + 1e-4f), make_float4(1, 0, 0, -1),
                                  make_float4(1, 0, 0, 1), make_float4(1, 0, 0, 1)};
        const float4 got[4] = {D.data[i], reflection.data[i], fromGradient.data[i], fromImage.data[i]};
        for (int k = 0; k < 4; ++k) {
            ASSERT_FLOAT_EQ(got[k].x, expect[k].x) << k;
            ASSERT_EQ(got[k].y, 0.0f) << k;
            ASSERT_EQ(got[k].z, 0.0f) << k;
            ASSERT_FLOAT_EQ(got[k].w, expect[k].w) << k;
        }
    }
    const auto picture = computed<uchar4>(w, h, [&](auto& a) { seg::cartesianToRGB(a, gradient.a, 3.5355338f); });
    for (const uchar4& c : picture.data) ASSERT_TRUE(c.x == 0 && c.y == 0 && c.z == 0 && c.w == 255);
}

// Each gradient coloured alone with factor 1.
std::vector<uchar4> wheel(const std::vector<float2>& gradients, float factor = 1.0f) {
    Grid<float2> g(static_cast<unsigned int>(gradients.size()), 1);
    g.data = gradients;
    DeviceArray<float2, 2> dg(toDevice2(g));
    return computed<uchar4>(g.W, 1, [&](auto& a) { seg::cartesianToRGB(a, dg.a, factor); }).data;
}

void expectColour(uchar4 got, int r, int g, int b, const std::string& what) {
    EXPECT_NEAR(got.x, r, 1) << what;
    EXPECT_NEAR(got.y, g, 1) << what;
    EXPECT_NEAR(got.z, b, 1) << what;
    EXPECT_EQ(got.w, 255) << what;
}

TEST(EdgeWeights, ColourWheelSectorsBlendTheirEndColours) {
    const double pi = 3.14159265358979323846;
    struct Sector {
        double start, width;
        int from[3], to[3];
    };
    const Sector sectors[] = {
        {0, pi / 8, {255, 0, 0}, {255, 0, 255}},        {pi / 8, pi / 8, {255, 0, 255}, {64, 64, 255}},
        {pi / 4, pi / 8, {64, 64, 255}, {0, 255, 255}}, {3 * pi / 8, pi / 8, {0, 255, 255}, {0, 255, 0}},
        {pi / 2, pi / 4, {0, 255, 0}, {255, 255, 0}},   {3 * pi / 4, pi / 4, {255, 255, 0}, {255, 0, 0}}};
    for (int s = 0; s < 6; ++s)
        for (double t : {0.25, 0.5, 0.75}) {
            // The hue is half the gradient's angle.
            const double angle = 2 * (sectors[s].start + t * sectors[s].width);
            const uchar4 c =
                wheel({make_float2(static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle)))})[0];
            int want[3];
            for (int k = 0; k < 3; ++k) want[k] = static_cast<int>((1 - t) * sectors[s].from[k] + t * sectors[s].to[k]);
            expectColour(c, want[0], want[1], want[2], "sector " + std::to_string(s) + " at " + std::to_string(t));
        }
    const auto c = wheel({make_float2(0, -1), make_float2(1, 0), make_float2(-1, 0), make_float2(0, 0),
                          make_float2(3, 0), make_float2(0.5f, 0), make_float2(NAN, 1)});
    EXPECT_TRUE(c[0].x == 255 && c[0].y == 255 && c[0].z == 0) << "straight down: 3 pi / 2, yellow";
    expectColour(c[1], 255, 0, 0, "right: red");
    expectColour(c[2], 0, 255, 0, "left: a quarter of the wheel from red, green");
    expectColour(c[3], 0, 0, 0, "zero: black");
    expectColour(c[4], 255, 0, 0, "lengths cap at 1");
    expectColour(c[5], 127, 0, 0, "half length, half brightness");
    expectColour(c[6], 0, 0, 0, "NaN: black");
}

TEST(EdgeWeights, SavedGradientIsTheColourWheelPicture) {
    ScratchDir scratch;
    Grid<float2> gradient(3, 2);
    gradient.data = {make_float2(0.1f, 0), make_float2(0, -0.05f),    make_float2(-0.2f, 0.2f),
                     make_float2(0, 0),    make_float2(0.01f, 0.02f), make_float2(-0.03f, -0.01f)};
    DeviceArray<float2, 2> dg(toDevice2(gradient));
    for (float scale : {0.1f, -2.0f}) {
        seg::saveGradient(dg.a, scale, "gradient.ppm");
        vela::_CHECK_CUDA_ERROR("edge_weights_test", __LINE__);
        const auto colours = wheel(gradient.data, scale >= 0 ? 3.5355338f : 0.35355338f);
        std::string want = "P6 \n3 2 \n255\n";
        for (const uchar4& c : colours)
            want += std::string{static_cast<char>(c.x), static_cast<char>(c.y), static_cast<char>(c.z)};
        EXPECT_EQ(fileBytes("gradient.ppm"), want) << "scale " << scale;
    }
}

TEST(EdgeWeights, ArraysOfDifferentSizesAreRefused) {
    DeviceArray<float4, 2> image(seg::deviceArray2D<float4>(3, 3));
    DeviceArray<float2, 2> gradient(seg::deviceArray2D<float2>(3, 2));
    DeviceArray<float, 2> g(seg::deviceArray2D<float>(3, 3));
    DeviceArray<float4, 2> D(seg::deviceArray2D<float4>(3, 2));
    EXPECT_THROW(seg::imageGradient(gradient.a, image.a), std::runtime_error);
    EXPECT_THROW(seg::compute_Diffusion_tensor(D.a, image.a, g.a), std::runtime_error);
    EXPECT_NO_THROW(seg::compute_Diffusion_tensor_exp(D.a, gradient.a));
}

}  // namespace
}  // namespace solvertest
