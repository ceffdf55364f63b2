#include "src/utility.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/driver/test_files.h"

namespace {

using driver_test::ScratchFolder;
using Parts = std::vector<std::string>;

TEST(FileNames, SplitIntoDirectoryNameAndExtension) {
    EXPECT_EQ(utility::getDFE("a/b/c.ppm"), Parts({"a/b/", "c", "ppm"}));
    EXPECT_EQ(utility::getDFE("c.ppm"), Parts({"", "c", "ppm"}));
    EXPECT_EQ(utility::getDFE("/abs/x.tar.gz"), Parts({"/abs/", "x.tar", "gz"}));
    EXPECT_EQ(utility::getDFE("frames//f.ppm"), Parts({"frames//", "f", "ppm"}));
    EXPECT_EQ(utility::getDFE(".hidden"), Parts({"", "", "hidden"}));
    EXPECT_EQ(utility::getDFE("dir/"), Parts({"dir/", "", ""}));
    EXPECT_EQ(utility::getDFE(""), Parts({"", "", ""}));
}

TEST(FileNames, ANameWithoutADotIsItsOwnExtension) {
    EXPECT_EQ(utility::getDFE("data/README"), Parts({"data/", "README", "README"}));
    EXPECT_EQ(utility::getDFE("a.b/c"), Parts({"a.b/", "c", "c"}));
    EXPECT_EQ(utility::getDFE("plain"), Parts({"", "plain", "plain"}));
}

class Listing : public testing::Test {
 protected:
    void SetUp() override {
        for (const char* name :
             {"b.ppm", "a.ppm", "a10.ppm", "a2.ppm", "B.ppm", ".hidden.ppm", "x.pgm", "c d.ppm", "[x].ppm"})
            folder.write(name, "x");
        std::filesystem::create_directories(folder / "sub.ppm");
    }
    std::string prefix() const { return folder.str() + "/"; }
    Parts listed(const std::string& pattern) const { return utility::dir(prefix() + pattern); }
    ScratchFolder folder{"listing"};
};

TEST_F(Listing, ListsMatchingFilesInByteOrderWithTheFolderInFront) {
    const std::string p = prefix();
    EXPECT_EQ(listed("*.ppm"), Parts({p + "B.ppm", p + "[x].ppm", p + "a.ppm", p + "a10.ppm", p + "a2.ppm", p + "b.ppm",
                                      p + "c d.ppm"}));
    // The frame loop's pattern has a doubled "/", which stays in the names.
    EXPECT_EQ(utility::dir(p + "/*.pgm"), Parts({p + "/x.pgm"}));
    EXPECT_EQ(listed(".*"), Parts({p + ".hidden.ppm"}));
}

TEST_F(Listing, MatchesWithTheShellsWildcards) {
    const std::string p = prefix();
    EXPECT_EQ(listed("a?.ppm"), Parts({p + "a2.ppm"}));
    EXPECT_EQ(listed("[ab].ppm"), Parts({p + "a.ppm", p + "b.ppm"}));
    EXPECT_EQ(listed("[!ab]*.ppm"), Parts({p + "B.ppm", p + "[x].ppm", p + "c d.ppm"}));
    EXPECT_EQ(listed("*a1*"), Parts({p + "a10.ppm"}));
    EXPECT_EQ(listed("a.ppm"), Parts({p + "a.ppm"}));
    EXPECT_EQ(listed("\\[x].ppm"), Parts({p + "[x].ppm"}));
    // A name is only data: characters the shell would act on match themselves.
    EXPECT_EQ(listed("*; touch hacked"), Parts());
    EXPECT_FALSE(std::filesystem::exists("hacked"));
}

TEST_F(Listing, NothingMatchingOrNoFolderGivesNothing) {
    EXPECT_EQ(listed("*.png"), Parts());
    EXPECT_EQ(listed("sub.ppm"), Parts());  // folders are not listed
    EXPECT_EQ(utility::dir(folder / "absent/*.ppm"), Parts());
    EXPECT_EQ(utility::dir(prefix()), Parts());
    // Nothing is left behind in the folder.
    int entries = 0;
    for (auto it = std::filesystem::directory_iterator(folder.str()); it != std::filesystem::directory_iterator(); ++it)
        ++entries;
    EXPECT_EQ(entries, 10);
}

TEST_F(Listing, APatternWithoutAFolderListsTheWorkingDirectory) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.str());
    const Parts names = utility::dir("a*.ppm");
    std::filesystem::current_path(before);
    EXPECT_EQ(names, Parts({"a.ppm", "a10.ppm", "a2.ppm"}));
}

}  // namespace
