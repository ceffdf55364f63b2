// Rendering a labelling as colours and blending it over the input image.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engine_test_util.h"
#include "vela/device/runtime.h"

namespace {

using enginetest::download;
using enginetest::sameColour;
using enginetest::ScopedPDseg;
using enginetest::upload;
using Image = seg::ScopedArray<float4, 2>;
using Labelling = seg::ScopedArray<float, 3>;

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

// 33 x 3 leaves partial 32 x 2 blocks in both directions.
constexpr unsigned int kW = 33, kH = 3;

// A labelling whose pixels all hold `values` (one per label).
Labelling uniformLabelling(const std::vector<float>& values, unsigned int w = kW, unsigned int h = kH) {
    const unsigned int labels = static_cast<unsigned int>(values.size());
    std::vector<float> host(w * h * labels);
    for (unsigned int l = 0; l < labels; ++l) std::fill_n(host.begin() + l * w * h, w * h, values[l]);
    Labelling d(seg::deviceArray3D<float>(w, h, labels));
    vela::arrayCopy(d.a, vela::arrayFromHostMemory(host.data(), make_uint3(w, h, labels)));
    return d;
}

// An object with a cost map of `labels` layers, so that rendering is allowed.
struct Rendering {
    Image image;
    ScopedPDseg s;
    explicit Rendering(unsigned int labels, unsigned int w = kW, unsigned int h = kH)
        : image(upload(std::vector<float4>(w * h, make_float4(100, 80, 60, 200)), w, h)), s(image.a) {
        seg::ScopedArray<float, 2> none(upload(std::vector<float>(w * h, -1.0f), w, h));
        s.labelsToCostMap(none.a, static_cast<int>(labels));
    }
};

void expectEveryPixel(const vela::Array<float4, 2>& a, float4 expected, const char* what) {
    const std::vector<float4> pixels = download(a);
    for (std::size_t p = 0; p < pixels.size(); ++p)
        ASSERT_TRUE(sameColour(pixels[p], expected))
            << what << ": pixel " << p << " is (" << pixels[p].x << ", " << pixels[p].y << ", " << pixels[p].z << ", "
            << pixels[p].w << ")";
}

TEST(Render, HardAndSoftLabellingsWithThePalette) {
    Rendering r(3);
    Labelling hard = uniformLabelling({0, 0, 1});
    r.s.computeColorRepresentation(hard.a, false, true);
    expectEveryPixel(r.s.colorImage, make_float4(10, 10, 255, 0), "label 2");

    Labelling soft = uniformLabelling({0.5f, 0.5f, 0});
    r.s.computeColorRepresentation(soft.a, false, true);
    expectEveryPixel(r.s.colorImage, make_float4(227.5f, 100, 5, 0), "half label 0, half label 1");
}

TEST(Render, ProjectionWorksOnACopy) {
    Rendering r(2);
    Labelling unnormalised = uniformLabelling({2, 0});
    r.s.computeColorRepresentation(unnormalised.a, true, true);
    expectEveryPixel(r.s.colorImage, make_float4(255, 10, 10, 0), "(2, 0) projects onto label 0");
    for (float v : download(unnormalised.a)) ASSERT_TRUE(v == 2.0f || v == 0.0f) << "the labelling was changed";

    Labelling negative = uniformLabelling({-1, 0.5f});
    r.s.computeColorRepresentation(negative.a, true, true);
    expectEveryPixel(r.s.colorImage, make_float4(200, 190, 0, 0), "(-1, 0.5) projects onto label 1");
}

TEST(Render, ProjectionAtFullCapacity) {
    Rendering r(128, 3, 2);
    std::vector<float> values(128, 0.0f);
    values[5] = 3.0f;
    Labelling labelling = uniformLabelling(values, 3, 2);
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(128));
    std::vector<float4> host(128);
    for (int i = 0; i < 128; ++i) host[i] = make_float4(i, 2 * i, 0, 0);
    vela::arrayCopy(colours.a, seg::hostView1D(host.data(), 128));
    r.s.labelColors = colours.a;
    r.s.computeColorRepresentation(labelling.a, true, false);
    r.s.labelColors = vela::Array<float4, 1>{};
    expectEveryPixel(r.s.colorImage, make_float4(5, 10, 0, 0), "label 5 of 128");
}

TEST(Render, LabelColoursFromALabelImage) {
    const unsigned int w = 4, h = 1;
    Image labels(upload(std::vector<float4>{make_float4(0, 0, 0, 0), make_float4(9, 8, 7, 0), make_float4(1, 2, 3, 0),
                                            make_float4(0, 0, 0, 0)},
                        w, h));
    Image image(upload(std::vector<float4>(w * h, make_float4(0, 0, 0, 0)), w, h));
    ScopedPDseg s(image.a);
    testing::internal::CaptureStdout();
    s.labelImageToCostMap(labels.a);
    testing::internal::GetCapturedStdout();
    Labelling second = uniformLabelling({0, 1}, w, h);
    s.computeColorRepresentation(second.a, false, false);
    expectEveryPixel(s.colorImage, make_float4(1, 2, 3, 0), "label 1's colour");
}

TEST(Render, RefusesWithoutCostMapOrEnoughColours) {
    Rendering r(2);
    PDseg& s = r.s;
    Labelling labelling = uniformLabelling({1, 0});
    s.computeColorRepresentation(labelling.a, false, true);
    const std::vector<float4> before = download(s.colorImage);
    testing::internal::CaptureStderr();
    s.nLabels = -1;
    s.computeColorRepresentation(labelling.a, true, true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: PDseg::computeColorRepresentation(): No cost map is given\n");
    const std::vector<float4> after = download(s.colorImage);
    for (std::size_t p = 0; p < before.size(); ++p) ASSERT_TRUE(sameColour(before[p], after[p]));

    s.nLabels = 2;
    Labelling many = uniformLabelling(std::vector<float>(101, 0.0f), 2, 2);
    std::string message = messageOf([&] { s.computeColorRepresentation(many.a, false, true); });
    EXPECT_NE(message.find("101"), std::string::npos) << message;
    EXPECT_NE(message.find("100"), std::string::npos) << message;

    message = messageOf([&] { s.computeColorRepresentation(labelling.a, false, false); });
    EXPECT_NE(message.find("2 labels"), std::string::npos) << "no label colours yet: " << message;

    Labelling tooMany = uniformLabelling(std::vector<float>(129, 0.0f), 1, 1);
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(129));
    s.labelColors = colours.a;
    message = messageOf([&] { s.computeColorRepresentation(tooMany.a, true, false); });
    s.labelColors = vela::Array<float4, 1>{};
    EXPECT_NE(message.find("129"), std::string::npos) << message;
    EXPECT_NE(message.find("128"), std::string::npos) << message;
}

TEST(Render, DeviceErrorsNameTheirSourceLine) {
    Rendering r(2);
    Labelling labelling = uniformLabelling({1, 0});
    vela::device::setLastError(cudaErrorInvalidValue);
    EXPECT_EQ(messageOf([&] { r.s.computeColorRepresentation(labelling.a, false, true); }),
              "src/PDseg:1686: cuda error: invalid argument\n");
    vela::device::setLastError(cudaErrorInvalidValue);
    EXPECT_EQ(messageOf([&] { r.s.getColorImageOverlay(0.4f); }), "src/ImgSeg:55: cuda error: invalid argument\n");
}

TEST(Overlay, BlendsTheColourImageOverTheInput) {
    const unsigned int w = 35, h = 33;
    std::vector<float4> pixels(w * h);
    for (unsigned int p = 0; p < w * h; ++p) pixels[p] = make_float4(p % 256, (3 * p) % 256, 7, 200);
    Image image(upload(pixels, w, h));
    ScopedPDseg s(image.a);
    seg::ScopedArray<float, 2> none(upload(std::vector<float>(w * h, -1.0f), w, h));
    s.labelsToCostMap(none.a, 3);
    Labelling labelling = uniformLabelling({0.25f, 0.75f, 0}, w, h);
    s.computeColorRepresentation(labelling.a, false, true);
    const std::vector<float4> colours = download(s.colorImage);

    for (float alpha : {0.0f, 0.4f, 1.0f}) {
        vela::Array<float4, 2>& out = s.getColorImageOverlay(alpha);
        EXPECT_EQ(out.data, s.overlayImage.data);
        const std::vector<float4> blended = download(out);
        for (unsigned int p = 0; p < w * h; ++p) {
            const float4 c = colours[p], i = pixels[p];
            const float keep = 1.0f - alpha;
            const float4 expected = make_float4(std::fma(alpha, c.x, keep * i.x), std::fma(alpha, c.y, keep * i.y),
                                                std::fma(alpha, c.z, keep * i.z), std::fma(alpha, c.w, keep * i.w));
            ASSERT_TRUE(sameColour(blended[p], expected)) << "alpha " << alpha << " pixel " << p;
            if (alpha == 0.0f) {
                ASSERT_TRUE(sameColour(blended[p], i));
            }
            if (alpha == 1.0f) {
                ASSERT_TRUE(sameColour(blended[p], c));
            }
        }
    }
}

}  // namespace
