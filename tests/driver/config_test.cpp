#include "src/driver/config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <utility>
#include <vector>

#include "tests/support/scratch_folder.h"

namespace {

using testsupport::ScratchFolder;

TEST(Config, ReadsEntriesCommentsAndTheLastValueOfAKey) {
    ScratchFolder folder("config");
    ConfigMap config = loadConfigINI(folder.write("cfg",
                                                  "#folders\n"
                                                  "s dataDir /data/seq1   # a comment after an entry\n"
                                                  "s tracksDir -\n"
                                                  "imaxiter 100\n"
                                                  "f lambda 2.5\n"
                                                  "f lambda 10.0 # the second value wins\n"
                                                  "c mode x\n"
                                                  "   # indented comment\n"
                                                  "i maxiter 2000"));  // no newline at the end
    EXPECT_EQ(config.size(), 5u);
    EXPECT_EQ(config["dataDir"].type, 's');
    EXPECT_EQ(config["dataDir"].text, "/data/seq1");
    EXPECT_EQ(config["tracksDir"].text, "-");
    EXPECT_EQ(config["maxiter"].type, 'i');
    EXPECT_EQ(config["maxiter"].intValue(), 2000);
    EXPECT_EQ(config["lambda"].floatValue(), 10.0f);
    EXPECT_EQ(config["mode"].charValue(), 'x');
    // Absent keys read as zero and empty text.
    EXPECT_TRUE(config["absent"].type == 0 && config["absent"].floatValue() == 0.0f && config["absent"].text.empty());
    EXPECT_TRUE(loadConfigINI(folder.write("comments", "# only a comment\n\n#and another")).empty());
}

TEST(Config, EveryRecordCarriesTheOtherKindOfTheLineBefore) {
    ScratchFolder folder("config");
    ConfigMap config =
        loadConfigINI(folder.write("cfg", "s dataDir images\ni maxiter 100\ns resultDir out\nc mode z\n"));
    // The number slot starts at 0 and the text empty.
    EXPECT_EQ(config["dataDir"].number, 0u);
    // An 'i' line after an 's' line keeps that text ...
    EXPECT_EQ(config["maxiter"].text, "images");
    // ... and an 's' line keeps the number of the last numeric line.
    EXPECT_EQ(config["resultDir"].intValue(), 100);
    // A 'c' line sets only the lowest byte of the slot.
    EXPECT_EQ(config["mode"].number, (100u & ~0xFFu) | static_cast<unsigned char>('z'));
    EXPECT_EQ(config["mode"].text, "out");
}

TEST(Config, ParsingReportsTheFaultWithoutEndingTheProcess) {
    ScratchFolder folder("config");
    ConfigMap config;
    std::string error;
    EXPECT_FALSE(parseConfigINI(folder.write("cfg", "s dataDir x\ni maxiter ten\n"), config, error));
    EXPECT_EQ(error, "configuration file " + (folder / "cfg") +
                         ": entry 2 (key \"maxiter\") has no readable value of type 'i'");
    EXPECT_EQ(config.size(), 1u);
}

// The format line goes to standard output; the death test watches standard
// error, so the child sends both there.
void loadWithStdoutOnStderr(const std::string& path) {
    std::fflush(stdout);
    ::dup2(2, 1);
    loadConfigINI(path);
}

TEST(ConfigDeath, BadEntriesAndMissingFilesEndWithStatus255) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* const formatLine = "Input Format- <i\\|f\\|c\\|s> <key> <value>, use # for comments";
    // Static, so that the exit in each death test's child removes the child's copy.
    static const ScratchFolder folder("config-death");
    std::vector<std::pair<std::string, const char*>> cases = {{folder / "absent", "absent"},
                                                              {folder.str(), formatLine}};
    for (const char* contents : {"s dataDir x\nx maxiter 10\n", "i maxiter abc\n", "f lambda ten\n",
                                 "i maxiter 99999999999\n", "i maxiter\n", "s dataDir\n", "i\n", "i maxiter 1.5\n"})
        cases.emplace_back(folder.write("cfg" + std::to_string(cases.size()), contents), formatLine);
    for (const auto& [path, pattern] : cases)
        EXPECT_EXIT(loadWithStdoutOnStderr(path), testing::ExitedWithCode(255), pattern) << testsupport::readFile(path);
}

}  // namespace
