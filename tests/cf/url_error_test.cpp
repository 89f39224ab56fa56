// CFURL path resolution.
#include "cf_support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using namespace talvex::test;

namespace {

CFURLRef file_url(const char *path) {
    return CFURLCreateWithFileSystemPath(nullptr, talvex::make_cf_string(path), kCFURLPOSIXPathStyle, false);
}

std::string path_of(CFURLRef url) { return text(CFRef<CFStringRef>(CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle))); }

}  // namespace

// Relative paths resolve against the directory at creation; absolute paths
// are kept as given, less trailing slashes, and are their own absolute URL.
// (Paths that make no URL, "." and ".." inside: the start command's cases.)
TEST(CFURL, FileSystemPaths) {
    const std::string dir = std::filesystem::current_path().string();
    CFRef<CFURLRef> up(file_url("../x"));
    EXPECT_EQ(path_of(up), "../x");
    std::filesystem::current_path("/");   // later changes of directory do not matter
    EXPECT_EQ(path_of(CFRef<CFURLRef>(CFURLCopyAbsoluteURL(up))),
              std::filesystem::path(dir).parent_path().string() + "/x");
    std::filesystem::current_path(dir);
    for (auto [in, out] : {std::pair{"//fw///a/./b/../c/", "//fw///a/./b/../c"}, {"///", "/"}}) {
        CFRef<CFURLRef> url(file_url(in));
        EXPECT_EQ(path_of(url), out) << in;
        EXPECT_EQ(CFRef<CFURLRef>(CFURLCopyAbsoluteURL(url)).get(), url.get()) << in;
    }
}
