#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "src/driver/file_names.h"
#include "tests/support/scratch_folder.h"

namespace {

using testsupport::ScratchFolder;
using Parts = std::vector<std::string>;

// A name without a dot is its own extension.
TEST(FileNames, SplitIntoDirectoryNameAndExtension) {
    const Parts cases[] = {{"a/b/c.ppm", "a/b/", "c", "ppm"},
                           {"c.ppm", "", "c", "ppm"},
                           {"/abs/x.tar.gz", "/abs/", "x.tar", "gz"},
                           {".hidden", "", "", "hidden"},
                           {"dir/", "dir/", "", ""},
                           {"", "", "", ""},
                           {"data/README", "data/", "README", "README"},
                           {"a.b/c", "a.b/", "c", "c"},
                           {"plain", "", "plain", "plain"}};
    for (const Parts& c : cases) EXPECT_EQ(utility::getDFE(c[0]), Parts(c.begin() + 1, c.end())) << c[0];
}

TEST(Listing, MatchesWithTheShellsWildcardsInByteOrder) {
    ScratchFolder folder("listing");
    for (const char* name :
         {"b.ppm", "a.ppm", "a10.ppm", "a2.ppm", "B.ppm", ".hidden.ppm", "x.pgm", "c d.ppm", "[x].ppm"})
        folder.write(name, "x");
    std::filesystem::create_directories(folder / "sub.ppm");
    const std::string p = folder.str() + "/";
    auto listed = [&](const std::string& pattern) { return utility::dir(p + pattern); };
    EXPECT_EQ(listed("*.ppm"), Parts({p + "B.ppm", p + "[x].ppm", p + "a.ppm", p + "a10.ppm", p + "a2.ppm", p + "b.ppm",
                                      p + "c d.ppm"}));
    // The frame loop's pattern has a doubled "/", which stays in the names.
    EXPECT_EQ(listed("/*.pgm"), Parts({p + "/x.pgm"}));
    EXPECT_EQ(listed(".*"), Parts({p + ".hidden.ppm"}));
    EXPECT_EQ(listed("a?.ppm"), Parts({p + "a2.ppm"}));
    EXPECT_EQ(listed("[ab].ppm"), Parts({p + "a.ppm", p + "b.ppm"}));
    EXPECT_EQ(listed("[!ab]*.ppm"), Parts({p + "B.ppm", p + "[x].ppm", p + "c d.ppm"}));
    EXPECT_EQ(listed("*a1*"), Parts({p + "a10.ppm"}));
    EXPECT_EQ(listed("\\[x].ppm"), Parts({p + "[x].ppm"}));
    // Nothing matching, folders, absent folders and a bare folder give nothing.
    // A name is only data: characters the shell would act on match themselves.
    for (const char* none : {"*.png", "sub.ppm", "absent/*.ppm", "", "*; touch hacked"})
        EXPECT_EQ(listed(none), Parts()) << none;
    EXPECT_FALSE(std::filesystem::exists("hacked"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(p), {}), 10) << "nothing is left behind";

    // A pattern without a folder lists the working directory.
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(p);
    const Parts names = utility::dir("a*.ppm");
    std::filesystem::current_path(before);
    EXPECT_EQ(names, Parts({"a.ppm", "a10.ppm", "a2.ppm"}));
}

}  // namespace
