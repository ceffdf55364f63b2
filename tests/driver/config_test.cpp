#include "src/config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "tests/driver/test_files.h"

namespace {

using driver_test::ScratchFolder;

TEST(Config, ReadsEntriesCommentsAndTheLastValueOfAKey) {
    ScratchFolder folder("config");
    const std::string path = folder.write("cfg",
                                          "#folders\n"
                                          "s dataDir /data/seq1   # a comment after an entry\n"
                                          "s tracksDir -\n"
                                          "imaxiter 100\n"
                                          "f lambda 2.5\n"
                                          "f lambda 10.0 # the second value wins\n"
                                          "c mode x\n"
                                          "   # indented comment\n"
                                          "i maxiter 2000");  // no newline at the end
    ConfigMap config = loadConfigINI(path);
    EXPECT_EQ(config.size(), 5u);
    EXPECT_EQ(config["dataDir"].type, 's');
    EXPECT_EQ(config["dataDir"].key, "dataDir");
    EXPECT_EQ(config["dataDir"].text, "/data/seq1");
    EXPECT_EQ(config["tracksDir"].text, "-");
    EXPECT_EQ(config["maxiter"].type, 'i');
    EXPECT_EQ(config["maxiter"].intValue(), 2000);
    EXPECT_EQ(config["lambda"].type, 'f');
    EXPECT_EQ(config["lambda"].floatValue(), 10.0f);
    EXPECT_EQ(config["mode"].charValue(), 'x');
}

TEST(Config, EveryRecordCarriesTheOtherKindOfTheLineBefore) {
    ScratchFolder folder("config");
    ConfigMap config = loadConfigINI(folder.write("cfg",
                                                  "s dataDir images\n"
                                                  "i maxiter 100\n"
                                                  "s resultDir out\n"
                                                  "c mode z\n"));
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

TEST(Config, OnlyCommentsGiveNoKeysAndAbsentKeysReadAsZero) {
    ScratchFolder folder("config");
    ConfigMap config = loadConfigINI(folder.write("cfg", "# only a comment\n\n#and another"));
    EXPECT_TRUE(config.empty());
    EXPECT_EQ(config["lambda"].type, 0);
    EXPECT_EQ(config["lambda"].floatValue(), 0.0f);
    EXPECT_EQ(config["maxiter"].intValue(), 0);
    EXPECT_EQ(config["dataDir"].text, "");
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

const char* const kFormatLine = "Input Format- <i\\|f\\|c\\|s> <key> <value>, use # for comments";

class ConfigDeath : public testing::Test {
 protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    ScratchFolder folder{"config-death"};
};

TEST_F(ConfigDeath, UnknownTypeLetterEndsWithStatus255) {
    const std::string path = folder.write("cfg", "s dataDir x\nx maxiter 10\n");
    EXPECT_EXIT(loadWithStdoutOnStderr(path), testing::ExitedWithCode(255), kFormatLine);
}

TEST_F(ConfigDeath, UnreadableValuesAndCutEntriesEndWithStatus255) {
    for (const char* contents : {"i maxiter abc\n", "f lambda ten\n", "i maxiter 99999999999\n", "i maxiter\n",
                                 "s dataDir\n", "i\n", "i maxiter 1.5\n"}) {
        SCOPED_TRACE(contents);
        const std::string path = folder.write("cfg", contents);
        EXPECT_EXIT(loadWithStdoutOnStderr(path), testing::ExitedWithCode(255), kFormatLine);
    }
}

TEST_F(ConfigDeath, MissingFileOrFolderEndsWithStatus255) {
    EXPECT_EXIT(loadWithStdoutOnStderr(folder / "absent"), testing::ExitedWithCode(255), "absent");
    EXPECT_EXIT(loadWithStdoutOnStderr(folder.str()), testing::ExitedWithCode(255), kFormatLine);
}

}  // namespace
