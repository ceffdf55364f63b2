// The solver settings the configuration file sets.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/driver/settings_file.h"
#include "tests/support/scratch_folder.h"

namespace {

using testsupport::ScratchFolder;

bool read(const std::string& contents, SegmentationSettings& settings, std::string& error) {
    static const ScratchFolder folder("settings");
    ConfigMap config = loadConfigINI(folder.write("cfg", contents));
    return readSegmentationSettings(config, settings, error);
}

TEST(Settings, AbsentKeysKeepTheDefaultsAndEveryKeyIsRead) {
    SegmentationSettings s;
    std::string error;
    ASSERT_TRUE(read("s dataDir d\n", s, error)) << error;
    EXPECT_TRUE(s.lambda == 0.0f && s.maxiter == 0 && s.model == 1 && s.diffusivity == 0 && s.alpha == 0.5f &&
                s.dataTerm == DataTerm::SEEDS);

    // lambda and maxiter are read as they always were, whatever the letter.
    ASSERT_TRUE(read("i lambda 1065353216\nf maxiter 0\n", s, error)) << error;
    EXPECT_TRUE(s.lambda == 1.0f && s.maxiter == 0);

    ASSERT_TRUE(
        read("f lambda 100\ni maxiter 500\ni model 4\ni diffusivity 1\nf alpha 2\ns dataTerm walker\n"
             "f dataWeight 1.5\nf walkerBeta 250\ni walkerIterations 30\nf walkerTolerance 0.01\n"
             "i seedCheckRadius 12\nf seedCheckShare 0.5\nf seedCheckBeta 20\n"
             "f seedCheckFit 0.4\nf colourWeight 1.5\nf solverTolerance 0.001\ni costFilterRadius 6\n"
             "f costFilterEpsilon 0.01\nf lambdaSeedDensity 0.003\ni temporal 1\nf temporalWeight 0.5\n"
             "f temporalWalkerTolerance 0.01\ni temporalWalkerRadius 6\nf temporalMotionWeight 2\ni holdSeeds 1\n",
             s, error))
        << error;
    EXPECT_TRUE(s.lambda == 100.0f && s.maxiter == 500 && s.model == 4 && s.diffusivity == 1 && s.alpha == 2.0f &&
                s.dataTerm == DataTerm::WALKER && s.dataWeight == 1.5f && s.walkerBeta == 250.0f &&
                s.walkerIterations == 30 && s.walkerTolerance == 0.01f && s.seedCheckRadius == 12 &&
                s.seedCheckShare == 0.5f && s.seedCheckBeta == 20.0f && s.seedCheckFit == 0.4f &&
                s.colourWeight == 1.5f && s.solverTolerance == 0.001f && s.edgeWeights == EdgeWeights::DIFFUSIVITY &&
                s.costFilterRadius == 6 && s.costFilterEpsilon == 0.01f && s.lambdaSeedDensity == 0.003f &&
                s.temporal == 1 && s.temporalWeight == 0.5f && s.temporalWalkerTolerance == 0.01f &&
                s.temporalWalkerRadius == 6 && s.temporalMotionWeight == 2.0f && s.holdSeeds == 1);
    ASSERT_TRUE(read("i model 1\ns edgeWeights contrast\n", s, error)) << error;
    EXPECT_EQ(s.edgeWeights, EdgeWeights::CONTRAST);
}

TEST(Settings, ABadValueNamesItsKeyAndLeavesTheSettingsAlone) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"i model 5\n", "configuration key \"model\": expected \"i model <n>\" with n from 0 to 4, got \"i model 5\""},
        {"f model 1\n", "key \"model\""},
        {"i diffusivity -1\n", "key \"diffusivity\""},
        {"f alpha 0\n", "key \"alpha\""},
        {"s dataTerm colour\n",
         "configuration key \"dataTerm\": expected \"s dataTerm seeds\" or \"s dataTerm walker\", got \"s dataTerm "
         "colour\""},
        {"i dataTerm 1\n", "key \"dataTerm\""},
        {"f dataWeight -1\n", "key \"dataWeight\""},
        {"i walkerBeta 500\n", "key \"walkerBeta\""},
        {"i walkerIterations -3\n", "key \"walkerIterations\""},
        {"f walkerTolerance 2\n", "key \"walkerTolerance\""},
        {"i seedCheckRadius 101\n", "key \"seedCheckRadius\""},
        {"f seedCheckShare 1.5\n", "key \"seedCheckShare\""},
        {"f seedCheckFit 1.5\n", "key \"seedCheckFit\""},
        {"f colourWeight -1\n", "key \"colourWeight\""},
        {"f solverTolerance 2\n", "key \"solverTolerance\""},
        {"s edgeWeights sharp\n", "key \"edgeWeights\""},
        {"i costFilterRadius 101\n", "key \"costFilterRadius\""},
        {"f costFilterEpsilon 0\n", "key \"costFilterEpsilon\""},
        {"f lambdaSeedDensity 2\n", "key \"lambdaSeedDensity\""},
        {"i temporal 2\n", "key \"temporal\""},
        {"f temporalWeight -0.1\n", "key \"temporalWeight\""},
        {"f temporalMotionWeight -1\n", "key \"temporalMotionWeight\""},
        {"f temporalWalkerTolerance 2\n", "key \"temporalWalkerTolerance\""},
        {"i temporalWalkerRadius -1\n", "key \"temporalWalkerRadius\""},
        {"i holdSeeds 2\n", "key \"holdSeeds\""},
        // The fused model 2 has no per-edge form.
        {"s edgeWeights contrast\n",
         "configuration key \"edgeWeights\": expected \"s edgeWeights contrast\" with model 1 (\"i model 1\"), got "
         "\"s edgeWeights contrast\""},
    };
    for (const auto& [contents, message] : cases) {
        SegmentationSettings s;
        s.model = 3;
        std::string error;
        EXPECT_FALSE(read("i model 2\n" + contents, s, error)) << contents;
        EXPECT_NE(error.find(message), std::string::npos) << error;
        EXPECT_EQ(s.model, 3) << contents;
    }
}

}  // namespace
