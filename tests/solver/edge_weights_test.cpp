#include "src/solver/edge_weights.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "reference.h"

namespace solvertest {
namespace {

template <class T, class Fill>
Grid<T> computed(unsigned int w, unsigned int h, Fill fill) {
    seg::ScopedArray<T, 2> out(seg::deviceArray2D<T>(w, h));
    fill(out.a);
    vela::_CHECK_CUDA_ERROR("edge_weights_test", __LINE__);
    return toHost(out.a);
}

// Random images (the fourth component too, which no field may read) of odd
// sizes, one so faint that its gradients fall between the thresholds of the
// tensors (1e-6 and 1e-4), and a constant image, on which every field is flat.
TEST(EdgeWeights, EveryFieldMatchesThePlainLoopAndIsFlatOnAConstantImage) {
    const unsigned int sizes[][2] = {{1, 1}, {1, 5}, {7, 1}, {33, 3}, {40, 7}, {29, 4}, {35, 3}};
    for (const auto& s : sizes) {
        const unsigned int w = s[0], h = s[1];
        const bool flat = w == 35, faint = w == 29;
        SCOPED_TRACE(std::to_string(w) + " x " + std::to_string(h));
        const Grid<float4> image = flat ? Grid<float4>(w, h, 1, make_float4(0.3f, 0.6f, 0.9f, 1.0f))
                                        : randomGrid<float4>(w, h, 1, 0.0f, faint ? 1e-5f : 1.0f);
        auto check = [&](const char* what, const auto& got, const auto& want, auto flatValue) {
            EXPECT_TRUE(near(got, want, 1e-5f, 2e-5f)) << what;
            EXPECT_TRUE(!flat || near(got, std::decay_t<decltype(got)>(w, h, 1, flatValue))) << what << ", flat";
        };
        const auto dimage = upload<2>(image);
        const auto gradient = computed<float2>(w, h, [&](auto& a) { seg::imageGradient(a, dimage.a); });
        const auto dgradient = upload<2>(gradient);
        check("gradient", gradient, refGradient(image), make_float2(0, 0));
        check("standard diffusivity", computed<float>(w, h, [&](auto& a) { seg::imageDiffusivity_STD(a, dimage.a); }),
              refDiffusivity(image, 0, 0.0f), 1000.0f);
        check("exponential diffusivity",
              computed<float>(w, h, [&](auto& a) { seg::imageDiffusivity_EXP(a, dimage.a, 3.0f); }),
              refDiffusivity(image, 1, 3.0f), 1.0f);
        Grid<float4> wantD;
        Grid<float> wantG;
        refStructureTensor(image, wantD, wantG);
        seg::ScopedArray<float, 2> g(seg::deviceArray2D<float>(w, h));
        check("structure tensor",
              computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, dimage.a, g.a); }), wantD,
              make_float4(1e-4f, 0, 0, 1 + 1e-4f));
        check("structure tensor weights", toHost(g.a), wantG, 5000.0f);
        check("reflection tensor",
              computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor_exp(a, dgradient.a); }),
              refGradientTensor(gradient, true), make_float4(1, 0, 0, -1));
        check("tensor from the gradient",
              computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, dgradient.a); }),
              refGradientTensor(gradient, false), make_float4(1, 0, 0, 1));
        check("tensor from the image",
              computed<float4>(w, h, [&](auto& a) { seg::compute_Diffusion_tensor(a, dimage.a); }),
              refImageTensor(image), make_float4(1, 0, 0, 1));
    }
}

// Each gradient coloured alone.
std::vector<uchar4> wheel(const std::vector<float2>& gradients, float factor = 1.0f) {
    Grid<float2> g(static_cast<unsigned int>(gradients.size()), 1);
    g.data = gradients;
    const auto dg = upload<2>(g);
    return computed<uchar4>(g.W, 1, [&](auto& a) { seg::cartesianToRGB(a, dg.a, factor); }).data;
}

void expectColour(uchar4 got, int r, int g, int b, const std::string& what) {
    EXPECT_TRUE(std::abs(got.x - r) <= 1 && std::abs(got.y - g) <= 1 && std::abs(got.z - b) <= 1 && got.w == 255)
        << what << ": " << int(got.x) << ", " << int(got.y) << ", " << int(got.z) << ", " << int(got.w);
}

// Six sectors of the hue (half the gradient's angle), each blending the
// colours at its ends; then single directions and lengths.
TEST(EdgeWeights, ColourWheelSectorsBlendTheirEndColours) {
    const double pi = 3.14159265358979323846, ends[] = {0, pi / 8, pi / 4, 3 * pi / 8, pi / 2, 3 * pi / 4, pi};
    const int colour[7][3] = {{255, 0, 0}, {255, 0, 255}, {64, 64, 255}, {0, 255, 255},
                              {0, 255, 0}, {255, 255, 0}, {255, 0, 0}};
    for (int s = 0; s < 6; ++s)
        for (double t : {0.25, 0.5, 0.75}) {
            const double angle = 2 * ((1 - t) * ends[s] + t * ends[s + 1]);
            int want[3];
            for (int k = 0; k < 3; ++k) want[k] = static_cast<int>((1 - t) * colour[s][k] + t * colour[s + 1][k]);
            expectColour(
                wheel({make_float2(static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle)))})[0],
                want[0], want[1], want[2], "sector " + std::to_string(s) + " at " + std::to_string(t));
        }
    const auto c = wheel({make_float2(0, -1), make_float2(1, 0), make_float2(-1, 0), make_float2(0, 0),
                          make_float2(3, 0), make_float2(0.5f, 0), make_float2(NAN, 1)});
    expectColour(c[0], 255, 255, 0, "straight down: 3 pi / 2, yellow");
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
    auto dg = upload<2>(gradient);
    for (float scale : {0.1f, -2.0f}) {
        seg::saveGradient(dg.a, scale, "gradient.ppm");
        vela::_CHECK_CUDA_ERROR("edge_weights_test", __LINE__);
        std::string want = "P6 \n3 2 \n255\n";
        for (const uchar4& c : wheel(gradient.data, scale >= 0 ? 3.5355338f : 0.35355338f))
            want += std::string{static_cast<char>(c.x), static_cast<char>(c.y), static_cast<char>(c.z)};
        EXPECT_EQ(fileBytes("gradient.ppm"), want) << "scale " << scale;
    }
}

TEST(EdgeWeights, ArraysOfDifferentSizesAreRefused) {
    seg::ScopedArray<float4, 2> image(seg::deviceArray2D<float4>(3, 3)), D(seg::deviceArray2D<float4>(3, 2));
    seg::ScopedArray<float2, 2> gradient(seg::deviceArray2D<float2>(3, 2));
    seg::ScopedArray<float, 2> g(seg::deviceArray2D<float>(3, 3));
    EXPECT_THROW(seg::imageGradient(gradient.a, image.a), std::runtime_error);
    EXPECT_THROW(seg::compute_Diffusion_tensor(D.a, image.a, g.a), std::runtime_error);
}

}  // namespace
}  // namespace solvertest
